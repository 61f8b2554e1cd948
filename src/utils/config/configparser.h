#pragma once

#include "utils/base/exceptions.h"

#include <map>
#include <ostream>
#include <string>
#include <vector>

namespace k52app {

// One row of the command-line options table.
struct ConfigParameter {
    std::string longName;  // with its leading "--"
    std::string shortName; // with its leading "-"; may be empty
    std::string description;
    bool takesValue;
    std::string defaultValue; // for "--version": the version text

    // The name the option is known by in `values` and `givenOptions`: "--config" -> "config".
    std::string key() const { return longName.substr(2); }
};

class ConfigParserException : public utils::UtilsException {
public:
    using utils::UtilsException::UtilsException;
};

// The daemon's configuration: the command line and the key/value file, merged into one map.
// The informational options and command-line errors end the process from the constructor.
class ConfigParser {
public:
    static const std::vector<ConfigParameter> parameters;

    ConfigParser(int argc, const char* const argv[]);

    // Parses the command line, then loads the configuration file it names (or the default).
    // Exits with 0 for "--version" and "--dry-run", with 1 for "--help" and argument errors;
    // throws ConfigParserException when the file cannot be read or holds a malformed key.
    void loadFromArguments(int argc, const char* const argv[]);

    // Adds the file's keys that are not present yet, so earlier sources keep precedence.
    void loadConfigFile(const std::string& path);

    std::map<std::string, std::string> values;
    std::map<std::string, bool> givenOptions;
    std::string programName;

private:
    void applyDefaults();
    // Records the given options and their values; handles the informational ones.
    void parseCommandLine(int argc, const char* const argv[]);
    // The first image sensor device found, when the configuration names none.
    void detectImageSensor();
};

// The configuration dump: a brace block with one "  \"key\": \"value\"" line per entry.
std::ostream& operator<<(std::ostream& out, const ConfigParser& config);

} // namespace k52app
