#include "core/core.h"
#include "utils/config/configparser.h"
#include "utils/log/logrecord.h"
#include "k52app/terminatehandler.h"
#include "utils/base/exceptions.h"
#include "utils/platform/kernel.h"

#include <csignal>
#include <exception>
#include <iostream>
#include <string>
#include <thread>

namespace {

std::string platformName(const k52app::ConfigParser& config)
{
    auto platform = config.values.find("platform");
    return platform == config.values.end() ? "linux" : platform->second;
}

// The processor count the core's thread budget follows. The emulated board can pretend to
// have another count, so that one binary shows the daemon's behaviour with several workers.
unsigned hardwareConcurrency(const k52app::ConfigParser& config)
{
    auto pretended = config.values.find("emulated-hardware-concurrency");
    if (platformName(config) == "emulated" && pretended != config.values.end())
        return static_cast<unsigned>(std::stoul(pretended->second));
    return std::thread::hardware_concurrency();
}

void runDaemon(int argc, char* argv[])
{
    k52app::ConfigParser config(argc, argv);
    // Left in the buffer on purpose: it reaches syslog as the head of the Core's first record.
    K52_LOG_UNFLUSHED(info) << "Configuration file: " << config;
    utils::platform::selectPlatform(platformName(config), config.values);
    // A client that vanishes must never kill the daemon; sends also use MSG_NOSIGNAL.
    std::signal(SIGPIPE, SIG_IGN);

    k52app::Core core(config, hardwareConcurrency(config));
    g_core = &core;
    std::signal(SIGTERM, terminateHandler);
    std::signal(SIGINT, terminateHandler);
    core.run();
    K52_LOG(warn) << "exiting system gracefully...";
}

} // namespace

int main(int argc, char* argv[])
{
    // Known failures are deliberately left in the log buffer, like the configuration record:
    // they reach syslog only with a later record. Standard error tells the person at once.
    try {
        runDaemon(argc, argv);
    } catch (const utils::UtilsException& error) {
        K52_LOG_UNFLUSHED(err) << "Utility Exception occurred in start-up: " << error.what();
        std::cerr << "k52app: start-up failed: " << error.what() << std::endl;
        return 1;
    } catch (const std::exception& error) {
        K52_LOG_UNFLUSHED(err) << "System Exception occurred in start-up: " << error.what();
        std::cerr << "k52app: start-up failed: " << error.what() << std::endl;
        return 1;
    } catch (...) {
        K52_LOG(err) << "Unknown error occurred.";
        std::cerr << "k52app: start-up failed: unknown error" << std::endl;
        return 1;
    }
    std::this_thread::sleep_for(std::chrono::seconds(1));
    return 0;
}
