#include "utils/io/ioi2crtu.h"

#include "utils/base/exceptions.h"

namespace utils {

namespace {

std::string registerName(unsigned char reg) { return "RTU register " + std::to_string(reg) + ": "; }

} // namespace

unsigned short IOI2CRTU::readRTUHalfwordRegister(unsigned char reg) const
{
    try {
        return readWord(reg);
    } catch (const IOError& e) {
        throw IOError(registerName(reg) + e.what());
    }
}

void IOI2CRTU::writeRTUHalfwordRegister(unsigned char reg, unsigned short value) const
{
    try {
        writeWord(reg, value);
    } catch (const IOError& e) {
        throw IOError(registerName(reg) + e.what());
    }
}

} // namespace utils
