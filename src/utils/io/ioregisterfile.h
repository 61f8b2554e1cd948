#pragma once

#include "utils/io/iofile.h"

#include <chrono>
#include <cstddef>
#include <cstdint>

namespace utils {

// A device node that exposes a register file: each 32-bit little-endian register sits at its
// byte address; larger tables are blocks of bytes at their own address. Every access is one
// K52_REGISTER_READ or K52_REGISTER_WRITE ioctl (utils/regmap/registeraccess.h). Shared by the
// board's own modules (RTU, image-sensor control, ToF, illumination, autofocus). Every failure
// names the register, the device path and the reason.
class IORegisterFile : public IOFile {
public:
    using IOFile::IOFile;

protected:
    // Blocks longer than one request can carry (K52_REGISTER_DATA_MAX) fail with EINVAL.
    uint32_t readRegister(uint32_t address, const char* name) const;
    void writeRegister(uint32_t address, uint32_t value, const char* name) const;
    void readBlock(uint32_t address, void* data, size_t length, const char* name) const;
    void writeBlock(uint32_t address, const void* data, size_t length, const char* name) const;

    // Polls the register until (value & mask) == expected and returns that value. Throws
    // IOError "... timed out waiting for <what>" when `timeout` passes first.
    uint32_t waitForBits(uint32_t address, const char* name, uint32_t mask, uint32_t expected,
                         std::chrono::milliseconds timeout, const char* what) const;
};

} // namespace utils
