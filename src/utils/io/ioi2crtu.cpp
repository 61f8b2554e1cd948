#include "utils/io/ioi2crtu.h"

#include "utils/base/exceptions.h"

namespace utils {

namespace {

std::string registerName(unsigned char reg) { return "RTU register " + std::to_string(reg) + ": "; }

} // namespace

unsigned short IOI2CRTU::readRTUHalfwordRegister(unsigned char reg) const
{
    const uint8_t offset[] = {reg};
    uint8_t value[2];
    try {
        sendThenReceive(offset, value);
    } catch (const IOError& e) {
        throw IOError(registerName(reg) + e.what());
    }
    return static_cast<unsigned short>(value[0] << 8 | value[1]);
}

void IOI2CRTU::writeRTUHalfwordRegister(unsigned char reg, unsigned short value) const
{
    const uint8_t bytes[] = {reg, static_cast<uint8_t>(value >> 8), static_cast<uint8_t>(value)};
    try {
        send(bytes);
    } catch (const IOError& e) {
        throw IOError(registerName(reg) + e.what());
    }
}

} // namespace utils
