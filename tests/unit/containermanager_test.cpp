#include "core/container/containermanager.h"
#include "support/board.h"
#include "support/bytes.h"
#include "support/syslogcapture.h"
#include "support/tempdir.h"
#include "utils/platform/emulated/textfile.h"

#include <sys/stat.h>
#include <syslog.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <zlib.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <optional>
#include <set>
#include <string>
#include <vector>

using k52app::ContainerManager;
using k52app::K52Container;
namespace fs = std::filesystem;

namespace {

using k52test::hex;
using k52test::word;

constexpr std::size_t xmlSize = 229376;
constexpr std::size_t generalSize = 50333896;
constexpr const char* hardware = "K52 test board";
constexpr const char* serial = "00000000c0ffee52";

bool allZero(const std::string& bytes, std::size_t begin, std::size_t end)
{
    return std::all_of(bytes.begin() + begin, bytes.begin() + end, [](char b) { return b == 0; });
}

bool exists(const std::string& path) { return fs::exists(fs::symlink_status(path)); }

std::set<std::string> entries(const std::string& directory)
{
    std::set<std::string> names;
    for (const auto& entry : fs::directory_iterator(directory))
        names.insert(entry.path().filename().string());
    return names;
}

std::size_t openDescriptors() { return std::distance(fs::directory_iterator("/proc/self/fd"), {}); }

mode_t modeOf(const std::string& path)
{
    struct stat info;
    return ::stat(path.c_str(), &info) == 0 ? info.st_mode : 0;
}

class ContainerManagerTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        previousMask_ = ::umask(022);
        board->attach("/proc/cpuinfo", std::make_shared<utils::platform::emulated::TextFile>(
                                           std::string("processor\t: 0\nHardware\t: ") +
                                           hardware + "\nSerial\t\t: " + serial + "\n"));
    }
    void TearDown() override { ::umask(previousMask_); }

    std::string prefix() const { return dir.path() + "/"; }
    std::string xmlPath() const { return dir.file("k52XMLContainer"); }
    std::string generalPath() const { return dir.file("k52generalContainer"); }

    k52test::InstalledBoard board;
    k52test::TempDir dir{"k52containers"};
    mode_t previousMask_ = 0;
};

// Stale, larger, writable files from an earlier run are replaced, not reused; a link planted
// at a container path is replaced, never followed. Each step of the manager's life is logged.
TEST_F(ContainerManagerTest, FilesHaveTheirSizeModeHeadersAndDocumentAndEachStepIsLogged)
{
    k52test::SyslogCapture capture;
    for (const auto& path : {xmlPath(), generalPath()}) {
        dir.writeFile(fs::path(path).filename(), std::string(xmlSize + 4096, '\xAB'));
        ::chmod(path.c_str(), 0644);
    }
    fs::rename(xmlPath(), dir.file("victim"));
    fs::create_symlink(dir.file("victim"), xmlPath());
    const auto ns = [] { return std::chrono::nanoseconds(std::chrono::system_clock::now().time_since_epoch()).count(); };
    const auto before = ns();
    std::optional<ContainerManager> manager(std::in_place, prefix());
    const auto after = ns();
    const struct {
        std::string path;
        std::size_t size;
        std::vector<std::pair<std::size_t, uint32_t>> words; // offset, value
    } cases[] = {
        {xmlPath(), xmlSize, {{0, 0x0510FFFF}, {4, 229376}, {8, 0x052A0201}, {12, 229364}}},
        {generalPath(), generalSize,
         {{0, 0x0510FFFF}, {4, 50333896}, {8, 0x0510F000}, {12, 2144}, {2152, 0x0510F001},
          {2156, 64}, {2216, 0x051A0801}, {2220, 20}, {2236, 0x051A0601}, {2240, 50331656}}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.path);
        EXPECT_EQ(modeOf(c.path), S_IFREG | 0444u);
        const auto bytes = k52test::fileBytes(c.path);
        ASSERT_EQ(bytes.size(), c.size);
        for (const auto& [offset, value] : c.words)
            EXPECT_EQ(word(bytes, offset), value) << "offset " << offset;
        EXPECT_EQ(word(bytes, c.size - 4), uint32_t(crc32(0, reinterpret_cast<const Bytef*>(bytes.data()),
                                                           uInt(c.size - 4))));
    }
    EXPECT_EQ(k52test::fileBytes(dir.file("victim")), std::string(xmlSize + 4096, '\xAB'));
    // Apart from the four sub-container headers, the payloads are zero.
    const auto general = k52test::fileBytes(generalPath());
    for (const auto& [begin, end] : {std::pair<std::size_t, std::size_t>{16, 2152},
                                     {2160, 2216}, {2224, 2236}, {2244, generalSize - 4}})
        EXPECT_TRUE(allZero(general, begin, end)) << begin;

    const auto bytes = k52test::fileBytes(xmlPath());
    const std::string text(bytes.c_str() + 16);
    EXPECT_TRUE(allZero(bytes, 16 + text.size(), xmlSize - 4));
    // Both times are the moment of construction.
    const std::string start = text.substr(text.find("<start-time>") + 12, std::to_string(before).size());
    EXPECT_TRUE(before <= std::stoll(start) && std::stoll(start) <= after) << start;
    EXPECT_EQ(text, std::string("<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<device>\n    <factory>\n"
                                "        <name>k52app</name>\n        <version>1.3.1</version>\n"
                                "        <hardware>") + hardware + "</hardware>\n        <chipid>" + serial +
                        "</chipid>\n        <start-time>" + start + "</start-time>\n        <curent-time>" + start +
                        "</curent-time>\n        <brief>High performance hardware-proxy.</brief>\n"
                        "    </factory>\n</device>\n");

    manager.reset();
    const std::vector<std::pair<int, std::string>> expected = {
        {LOG_DEBUG, "Mapping Containers."},
        {LOG_DEBUG, "Mapped: " + xmlPath()},
        {LOG_DEBUG, "Mapped: " + generalPath()},
        {LOG_INFO, "Containers mapped successfully."},
        {LOG_DEBUG, "Allocated Containers"},
        {LOG_DEBUG, "Initializing XML Container."},
        {LOG_DEBUG, "Initialized XML: checksum = " + hex(word(bytes, xmlSize - 4))},
        {LOG_INFO, "Initialized RTU SubContainer : size = 2144, id = 0x0510f000"},
        {LOG_INFO, "Initialized IMX SubContainer : size = 64, id = 0x0510f001"},
        {LOG_INFO, "Initialized Frame Metadata SubContainer : size = 20, id = 0x051a0801"},
        {LOG_INFO, "Initialized Frame Data SubContainer : size = 50331656, id = 0x051a0601"},
        {LOG_INFO, "Initialized generalContainer: checksum = " + hex(word(general, generalSize - 4))},
        {LOG_INFO, "Initialized Containers."},
        {LOG_INFO, "Containers unmapped successfully."},
        {LOG_DEBUG, "Container removed: " + xmlPath()},
        {LOG_DEBUG, "Container removed: " + generalPath()},
        {LOG_INFO, "Cleaned-up Containers."},
    };
    std::vector<std::pair<int, std::string>> logged;
    for (const auto& [priority, format, line] : capture.records()) // without the prefix and the '\n'
        logged.emplace_back(priority & 7, line.substr(line.find("] ") + 2, line.size() - line.find("] ") - 3));
    EXPECT_EQ(logged, expected);
}

// Close, reopen, move and destruction each leave exactly the files and descriptors they own.
TEST_F(ContainerManagerTest, EveryOwnerReleasesWhatItHolds)
{
    const std::size_t descriptorsBefore = openDescriptors();
    {
        std::optional<ContainerManager> first(std::in_place, prefix());
        EXPECT_EQ(openDescriptors(), descriptorsBefore + 3);
        first->close();
        // The lock is held, and its file kept, for the manager's whole life.
        EXPECT_EQ(entries(dir.path()), std::set<std::string>{"k52app.lock"});
        EXPECT_EQ(openDescriptors(), descriptorsBefore + 1);
        first->open();

        ContainerManager second(std::move(*first));
        first.reset();
        EXPECT_TRUE(exists(xmlPath()));
        EXPECT_EQ(second.imxSubContainer().identifier, 0x0510F001u);
    }
    EXPECT_EQ(entries(dir.path()), std::set<std::string>{"k52app.lock"});
    EXPECT_EQ(openDescriptors(), descriptorsBefore);
}

// The prefix is joined as it stands and the directories it names are created; a construction
// that fails leaves no file and no descriptor behind.
TEST_F(ContainerManagerTest, PrefixIsJoinedAsItStandsAndFailuresLeaveNothingBehind)
{
    const std::string d = dir.path();
    const struct {
        std::string prefix, obstacle; // made first: a file, or a directory when it ends in '/'
        std::string outcome;          // the XML container's path, or the error
        std::vector<std::string> created;
    } cases[] = {
        {d + "/var/run/", "", d + "/var/run/k52XMLContainer", {d + "/var", d + "/var/run"}},
        {d + "/flat", "", d + "/flatk52XMLContainer", {}},
        {d + "//double//", "", d + "//double//k52XMLContainer", {d + "/double"}},
        {d + "/blocker/sub/", d + "/blocker",
         "Failed to create directory: " + d + "/blocker/sub - Not a directory", {}},
        {prefix(), generalPath() + "/keep/", "Failed to open file: " + d + "/k52generalContainer", {}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.prefix);
        if (!c.obstacle.empty() && c.obstacle.back() == '/')
            fs::create_directories(c.obstacle);
        else if (!c.obstacle.empty())
            dir.writeFile(fs::path(c.obstacle).filename(), "not a directory");
        const auto before = entries(d);
        const std::size_t descriptorsBefore = openDescriptors();
        try {
            ContainerManager manager(c.prefix);
            EXPECT_EQ(manager.getPath(K52Container::XML), c.outcome);
            EXPECT_TRUE(exists(c.outcome));
        } catch (const std::runtime_error& error) {
            EXPECT_EQ(error.what(), c.outcome);
            auto after = entries(d);
            after.erase("k52app.lock");
            EXPECT_EQ(after, before);
        }
        EXPECT_EQ(openDescriptors(), descriptorsBefore);
        for (const auto& directory : c.created)
            EXPECT_EQ(modeOf(directory), S_IFDIR | 0755u) << directory;
        if (!c.obstacle.empty())
            fs::remove_all(fs::path(d) / *fs::relative(c.obstacle, d).begin());
    }
}

} // namespace
