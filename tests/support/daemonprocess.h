#pragma once

#include "support/emulatedconfig.h"
#include "utils/platform/filedescriptor.h"

#include <sys/types.h>

#include <chrono>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace k52test {

// One syslog record of the daemon under test.
struct DaemonRecord {
    int priority;
    std::string text;
};

// The real k52app binary on the emulated board, with its own configuration (container
// directory, ports) and its syslog records collected through a preloaded shim.
class DaemonProcess {
public:
    // Starts the daemon and waits until its control socket accepts connections and its workers
    // run ("Core: started.", unless it ends first).
    explicit DaemonProcess(const EmulatedConfig::Overrides& overrides = {});

    // Starts the daemon the way the service manager does: systemd-socket-activate holds the
    // two listening sockets (named "ctrl" and "stream") and starts k52app on the first
    // connection; the configuration names no ports.
    struct SocketActivation {};
    DaemonProcess(SocketActivation, const EmulatedConfig::Overrides& overrides = {});

    uint16_t controlPort() const { return controlPort_; }
    uint16_t streamPort() const { return streamPort_; }
    // Stops the daemon (SIGKILL if it still runs).
    ~DaemonProcess();
    DaemonProcess(const DaemonProcess&) = delete;
    DaemonProcess& operator=(const DaemonProcess&) = delete;

    const EmulatedConfig& config() const { return config_; }
    pid_t pid() const { return pid_; }

    // Sends `signal` and waits for the exit; returns the exit status (128 + n for a signal,
    // -1 on timeout).
    int stop(int signal, std::chrono::milliseconds timeout = std::chrono::seconds(10));
    // Waits for the process to end by itself.
    int wait(std::chrono::milliseconds timeout);
    bool running();

    std::vector<DaemonRecord> records() const;
    // Waits up to five seconds until a record containing `text` is there at or after `from`.
    bool waitForRecord(const std::string& text, size_t from = 0) const;
    // Index of the first record containing `text` at or after `from`, or -1.
    long findRecord(const std::string& text, size_t from = 0) const;
    std::string standardError() const;

private:
    void start(const std::vector<std::string>& launcher);
    void collect();
    void release();

    EmulatedConfig config_;
    uint16_t controlPort_ = 0;
    uint16_t streamPort_ = 0;
    std::string socketPath_;
    utils::FileDescriptor sink_{-1, utils::FileDescriptor::Closer::system};
    pid_t pid_ = -1;
    int status_ = -1;
    std::thread collector_;
    bool collecting_ = true;
    mutable std::mutex mutex_;
    std::vector<DaemonRecord> records_;
};

} // namespace k52test
