// The C-linkage interface of the configuration parser.

#include "utils/config/configparser_c.h"

#include "support/tempdir.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <memory>
#include <string>
#include <vector>

namespace {

using k52test::TempDir;

// argv as a C caller builds it; the strings live as long as the object.
class Arguments {
public:
    explicit Arguments(std::vector<std::string> words) : words_(std::move(words))
    {
        for (auto& word : words_)
            pointers_.push_back(word.data());
        pointers_.push_back(nullptr);
    }
    int argc() const { return static_cast<int>(words_.size()); }
    char* const* argv() { return pointers_.data(); }

private:
    std::vector<std::string> words_;
    std::vector<char*> pointers_;
};

struct HandleDeleter {
    void operator()(ConfigParserHandle* handle) const { ConfigParser_destroy(handle); }
};
using Handle = std::unique_ptr<ConfigParserHandle, HandleDeleter>;

Handle create(std::vector<std::string> words)
{
    Arguments arguments(std::move(words));
    return Handle(ConfigParser_create(arguments.argc(), arguments.argv()));
}

// Values come from the file and the command line. A missing key is inserted empty, and an
// existing key is never replaced by a file, so a key read before a reload keeps its empty value
// while a key never read takes the file's.
TEST(ConfigParserC, GetReturnsValuesAndInsertsMissingKeysBeforeAReload)
{
    TempDir dir("k52config-c");
    auto first = dir.writeFile("first.conf", "image-sensor-path=/dev/imx7\nsocket-ctrl = 4460\n");
    auto second = dir.writeFile("second.conf", "read-before=file\nnever-read=file\n");
    auto handle = create({"k52app", "-c", first, "-C", "capture"});
    ASSERT_NE(handle, nullptr);
    EXPECT_STREQ(ConfigParser_get(handle.get(), "config"), first.c_str());
    EXPECT_STREQ(ConfigParser_get(handle.get(), "command"), "capture");
    EXPECT_STREQ(ConfigParser_get(handle.get(), "socket-ctrl"), "4460");
    EXPECT_STREQ(ConfigParser_get(handle.get(), "image-sensor-path"), "/dev/imx7");

    const char* before = ConfigParser_get(handle.get(), "read-before");
    ASSERT_NE(before, nullptr);
    EXPECT_STREQ(before, "");
    Arguments reload({"k52app", "-c", second});
    ASSERT_EQ(ConfigParser_loadFromArguments(handle.get(), reload.argc(), reload.argv()), 0);
    EXPECT_STREQ(ConfigParser_get(handle.get(), "read-before"), "");
    EXPECT_STREQ(ConfigParser_get(handle.get(), "never-read"), "file");
    EXPECT_STREQ(ConfigParser_get(handle.get(), "config"), second.c_str());
}

struct FailureCase {
    const char* name;
    const char* fileText; // written as bad.conf; null: no file
    std::string expectedError;
};

class ConfigParserCFailure : public testing::TestWithParam<FailureCase> {};

TEST_P(ConfigParserCFailure, CreateAndReloadReportEinval)
{
    const auto& c = GetParam();
    TempDir dir("k52config-c");
    auto good = dir.writeFile("good.conf", "image-sensor-path=/dev/imx0\n");
    auto bad = dir.file("bad.conf");
    if (c.fileText)
        dir.writeFile("bad.conf", c.fileText);
    const std::string expected = "Error: " + c.expectedError + (c.fileText ? "" : bad) + "\n";
    // Runs `call` and checks what it printed and left in errno.
    const auto failing = [&](auto call) {
        testing::internal::CaptureStderr();
        errno = 0;
        auto result = call();
        const int error = errno;
        EXPECT_EQ(testing::internal::GetCapturedStderr(), expected);
        EXPECT_EQ(error, EINVAL);
        return result;
    };
    EXPECT_EQ(failing([&] { return create({"k52app", "-c", bad}); }), nullptr);

    auto handle = create({"k52app", "-c", good});
    ASSERT_NE(handle, nullptr);
    Arguments reload({"k52app", "-c", bad});
    EXPECT_EQ(failing([&] { return ConfigParser_loadFromArguments(handle.get(), reload.argc(), reload.argv()); }),
              -1);
}

INSTANTIATE_TEST_SUITE_P(
    Files, ConfigParserCFailure,
    testing::Values(FailureCase{"MissingFile", nullptr, "Unable to open config file: "},
                    FailureCase{"UpperCaseKey", "Key=1\n", "Invalid key format: Key"},
                    FailureCase{"DigitZeroInKey", "ok=1\nkey0=1\n", "Invalid key format: key0"}),
    [](const auto& info) { return std::string(info.param.name); });

TEST(ConfigParserC, NullHandlesAreRejectedOrIgnored)
{
    testing::internal::CaptureStderr();
    errno = 0;
    EXPECT_EQ(ConfigParser_get(nullptr, "config"), nullptr);
    EXPECT_EQ(errno, EINVAL);
    Arguments arguments({"k52app"});
    errno = 0;
    EXPECT_EQ(ConfigParser_loadFromArguments(nullptr, arguments.argc(), arguments.argv()), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_NE(testing::internal::GetCapturedStderr().find("Error: "), std::string::npos);

    ConfigParser_destroy(nullptr);
}

} // namespace
