#include "utils/io/ioillumination.h"

#include "utils/base/exceptions.h"

namespace utils {

using namespace illumination_registers;

IOIllumination::IOIllumination(std::string path, int flags)
    : IORegisterFile(std::move(path), flags)
{
}

void IOIllumination::setChecked(uint32_t address, const char* name, unsigned value,
                                unsigned max)
{
    if (value > max)
        throw UtilsRuntimeError("Illumination '" + path() + "': " + name + " value " +
                                std::to_string(value) + " is out of range 0.." +
                                std::to_string(max) + ".");
    writeRegister(address, value, name);
}

float IOIllumination::temperature(uint32_t address, const char* name) const
{
    return static_cast<float>(static_cast<int32_t>(readRegister(address, name))) / 1000.0f;
}

unsigned IOIllumination::getStatus() const { return readRegister(Register::status, "STATUS"); }

unsigned IOIllumination::getSerialNumber() const
{
    return readRegister(Register::serialNumber, "SERIAL_NUMBER");
}

float IOIllumination::getInternalTemperature() const
{
    return temperature(Register::internalTemperature, "INTERNAL_TEMPERATURE");
}

float IOIllumination::getExternalTemperature() const
{
    return temperature(Register::externalTemperature, "EXTERNAL_TEMPERATURE");
}

void IOIllumination::setMode(unsigned mode)
{
    setChecked(Register::mode, "MODE", mode, strobeWholeExposure);
}

unsigned IOIllumination::getMode() const { return readRegister(Register::mode, "MODE"); }

void IOIllumination::setSegments(unsigned mask)
{
    setChecked(Register::segments, "SEGMENTS", mask, allSegments);
}

unsigned IOIllumination::getSegments() const
{
    return readRegister(Register::segments, "SEGMENTS");
}

void IOIllumination::setEnable(unsigned state)
{
    writeRegister(Register::enable, state != 0, "ENABLE");
}

void IOIllumination::setWhiteBrightness(unsigned percent)
{
    setChecked(Register::white, "WHITE", percent, maxBrightness);
}

unsigned IOIllumination::getWhiteBrightness() const
{
    return readRegister(Register::white, "WHITE");
}

void IOIllumination::setRedBrightness(unsigned percent)
{
    setChecked(Register::red, "RED", percent, maxBrightness);
}

unsigned IOIllumination::getRedBrightness() const { return readRegister(Register::red, "RED"); }

void IOIllumination::setGreenBrightness(unsigned percent)
{
    setChecked(Register::green, "GREEN", percent, maxBrightness);
}

unsigned IOIllumination::getGreenBrightness() const
{
    return readRegister(Register::green, "GREEN");
}

void IOIllumination::setBlueBrightness(unsigned percent)
{
    setChecked(Register::blue, "BLUE", percent, maxBrightness);
}

unsigned IOIllumination::getBlueBrightness() const
{
    return readRegister(Register::blue, "BLUE");
}

} // namespace utils
