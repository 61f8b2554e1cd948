#include "k52app/configparser.h"
#include "k52app/logrecord.h"
#include "utils/base/exceptions.h"
#include "utils/platform/kernel.h"

#include <exception>
#include <iostream>
#include <string>

namespace {

std::string platformName(const k52app::ConfigParser& config)
{
    auto platform = config.values.find("platform");
    return platform == config.values.end() ? "linux" : platform->second;
}

int runDaemon(int argc, char* argv[])
{
    k52app::ConfigParser config(argc, argv);
    // Left in the buffer on purpose: it reaches syslog as the head of the next record.
    K52_LOG_UNFLUSHED(info) << "Configuration file: " << config;
    utils::platform::selectPlatform(platformName(config), config.values);

    std::cerr << "k52app: configuration loaded; the daemon core is not part of this build yet.\n";
    return 0;
}

} // namespace

int main(int argc, char* argv[])
{
    // Known failures are deliberately left in the log buffer, like the configuration record:
    // they reach syslog only with a later record. Only an unknown failure is sent at once.
    try {
        return runDaemon(argc, argv);
    } catch (const utils::UtilsException& error) {
        K52_LOG_UNFLUSHED(err) << "Utility Exception occurred in start-up: " << error.what();
    } catch (const std::exception& error) {
        K52_LOG_UNFLUSHED(err) << "System Exception occurred in start-up: " << error.what();
    } catch (...) {
        K52_LOG(err) << "Unknown error occurred.";
    }
    return 1;
}
