#pragma once

#include <string>

namespace utils {

// The analog output's two sysfs GPIO lines. Both are active-low: 0 enables the output, and
// 0 on the type line selects current.
inline constexpr const char* analogOutputEnableLinePath = "/sys/class/gpio/gpio431/value";
inline constexpr const char* analogOutputTypeLinePath = "/sys/class/gpio/gpio479/value";

// Writes `value` in decimal to the sysfs value file at `path` through the kernel seam, so that
// on the emulated board the write reaches the device model behind the file. Throws
// IOError "Failed to open <path> for writing" or "Failed to write to <path>".
void writeSysfsValue(const std::string& path, unsigned value);

// Drives an active-low line: writes 0 when `active`, 1 otherwise.
void writeActiveLowLine(const std::string& path, bool active);

} // namespace utils
