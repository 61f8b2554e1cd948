#include "utils/io/iortu.h"

#include "utils/regmap/rturegisters.h"

#include <endian.h>

#include <cerrno>

namespace utils {

namespace reg = rtu_registers;

namespace {

// The byte address of `word` in `pin`'s block, for a pin the unit has.
uint32_t pinWordAddress(unsigned pin, uint32_t word)
{
    return reg::pinBlock(pin) + 4 * word;
}

} // namespace

void IORTU::checkPin(unsigned pin) const
{
    if (pin >= pinCount) {
        errno = EINVAL;
        fail("No I/O pin " + std::to_string(pin) + " on");
    }
}

IORTU::IORTU(std::string path, int flags) : IORegisterFile(std::move(path), flags) {}

uint32_t IORTU::getState() const { return readRegister(reg::status, "STATUS"); }

IORTURevision IORTU::getRevision() const
{
    return {readRegister(reg::revisionMajor, "REVISION_MAJOR"),
            readRegister(reg::revisionMinor, "REVISION_MINOR"),
            readRegister(reg::revisionWeek, "REVISION_WEEK"),
            readRegister(reg::revisionYear, "REVISION_YEAR"),
            readRegister(reg::revisionNumber, "REVISION_NUMBER"),
            readRegister(reg::revisionPatch, "REVISION_PATCH")};
}

void IORTU::setExposureTime(unsigned us)
{
    writeRegister(reg::exposureTime, us, "EXPOSURE_TIME");
}
unsigned IORTU::getExposureTime() const { return readRegister(reg::exposureTime, "EXPOSURE_TIME"); }

void IORTU::setExposureProhibitedTime(unsigned us)
{
    writeRegister(reg::exposureProhibitedTime, us, "EXPOSURE_PROHIBITED_TIME");
}
unsigned IORTU::getExposureProhibitedTime() const
{
    return readRegister(reg::exposureProhibitedTime, "EXPOSURE_PROHIBITED_TIME");
}

void IORTU::setExposureOffset(unsigned us)
{
    writeRegister(reg::exposureOffset, us, "EXPOSURE_OFFSET");
}
unsigned IORTU::getExposureOffset() const
{
    return readRegister(reg::exposureOffset, "EXPOSURE_OFFSET");
}

void IORTU::setFPS(unsigned fps) { writeRegister(reg::framesPerSecond, fps, "FPS"); }
unsigned IORTU::getFPS() const { return readRegister(reg::framesPerSecond, "FPS"); }

void IORTU::setAutoTrigger(IORTUTriggerMode mode)
{
    writeRegister(reg::triggerMode, static_cast<uint32_t>(mode), "TRIGGER_MODE");
}
IORTUTriggerMode IORTU::getAutoTrigger() const
{
    return static_cast<IORTUTriggerMode>(readRegister(reg::triggerMode, "TRIGGER_MODE"));
}

void IORTU::manualTrigger() { writeRegister(reg::manualTrigger, 1, "MANUAL_TRIGGER"); }

void IORTU::enableAcquisition(bool enable)
{
    writeRegister(reg::acquisitionEnable, enable, "ACQUISITION_ENABLE");
}
bool IORTU::getAcquisitionEnabled() const
{
    return readRegister(reg::acquisitionEnable, "ACQUISITION_ENABLE") != 0;
}

void IORTU::setIOConfig(const rtu_pin_config_t& config)
{
    for (size_t i = 0; i < rtu_pin_config_t::count; ++i) {
        const rtu_pin_param_t& entry = config.entries[i];
        checkPin(entry.pin);
        uint32_t wire = htole32(entry.value);
        writeBlock(pinWordAddress(entry.pin, static_cast<uint32_t>(i)), &wire, sizeof wire, "PIN_CONFIG");
    }
}

void IORTU::getIOConfig(rtu_pin_config_t& config) const
{
    for (size_t i = 0; i < rtu_pin_config_t::count; ++i) {
        rtu_pin_param_t& entry = config.entries[i];
        checkPin(entry.pin);
        uint32_t wire = 0;
        readBlock(pinWordAddress(entry.pin, static_cast<uint32_t>(i)), &wire, sizeof wire, "PIN_CONFIG");
        entry.value = le32toh(wire);
    }
}

void IORTU::setIOValue(unsigned pin, unsigned value)
{
    checkPin(pin);
    uint32_t wire = htole32(value);
    writeBlock(pinWordAddress(pin, reg::pinValueWord), &wire, sizeof wire, "PIN_VALUE");
}

unsigned IORTU::getIOValue(unsigned pin) const
{
    checkPin(pin);
    uint32_t wire = 0;
    readBlock(pinWordAddress(pin, reg::pinValueWord), &wire, sizeof wire, "PIN_VALUE");
    return le32toh(wire);
}

void IORTU::setAnalogOutputState(bool enabled)
{
    writeRegister(reg::analogOutputState, enabled, "ANALOG_OUTPUT_STATE");
}
bool IORTU::getAnalogOutputState() const
{
    return readRegister(reg::analogOutputState, "ANALOG_OUTPUT_STATE") != 0;
}

void IORTU::setAnalogOutputType(bool current)
{
    writeRegister(reg::analogOutputType, current, "ANALOG_OUTPUT_TYPE");
}
bool IORTU::getAnalogOutputType() const
{
    return readRegister(reg::analogOutputType, "ANALOG_OUTPUT_TYPE") != 0;
}

void IORTU::setAnalogOutputVoltage(unsigned millivolts)
{
    writeRegister(reg::analogOutputVoltage, millivolts, "ANALOG_OUTPUT_VOLTAGE");
}
unsigned IORTU::getAnalogOutputVoltage() const
{
    return readRegister(reg::analogOutputVoltage, "ANALOG_OUTPUT_VOLTAGE");
}

void IORTU::setAnalogOutputCurrent(unsigned microamperes)
{
    writeRegister(reg::analogOutputCurrent, microamperes, "ANALOG_OUTPUT_CURRENT");
}
unsigned IORTU::getAnalogOutputCurrent() const
{
    return readRegister(reg::analogOutputCurrent, "ANALOG_OUTPUT_CURRENT");
}

void IORTU::setStatusLED(unsigned pattern) const
{
    writeRegister(reg::statusLed, pattern, "STATUS_LED");
}
unsigned IORTU::getStatusLED() const { return readRegister(reg::statusLed, "STATUS_LED"); }

void IORTU::setDeviceState(IORTUState state)
{
    writeRegister(reg::deviceState, static_cast<uint32_t>(state), "DEVICE_STATE");
}
IORTUState IORTU::getDeviceState() const
{
    return static_cast<IORTUState>(readRegister(reg::deviceState, "DEVICE_STATE"));
}

void IORTU::setImageSensor(IORTUCameraMode mode)
{
    writeRegister(reg::imageSensor, static_cast<uint32_t>(mode), "IMAGE_SENSOR");
}
IORTUCameraMode IORTU::getImageSensor() const
{
    return static_cast<IORTUCameraMode>(readRegister(reg::imageSensor, "IMAGE_SENSOR"));
}

void IORTU::triggerHeartbeat() { writeRegister(reg::heartbeat, 1, "HEARTBEAT"); }
unsigned IORTU::getHeartbeatCount() const { return readRegister(reg::heartbeat, "HEARTBEAT"); }

float IORTU::getInternalTemperature() const
{
    auto millidegrees = static_cast<int32_t>(readRegister(reg::internalTemperature, "TEMPERATURE"));
    return static_cast<float>(millidegrees) / 1000.0f;
}

} // namespace utils
