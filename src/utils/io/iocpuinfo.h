#pragma once

#include <string>

namespace utils {

// What /proc/cpuinfo says about the board. A line the kernel does not print (a PC has no
// "Hardware" or "Serial") reads as "unknown".
class IOCpuInfo {
public:
    // Reads the file at once; throws IOError when it cannot be read.
    IOCpuInfo();

    std::string getHardware() const { return hardware_; }
    std::string getSerial() const { return serial_; }

private:
    std::string hardware_;
    std::string serial_;
};

} // namespace utils
