#pragma once

#include <string>

namespace utils {

// Writes `value` in decimal to the sysfs value file at `path` through the kernel seam, so that
// on the emulated board the write reaches the device model behind the file. Throws
// IOError "Failed to open <path> for writing" or "Failed to write to <path>".
void writeSysfsValue(const std::string& path, unsigned value);

// Drives an active-low line: writes 0 when `active`, 1 otherwise.
void writeActiveLowLine(const std::string& path, bool active);

} // namespace utils
