// The C-linkage interface of the configuration parser.

#include "utils/config/configparser_c.h"

#include "support/tempdir.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace {

// Calls `use(argc, argv)` with argv built as a C caller builds it.
template <typename Use>
auto withArguments(std::vector<std::string> words, Use use)
{
    std::vector<char*> argv;
    for (auto& word : words)
        argv.push_back(word.data());
    argv.push_back(nullptr);
    return use(static_cast<int>(words.size()), argv.data());
}

using Handle = std::unique_ptr<ConfigParserHandle, decltype(&ConfigParser_destroy)>;

Handle create(std::vector<std::string> words)
{
    return Handle(withArguments(std::move(words), ConfigParser_create), ConfigParser_destroy);
}

int reload(ConfigParserHandle* handle, const std::string& file)
{
    return withArguments({"k52app", "-c", file}, [&](int argc, char* const* argv) {
        return ConfigParser_loadFromArguments(handle, argc, argv);
    });
}

// Values come from the file and the command line. A missing key is inserted empty, and an
// existing key is never replaced by a file, so a key read before a reload keeps its empty value
// while a key never read takes the file's.
TEST(ConfigParserC, GetReturnsValuesAndInsertsMissingKeysBeforeAReload)
{
    k52test::TempDir dir("k52config-c");
    auto first = dir.writeFile("first.conf", "image-sensor-path=/dev/imx7\nsocket-ctrl = 4460\n");
    auto second = dir.writeFile("second.conf", "read-before=file\nnever-read=file\n");
    auto handle = create({"k52app", "-c", first});
    ASSERT_NE(handle, nullptr);
    EXPECT_STREQ(ConfigParser_get(handle.get(), "socket-ctrl"), "4460");
    EXPECT_STREQ(ConfigParser_get(handle.get(), "read-before"), "");
    ASSERT_EQ(reload(handle.get(), second), 0);
    EXPECT_STREQ(ConfigParser_get(handle.get(), "read-before"), "");
    EXPECT_STREQ(ConfigParser_get(handle.get(), "never-read"), "file");
    EXPECT_STREQ(ConfigParser_get(handle.get(), "config"), second.c_str());
}

// Every failure prints one line, sets EINVAL and returns the C caller's failure value.
TEST(ConfigParserC, FailuresReportEinval)
{
    k52test::TempDir dir("k52config-c");
    const auto bad = dir.writeFile("bad.conf", "Key=1\n");
    auto handle = create({"k52app", "-c", dir.writeFile("good.conf", "image-sensor-path=/dev/imx0\n")});
    ASSERT_NE(handle, nullptr);
    const struct {
        std::function<bool()> failed;
        std::string error;
    } cases[] = {
        {[&] { return !create({"k52app", "-c", bad}); }, "Invalid key format: Key"},
        {[&] { return reload(handle.get(), bad) == -1; }, "Invalid key format: Key"},
        {[&] { return reload(nullptr, bad) == -1; }, "ConfigParser handle is null."},
        {[&] { return !ConfigParser_get(nullptr, "config"); }, "ConfigParser handle is null."},
        {[&] { return !ConfigParser_get(handle.get(), nullptr); }, "ConfigParser key is null."},
    };
    for (const auto& c : cases) {
        testing::internal::CaptureStderr();
        errno = 0;
        EXPECT_TRUE(c.failed()) << c.error;
        EXPECT_EQ(errno, EINVAL) << c.error;
        EXPECT_EQ(testing::internal::GetCapturedStderr(), "Error: " + c.error + "\n");
    }
    ConfigParser_destroy(nullptr);
}

} // namespace
