// The daemon's command line and configuration file, through the real binary: exit status, the
// exact standard error and the configuration dump.

#include "support/process.h"
#include "support/tempdir.h"

#include <gtest/gtest.h>

#include <glob.h>

#include <map>
#include <string>
#include <vector>

namespace {

using k52test::runProcess;
using k52test::TempDir;

const std::string binary = K52APP_BINARY;

const std::string banner = "k52app version 1.3.1\n"
                           "===========================\n"
                           "High performance hardware-proxy.\n";

const std::string help =
    banner + "Usage: {argv0} [options]\n"
             "  --help, -h\tPrint this help message\n"
             "  --config, -c\tPath to the configuration file (default: /etc/k52app/k52app.conf)\n"
             "  --command, -C\tInitialise, execute and stream results and status to stdout and "
             "stderr respectively. (default: )\n"
             "  --dry-run, -d\tPrint out the configuration without executing\n"
             "  --version, -v\tPrint version information\n";

const std::string unknownBogus = "Unknown argument: --bogus\n";
const std::string noImx = "No IMX found on device.\n";

// Every file below names the image sensor, so no case depends on the host's /dev/imx* nodes
// unless it means to.
const std::string sensorLine = "image-sensor-path=/dev/imx0\n";
const std::string baseDump = "{\n  \"config\": \"{conf}\",\n  \"image-sensor-path\": \"/dev/imx0\"\n}\n";

struct CliCase {
    std::string name;
    std::vector<std::string> arguments; // "{conf}" is the case's file, "{dir}" its directory
    std::string file;                   // contents of {conf}; not written when empty
    int status;
    std::string err; // "{conf}", "{dir}" and "{argv0}" are replaced as in the arguments
};

std::string substitute(std::string text, const std::map<std::string, std::string>& names)
{
    for (const auto& [name, value] : names) {
        for (size_t at = text.find(name); at != std::string::npos;
             at = text.find(name, at + value.size()))
            text.replace(at, name.size(), value);
    }
    return text;
}

bool hostHasImageSensor()
{
    glob_t matches{};
    bool found = ::glob("/dev/imx*", 0, nullptr, &matches) == 0;
    globfree(&matches);
    return found;
}

class CommandLine : public testing::TestWithParam<CliCase> {};

TEST_P(CommandLine, ExitStatusAndStandardError)
{
    const CliCase& c = GetParam();
    if (c.err.find(noImx) != std::string::npos && hostHasImageSensor())
        GTEST_SKIP() << "this host has /dev/imx* nodes, so no discovery message is printed";

    TempDir dir("k52config");
    const std::string conf = dir.file("k52app.conf");
    if (!c.file.empty())
        dir.writeFile("k52app.conf", c.file);
    const std::map<std::string, std::string> names = {
        {"{conf}", conf}, {"{dir}", dir.path()}, {"{argv0}", binary}};

    std::vector<std::string> arguments;
    for (const auto& argument : c.arguments)
        arguments.push_back(substitute(argument, names));

    auto result = runProcess(binary, arguments);
    ASSERT_FALSE(result.timedOut);
    EXPECT_EQ(result.exitStatus, c.status);
    EXPECT_EQ(result.err, substitute(c.err, names));
    EXPECT_EQ(result.out, "");
}

// The dump with extra lines between the configured file and the sensor, or after the sensor.
std::string dumpWith(const std::string& before, const std::string& after = "")
{
    return "{\n" + before + "  \"config\": \"{conf}\",\n  \"image-sensor-path\": \"/dev/imx0\"" + after +
           "\n}\n";
}
const std::string failed = "k52app: start-up failed: ";
const std::vector<std::string> confD = {"-c", "{conf}", "-d"};

// Informational options end the process before any file is read.
INSTANTIATE_TEST_SUITE_P(
    Informational, CommandLine,
    testing::Values(
        CliCase{"HelpDoesNotReadTheFile", {"-c", "{dir}/absent.conf", "-h"}, "", 1, help},
        CliCase{"UnknownAfterHelpWins", {"--help", "--bogus"}, "", 1, unknownBogus},
        CliCase{"HelpTakesNoValue", {"--help=yes"}, "", 1, "Unknown argument: --help=yes\n"},
        CliCase{"DryRunTakesNoSuffix", {"-dx"}, "", 1, "Unknown argument: -dx\n"},
        CliCase{"LongPrefixOfNothing", {"--c"}, "", 1, "Unknown argument: --c\n"},
        CliCase{"VersionIgnoresWhatFollows", {"-v", "--bogus"}, "", 0, banner},
        CliCase{"VersionWinsOverEarlierHelp", {"-h", "--version"}, "", 0, banner},
        CliCase{"UnknownBeforeVersionWins", {"--bogus", "-v"}, "", 1, unknownBogus},
        // "-c" consumes "-v" as its path, which then cannot be opened.
        CliCase{"VersionConsumedAsValue", {"-c", "-v"}, "", 1, failed + "Unable to open config file: -v\n"}),
    [](const auto& info) { return info.param.name; });

INSTANTIATE_TEST_SUITE_P(
    MissingValues, CommandLine,
    testing::Values(
        CliCase{"ConfigAtEnd", {"-c"}, "", 1, "Error: --config option requires an argument.\n"},
        CliCase{"CommandAtEnd", {"-d", "--command"}, "", 1, "Error: --command option requires an argument.\n"},
        CliCase{"ConfigEquals", {"--config="}, "", 1, "Error: --config option requires a non-empty argument.\n"},
        CliCase{"ShortCommandEquals", {"-C="}, "", 1, "Error: --command option requires a non-empty argument.\n"},
        // An empty separate value is accepted; the empty path then fails to open.
        CliCase{"EmptyConfigArgument", {"--config", "", "-d"}, "", 1, failed + "Unable to open config file: \n"},
        CliCase{"EmptyCommandArgument", {"-c", "{conf}", "-C", "", "-d"}, sensorLine, 0,
                dumpWith("  \"command\": \"\",\n")}),
    [](const auto& info) { return info.param.name; });

INSTANTIATE_TEST_SUITE_P(
    OptionForms, CommandLine,
    testing::Values(
        CliCase{"LongEquals", {"--config={conf}", "-d"}, sensorLine, 0, baseDump},
        CliCase{"ShortEquals", {"-c={conf}", "-d"}, sensorLine, 0, baseDump},
        CliCase{"LongSeparate", {"--config", "{conf}", "--dry-run"}, sensorLine, 0, baseDump},
        CliCase{"LongPrefixTakesNextArgument", {"--configX", "{conf}", "-d"}, sensorLine, 0, baseDump},
        CliCase{"ShortPrefixTakesNextArgument", {"-cX", "{conf}", "-d"}, sensorLine, 0, baseDump},
        CliCase{"DryRunBeforeConfig", {"-d", "-c", "{conf}"}, sensorLine, 0, baseDump},
        CliCase{"ValueKeepsLaterEquals", {"-c={conf}", "-C=run=now", "-d"}, sensorLine, 0,
                dumpWith("  \"command\": \"run=now\",\n")},
        CliCase{"LastConfigWins", {"-c", "{dir}/absent.conf", "-c", "{conf}", "-d"}, sensorLine, 0, baseDump}),
    [](const auto& info) { return info.param.name; });

INSTANTIATE_TEST_SUITE_P(
    FileRules, CommandLine,
    testing::Values(
        CliCase{"WhiteSpaceRemovedEverywhere", confD,
                "  socket-ctrl = 5000 \n\tsocket-addr\t=\t127.0.0.1\nrtu-path = /dev/k52 rtu\n" + sensorLine, 0,
                dumpWith("", ",\n  \"rtu-path\": \"/dev/k52rtu\",\n  \"socket-addr\": \"127.0.0.1\",\n"
                             "  \"socket-ctrl\": \"5000\"")},
        CliCase{"OnlyWholeLineComments", confD,
                "# rtu-path=/dev/commented\n   # tof-path=/dev/indented\nsocket-addr=10.0.0.1#not-a-comment\n" +
                    sensorLine, 0, dumpWith("", ",\n  \"socket-addr\": \"10.0.0.1#not-a-comment\"")},
        CliCase{"LinesWithoutValueSkipped", confD,
                "no equals sign here\nempty-value=\n   =   \nUpper=\n\nrtu-path=/dev/a=b\n"
                "image-sensor-path=/dev/imx0\r\n", 0, dumpWith("", ",\n  \"rtu-path\": \"/dev/a=b\"")},
        CliCase{"KeyAlphabet", confD, "my_key-19=v\n" + sensorLine, 0, dumpWith("", ",\n  \"my_key-19\": \"v\"")},
        CliCase{"FirstOccurrenceWins", confD, "tof-path=/dev/first\ntof-path=/dev/second\n" + sensorLine, 0,
                dumpWith("", ",\n  \"tof-path\": \"/dev/first\"")},
        CliCase{"CommandLineWinsOverFile", {"-c", "{conf}", "-C", "cli", "-d"},
                "config=/elsewhere.conf\ncommand=from-file\n" + sensorLine, 0, dumpWith("  \"command\": \"cli\",\n")},
        CliCase{"ImageSensorDiscoveryFails", confD, "rtu-path=/dev/k52rtu\n", 0,
                noImx + "{\n  \"config\": \"{conf}\",\n  \"rtu-path\": \"/dev/k52rtu\"\n}\n"},
        // The dump ends the process before the platform is selected or any device opened.
        CliCase{"DryRunSelectsNoPlatform", confD, "platform=no-such-board\n" + sensorLine, 0,
                dumpWith("", ",\n  \"platform\": \"no-such-board\"")}),
    [](const auto& info) { return info.param.name; });

// Start-up failures end with status 1; the record goes to the log and one line to standard error.
INSTANTIATE_TEST_SUITE_P(
    StartUpFailures, CommandLine,
    testing::Values(
        CliCase{"UpperCaseKey", confD, sensorLine + "Key=1\n", 1, failed + "Invalid key format: Key\n"},
        CliCase{"DigitZeroInKey", confD, "key0=1\n" + sensorLine, 1, failed + "Invalid key format: key0\n"},
        CliCase{"EmptyKey", confD, "=value\n" + sensorLine, 1, failed + "Invalid key format: \n"},
        CliCase{"DotInKey", confD, "rtu.path=/dev/x\n" + sensorLine, 1, failed + "Invalid key format: rtu.path\n"},
        CliCase{"MissingFile", {"-c", "{dir}/absent.conf", "-d"}, "", 1,
                failed + "Unable to open config file: {dir}/absent.conf\n"},
        CliCase{"DirectoryAsFile", {"-c", "{dir}", "-d"}, "", 1, failed + "Unable to open config file: {dir}\n"},
        CliCase{"UnknownPlatform", {"-c", "{conf}"}, "platform=no-such-board\n" + sensorLine, 1,
                failed + "Unknown platform 'no-such-board': expected 'linux' or 'emulated'.\n"}),
    [](const auto& info) { return info.param.name; });

// The example configurations shipped in etc/: both set every key the daemon reads, and the
// emulated one names the agreed device nodes.
const std::map<std::string, std::string> emulatedValues = {
    {"platform", "emulated"},           {"socket-addr", "127.0.0.1"},        {"rtu-path", "/dev/k52rtu"},
    {"image-sensor-path", "/dev/imx0"}, {"v4l2-path", "/dev/video0"},        {"autofocus-path", "/dev/k52af"},
    {"illumination-path", "/dev/k52illum"}, {"rtu-i2c-line", "/dev/i2c-1"},  {"rtu-i2c-address", "66"},
    {"smart-sensor-i2c-line", "/dev/i2c-5"}, {"smart-sensor-i2c-address", "40"},
    {"smart-sensor-irq-pin", "17"},     {"smart-sensor-fw-path", "etc/firmware/smartsensor.bin"},
    {"tof-path", "/dev/k52tof"},        {"button-chip", "gpiochip0"},        {"button-line", "12"},
    {"static-files", "etc/static-frames"}};

class ExampleConfiguration : public testing::TestWithParam<const char*> {};

TEST_P(ExampleConfiguration, SetsEveryKeyTheDaemonReads)
{
    const bool emulated = std::string(GetParam()).find("emulated") != std::string::npos;
    auto result = runProcess(binary, {"--config", std::string(K52_SOURCE_DIR) + "/" + GetParam(), "--dry-run"});
    ASSERT_EQ(result.exitStatus, 0) << result.err;
    ASSERT_EQ(result.err.rfind("{\n", 0), 0u) << "nothing may precede the dump:\n" << result.err;
    std::map<std::string, std::string> keys = {{"container-path", ""}, {"socket-ctrl", ""}, {"socket-stream", ""}};
    for (const auto& [key, value] : emulatedValues)
        keys[key] = emulated ? value : "";
    for (const auto& [key, value] : keys) // an empty value: any value
        EXPECT_NE(result.err.find("  \"" + key + "\": \"" + (value.empty() ? "" : value + "\"")),
                  std::string::npos) << key << " " << value;
}

INSTANTIATE_TEST_SUITE_P(Etc, ExampleConfiguration,
                         testing::Values("etc/k52app-emulated.conf", "etc/k52app-board.conf"));

} // namespace
