#pragma once

#include "utils/io/iofile.h"

#include <cstdint>
#include <span>
#include <string>

union i2c_smbus_data;

namespace utils {

// One device on an i2c-dev bus (/dev/i2c-N). Every access is one SMBus transfer (I2C_SMBUS):
// the portable choice for register access, carried by SMBus-only adapters as well as by full
// I2C ones, and atomic on the bus against other processes' traffic.
class IOI2CFile : public IOFile {
public:
    // The most bytes one I2C block transfer moves.
    static constexpr size_t maxBlockLength = 32;

    // Opens `device` at once; throws IOError naming it when that fails. `address` is the
    // device's 7-bit address; a larger one fails every transfer with EINVAL.
    IOI2CFile(std::string device, uint8_t address, int flags = O_RDWR);

    uint8_t address() const { return address_; }

    // 8-bit register access (SMBus byte data). Return 0 on success and the negated errno
    // otherwise (ENXIO: no device answers at the address), so that callers can report a
    // missing device as a result rather than an exception.
    int readRegister(uint8_t reg, uint8_t& value) const;
    int writeRegister(uint8_t reg, uint8_t value) const;

    // 16-bit registers (SMBus word data: low byte first on the wire) and runs of up to
    // maxBlockLength bytes from register `reg` on (I2C block data). Throw IOError naming the
    // bus, the address and the reason; a bus that lacks the transfer type says so.
    uint16_t readWord(uint8_t reg) const;
    void writeWord(uint8_t reg, uint16_t value) const;
    void readBlock(uint8_t reg, std::span<uint8_t> data) const;
    void writeBlock(uint8_t reg, std::span<const uint8_t> data) const;

private:
    // One SMBus transfer to the device; 0 or an errno value.
    int transfer(uint8_t direction, uint8_t command, uint32_t size, i2c_smbus_data& data) const;
    // Throws the IOError for a transfer of `size` in `direction` that failed with `error`.
    [[noreturn]] void transferFailed(int error, uint8_t direction, uint32_t size) const;

    uint8_t address_;
};

} // namespace utils
