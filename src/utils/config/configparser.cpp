#include "utils/config/configparser.h"

#include "utils/base/strings.h"
#include "utils/version.h"

#include <cctype>
#include <cstdlib>
#include <fstream>
#include <iostream>

namespace k52app {

namespace {

constexpr const char* programLabel = "k52app";
constexpr const char* defaultConfigPath = "/etc/k52app/k52app.conf";
constexpr const char* imageSensorPattern = "/dev/imx*";
constexpr const char* versionText = utils::programVersion;

void printVersionBanner()
{
    std::cerr << programLabel << " version " << versionText << "\n"
              << "===========================\n"
              << "High performance hardware-proxy.\n";
}

void printHelp(const std::string& programName)
{
    printVersionBanner();
    std::cerr << "Usage: " << programName << " [options]\n";
    for (const auto& parameter : ConfigParser::parameters) {
        std::cerr << "  " << parameter.longName;
        if (!parameter.shortName.empty())
            std::cerr << ", " << parameter.shortName;
        std::cerr << "\t" << parameter.description;
        if (parameter.takesValue)
            std::cerr << " (default: " << parameter.defaultValue << ")";
        std::cerr << "\n";
    }
}

// The informational options and argument errors end the process here, as a command-line tool
// does; nothing has been opened yet that would need unwinding.
[[noreturn]] void finish(int status)
{
    std::cerr.flush();
    std::exit(status);
}

bool startsWith(const std::string& text, const std::string& prefix)
{
    return !prefix.empty() && text.compare(0, prefix.size(), prefix) == 0;
}

// Value options also match on a prefix, which is what lets "--config=/x" and "-c=/x" through.
bool matches(const ConfigParameter& parameter, const std::string& argument)
{
    if (argument == parameter.longName ||
        (!parameter.shortName.empty() && argument == parameter.shortName))
        return true;
    return parameter.takesValue &&
           (startsWith(argument, parameter.longName) || startsWith(argument, parameter.shortName));
}

const ConfigParameter* findParameter(const std::string& argument)
{
    for (const auto& parameter : ConfigParser::parameters) {
        if (matches(parameter, argument))
            return &parameter;
    }
    return nullptr;
}

// The value of a value option: after its '=' or, failing that, the next argument (which `i`
// then steps over).
std::string optionValue(const ConfigParameter& parameter, const std::string& argument, int& i,
                        int argc, const char* const argv[])
{
    if (auto equals = argument.find('='); equals != std::string::npos) {
        std::string value = argument.substr(equals + 1);
        if (value.empty()) {
            std::cerr << "Error: " << parameter.longName
                      << " option requires a non-empty argument.\n";
            finish(1);
        }
        return value;
    }
    if (i + 1 < argc)
        return argv[++i];
    std::cerr << "Error: " << parameter.longName << " option requires an argument.\n";
    finish(1);
}

std::string withoutWhiteSpace(const std::string& line)
{
    std::string result;
    result.reserve(line.size());
    for (char c : line) {
        if (!std::isspace(static_cast<unsigned char>(c)))
            result += c;
    }
    return result;
}

// Keys are lower-case words; the digit 0 is deliberately not allowed.
bool isValidKey(const std::string& key)
{
    if (key.empty())
        return false;
    for (char c : key) {
        bool allowed = (c >= 'a' && c <= 'z') || (c >= '1' && c <= '9') || c == '_' || c == '-';
        if (!allowed)
            return false;
    }
    return true;
}

} // namespace

const std::vector<ConfigParameter> ConfigParser::parameters = {
    {"--help", "-h", "Print this help message", false, ""},
    {"--config", "-c", "Path to the configuration file", true, defaultConfigPath},
    {"--command", "-C",
     "Initialise, execute and stream results and status to stdout and stderr respectively.", true,
     ""},
    {"--dry-run", "-d", "Print out the configuration without executing", false, ""},
    {"--version", "-v", "Print version information", false, versionText},
};

ConfigParser::ConfigParser(int argc, const char* const argv[])
{
    loadFromArguments(argc, argv);
}

void ConfigParser::loadFromArguments(int argc, const char* const argv[])
{
    if (argc > 0)
        programName = argv[0];
    applyDefaults();
    parseCommandLine(argc, argv);
    loadConfigFile(values.at("config"));
    if (!values.contains("image-sensor-path"))
        detectImageSensor();
    if (givenOptions["dry-run"]) {
        std::cerr << *this;
        finish(0);
    }
}

void ConfigParser::applyDefaults()
{
    for (const auto& parameter : parameters) {
        if (parameter.takesValue && !parameter.defaultValue.empty())
            values.emplace(parameter.key(), parameter.defaultValue);
        givenOptions[parameter.key()] = false;
    }
}

void ConfigParser::parseCommandLine(int argc, const char* const argv[])
{
    // Help waits for the whole line, so that an unknown argument after it is still reported.
    bool helpAsked = false;
    for (int i = 1; i < argc; ++i) {
        const std::string argument = argv[i];
        const ConfigParameter* parameter = findParameter(argument);
        if (parameter == nullptr) {
            std::cerr << "Unknown argument: " << argument << "\n";
            finish(1);
        }
        givenOptions[parameter->key()] = true;

        if (parameter->longName == "--help") {
            helpAsked = true;
        } else if (parameter->longName == "--version") {
            printVersionBanner();
            finish(0);
        } else if (parameter->takesValue) {
            values[parameter->key()] = optionValue(*parameter, argument, i, argc, argv);
        }
    }
    if (helpAsked) {
        printHelp(programName);
        finish(1);
    }
}

void ConfigParser::detectImageSensor()
{
    try {
        auto sensors = utils::findMatchingPattern(imageSensorPattern);
        if (!sensors.empty()) {
            values["image-sensor-path"] = sensors.front();
            return;
        }
    } catch (const std::exception&) {
    }
    std::cerr << "No IMX found on device.\n";
}

void ConfigParser::loadConfigFile(const std::string& path)
{
    std::ifstream file(path);
    if (!file.is_open())
        throw ConfigParserException("Unable to open config file: " + path);

    for (std::string line; std::getline(file, line);) {
        line = withoutWhiteSpace(line);
        if (line.empty() || line.front() == '#')
            continue;
        auto equals = line.find('=');
        if (equals == std::string::npos || equals + 1 == line.size())
            continue;
        std::string key = line.substr(0, equals);
        if (!isValidKey(key))
            throw ConfigParserException("Invalid key format: " + key);
        values.emplace(std::move(key), line.substr(equals + 1));
    }
    // A path that opens but cannot be read (a directory, an I/O error) is as unusable as a
    // missing one.
    if (file.bad())
        throw ConfigParserException("Unable to open config file: " + path);
}

std::ostream& operator<<(std::ostream& out, const ConfigParser& config)
{
    out << "{\n";
    const char* separator = "";
    for (const auto& [key, value] : config.values) {
        out << separator << "  \"" << key << "\": \"" << value << "\"";
        separator = ",\n";
    }
    return out << "\n}\n";
}

} // namespace k52app
