#pragma once

#include <map>
#include <mutex>
#include <string>

namespace utils::platform::emulated {

// Faults a test or an `emulated-fault-*` configuration key injects into one device node.
enum class Fault {
    none,
    openFails,  // open() fails with ENODEV
    ioError,    // read/write/pread/pwrite/ioctl fail with EIO
    timeout,    // the device never becomes ready (poll times out, waits expire)
    shortFrame, // a capture device delivers frames shorter than their format says
};

class FaultInjector {
public:
    void inject(const std::string& path, Fault fault);
    void clear(const std::string& path);
    Fault fault(const std::string& path) const;

    // Parses a fault name as written in configuration: "open", "io", "timeout", "short-frame".
    // Throws UtilsRuntimeError naming the accepted names for anything else.
    static Fault parse(const std::string& name);

private:
    mutable std::mutex mutex_;
    std::map<std::string, Fault> faults_;
};

} // namespace utils::platform::emulated
