#pragma once

#include "utils/io/iofile.h"

#include <cstdint>
#include <span>
#include <string>

namespace utils {

// One device on an i2c-dev bus (/dev/i2c-N). Every access is a single I2C_RDWR transfer
// addressed to the device, so a register read (offset write, repeated start, read) cannot be
// interleaved with another process's traffic on the same bus.
class IOI2CFile : public IOFile {
public:
    // Opens `device` at once; throws IOError naming it when that fails. `address` is the
    // device's 7-bit address; a larger one fails every transfer with EINVAL.
    IOI2CFile(std::string device, uint8_t address, int flags = O_RDWR);

    uint8_t address() const { return address_; }

    // 8-bit register access. Return 0 on success and the negated errno otherwise (ENXIO: no
    // device answers at the address), so that callers can report a missing device as a
    // result rather than an exception.
    int readRegister(uint8_t reg, uint8_t& value) const;
    int writeRegister(uint8_t reg, uint8_t value) const;

    // Raw transfers for devices with their own protocol. Throw IOError naming the bus, the
    // address and the reason.
    void send(std::span<const uint8_t> data) const;
    void receive(std::span<uint8_t> data) const;
    void sendThenReceive(std::span<const uint8_t> data, std::span<uint8_t> reply) const;

private:
    // The transfer's result: 0 or an errno value.
    int transfer(std::span<const uint8_t> data, std::span<uint8_t> reply) const;
    [[noreturn]] void transferFailed(int error) const;

    uint8_t address_;
};

} // namespace utils
