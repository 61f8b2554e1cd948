#pragma once

#include "utils/io/ioi2cfile.h"

#include <cstdint>

namespace utils {

// The RTU's register interface on its I2C bus: 16-bit registers numbered by one byte, each
// read or written with one SMBus word-data transfer (low byte first on the wire).
class IOI2CRTU : public IOI2CFile {
public:
    // Register numbers of the analog output.
    enum Register : uint8_t {
        deviceState = 0,           // read-only: the unit's device state (1..6)
        internalTemperature = 1,   // read-only: signed, in 1/100 degree Celsius
        revision = 2,              // read-only: major in the high byte, minor in the low byte
        heartbeatCount = 3,        // read-only: heartbeats received, modulo 65536
        analogOutputState = 14,    // 0x1000 enables, 0 disables; any non-zero reads as enabled
        analogOutputType = 15,     // 1 current, 0 voltage
        analogOutputVoltage = 16,
        analogOutputCurrent = 17,
        analogOutputPWMDuty = 18,
        analogOutputPWMPeriod = 19,
    };
    static constexpr uint16_t analogOutputEnable = 0x1000;

    using IOI2CFile::IOI2CFile;

    // Throw IOError naming the register, the address and the bus when the transfer fails.
    unsigned short readRTUHalfwordRegister(unsigned char reg) const;
    void writeRTUHalfwordRegister(unsigned char reg, unsigned short value) const;
};

} // namespace utils
