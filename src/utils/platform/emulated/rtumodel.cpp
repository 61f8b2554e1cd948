#include "utils/platform/emulated/rtumodel.h"

#include "utils/regmap/rturegisters.h"
#include "utils/platform/emulated/board.h"
#include "utils/platform/emulated/i2cbus.h"
#include "utils/platform/emulated/textfile.h"

#include <endian.h>

#include <cmath>
#include <cstdlib>
#include <cstring>
#include <numbers>

namespace utils::platform::emulated {

namespace reg = utils::rtu_registers;

namespace {

constexpr uint32_t revision[] = {2, 7, 23, 2024, 1052, 3}; // major, minor, week, year, number, patch
constexpr auto heartbeatLifetime = std::chrono::seconds(10);

// The I2C register numbers (16-bit registers).
enum I2CRegister : uint8_t {
    i2cDeviceState = 0,
    i2cTemperature = 1, // 1/100 degree Celsius
    i2cRevision = 2,
    i2cHeartbeats = 3,
    i2cAnalogState = 14,
    i2cAnalogType = 15,
    i2cAnalogVoltage = 16,
    i2cAnalogCurrent = 17,
    i2cPwmDuty = 18,
    i2cPwmPeriod = 19,
};
constexpr uint16_t analogEnableFlag = 0x1000;

// Largest accepted value of each pin configuration word (the times take any value).
constexpr uint32_t pinWordLimit[] = {2, 1, 5, 1, 1, 1, 1, UINT32_MAX, UINT32_MAX, UINT32_MAX, 1};

} // namespace

// The RTU's 16-bit registers on the I2C bus: the first byte written is the register number,
// each further pair of bytes (least significant first, as SMBus word data carries it) is
// written to successive registers; a read returns successive registers from the last number
// written.
class RtuModel::I2CRegisters final : public I2CDevice {
public:
    explicit I2CRegisters(std::shared_ptr<RtuModel> unit) : unit_(std::move(unit)) {}

    bool write(std::span<const uint8_t> data) override
    {
        if (data.empty())
            return true;
        pointer_ = data[0];
        for (size_t i = 1; i + 1 < data.size(); i += 2) {
            if (!unit_->writeHalfword(pointer_++, static_cast<uint16_t>(data[i] | data[i + 1] << 8)))
                return false;
        }
        return true;
    }

    bool read(std::span<uint8_t> data) override
    {
        for (size_t i = 0; i < data.size(); i += 2) {
            uint16_t value = 0;
            unit_->readHalfword(pointer_++, value); // unmapped registers read as 0
            data[i] = static_cast<uint8_t>(value);
            if (i + 1 < data.size())
                data[i + 1] = static_cast<uint8_t>(value >> 8);
        }
        return true;
    }

private:
    std::shared_ptr<RtuModel> unit_;
    uint8_t pointer_ = 0;
};

RtuModel::RtuModel(FaultInjector& faults, SensorBus& sensorBus)
    : RegisterModel(devicePath, faults), sensorBus_(sensorBus)
{
}

int32_t RtuModel::temperatureMilliCelsius(Clock::duration sinceStart)
{
    const double s = std::chrono::duration<double>(sinceStart).count();
    const double warmUp = 6.0 * (1.0 - std::exp(-s / 240.0));
    const double wander = 0.4 * std::sin(2.0 * std::numbers::pi * s / 600.0);
    return static_cast<int32_t>(std::lround((38.0 + warmUp + wander) * 1000.0));
}

int32_t RtuModel::temperatureNow() const { return temperatureMilliCelsius(Clock::now() - poweredUp_); }

int RtuModel::readRegister(uint32_t address, uint32_t& value)
{
    if (timingOut())
        return ETIMEDOUT;
    switch (address) {
    case reg::status:
        value = reg::statusReady;
        if (sensorBus_.acquisition())
            value |= reg::statusAcquiring;
        if (sensorBus_.trigger() == SensorBus::Trigger::continuous)
            value |= reg::statusContinuous;
        if (analogState_)
            value |= reg::statusAnalogOutput;
        if (heartbeats_ && Clock::now() - lastHeartbeat_ < heartbeatLifetime)
            value |= reg::statusHeartbeatAlive;
        return 0;
    case reg::revisionMajor:
    case reg::revisionMinor:
    case reg::revisionWeek:
    case reg::revisionYear:
    case reg::revisionNumber:
    case reg::revisionPatch:
        value = revision[(address - reg::revisionMajor) / 4];
        return 0;
    case reg::internalTemperature:
        value = static_cast<uint32_t>(temperatureNow());
        return 0;
    case reg::heartbeat: value = heartbeats_; return 0;
    case reg::deviceState: value = deviceState_; return 0;
    case reg::statusLed: value = statusLed_; return 0;
    case reg::imageSensor: value = imageSensor_; return 0;
    case reg::exposureTime: value = sensorBus_.exposureUs(); return 0;
    case reg::exposureProhibitedTime: value = exposureProhibitedUs_; return 0;
    case reg::exposureOffset: value = exposureOffsetUs_; return 0;
    case reg::framesPerSecond: value = sensorBus_.framesPerSecond(); return 0;
    case reg::triggerMode: value = static_cast<uint32_t>(sensorBus_.trigger()); return 0;
    case reg::manualTrigger: value = static_cast<uint32_t>(sensorBus_.pulses()); return 0;
    case reg::acquisitionEnable: value = sensorBus_.acquisition(); return 0;
    case reg::analogOutputState: value = analogState_ != 0; return 0;
    case reg::analogOutputType: value = analogType_ != 0; return 0;
    case reg::analogOutputVoltage: value = analogVoltage_; return 0;
    case reg::analogOutputCurrent: value = analogCurrent_; return 0;
    case reg::analogOutputPWMDuty: value = pwmDuty_; return 0;
    case reg::analogOutputPWMPeriod: value = pwmPeriod_; return 0;
    default: return EINVAL;
    }
}

int RtuModel::writeRegister(uint32_t address, uint32_t value)
{
    if (timingOut())
        return ETIMEDOUT;
    const bool flag = value != 0;
    switch (address) {
    case reg::status:
    case reg::revisionMajor:
    case reg::revisionMinor:
    case reg::revisionWeek:
    case reg::revisionYear:
    case reg::revisionNumber:
    case reg::revisionPatch:
    case reg::internalTemperature:
        return EPERM;
    case reg::heartbeat:
        ++heartbeats_;
        lastHeartbeat_ = Clock::now();
        return 0;
    case reg::deviceState:
        if (value < 1 || value > 6)
            return EINVAL;
        deviceState_ = value;
        return 0;
    case reg::statusLed: statusLed_ = value; return 0;
    case reg::imageSensor: imageSensor_ = value; return 0;
    case reg::exposureTime: sensorBus_.setExposureUs(value); return 0;
    case reg::exposureProhibitedTime: exposureProhibitedUs_ = value; return 0;
    case reg::exposureOffset: exposureOffsetUs_ = value; return 0;
    case reg::framesPerSecond: sensorBus_.setFramesPerSecond(value); return 0;
    case reg::triggerMode:
        if (value > 1)
            return EINVAL;
        sensorBus_.setTrigger(static_cast<SensorBus::Trigger>(value));
        return 0;
    case reg::manualTrigger:
        if (value != 1)
            return EINVAL;
        sensorBus_.pulse();
        return 0;
    case reg::acquisitionEnable:
        if (value > 1)
            return EINVAL;
        sensorBus_.setAcquisition(flag);
        return 0;
    case reg::analogOutputState:
        if (value > 1)
            return EINVAL;
        analogState_ = flag ? analogEnableFlag : 0;
        showAnalogLines();
        return 0;
    case reg::analogOutputType:
        if (value > 1)
            return EINVAL;
        analogType_ = flag;
        showAnalogLines();
        return 0;
    // The analog output's registers are 16 bits wide; the upper half of the word is dropped.
    case reg::analogOutputVoltage: analogVoltage_ = static_cast<uint16_t>(value); return 0;
    case reg::analogOutputCurrent: analogCurrent_ = static_cast<uint16_t>(value); return 0;
    case reg::analogOutputPWMDuty: pwmDuty_ = static_cast<uint16_t>(value); return 0;
    case reg::analogOutputPWMPeriod: pwmPeriod_ = static_cast<uint16_t>(value); return 0;
    default: return EINVAL;
    }
}

bool RtuModel::pinWords(uint32_t address, size_t length, uint32_t& pin, uint32_t& word)
{
    if (address < reg::pinBase || address % 4 || length % 4 || length == 0)
        return false;
    pin = (address - reg::pinBase) / reg::pinStride;
    word = (address - reg::pinBase) % reg::pinStride / 4;
    return pin < std::tuple_size_v<decltype(pins_)> && word + length / 4 <= reg::pinWords;
}

int RtuModel::checkPinWord(uint32_t word, uint32_t value)
{
    return value > pinWordLimit[word] ? EINVAL : 0;
}

int RtuModel::readTable(uint32_t address, std::span<uint8_t> data)
{
    if (timingOut())
        return ETIMEDOUT;
    uint32_t pin = 0;
    uint32_t word = 0;
    if (!pinWords(address, data.size(), pin, word))
        return EINVAL;
    for (size_t i = 0; i < data.size() / 4; ++i) {
        uint32_t wire = htole32(pins_[pin].words[word + i]);
        std::memcpy(data.data() + 4 * i, &wire, sizeof wire);
    }
    return 0;
}

int RtuModel::writeTable(uint32_t address, std::span<const uint8_t> data)
{
    if (timingOut())
        return ETIMEDOUT;
    uint32_t pin = 0;
    uint32_t first = 0;
    if (!pinWords(address, data.size(), pin, first))
        return EINVAL;
    std::array<uint32_t, reg::pinWords> words = pins_[pin].words;
    for (size_t i = 0; i < data.size() / 4; ++i) {
        uint32_t wire = 0;
        std::memcpy(&wire, data.data() + 4 * i, sizeof wire);
        words[first + i] = le32toh(wire);
        if (int error = checkPinWord(first + static_cast<uint32_t>(i), words[first + i]))
            return error; // nothing of a refused write is kept
    }
    pins_[pin].words = words;
    return 0;
}

bool RtuModel::readHalfword(uint8_t reg, uint16_t& value)
{
    std::lock_guard lock(mutex_);
    switch (reg) {
    case i2cDeviceState: value = static_cast<uint16_t>(deviceState_); return true;
    case i2cTemperature: value = static_cast<uint16_t>(temperatureNow() / 10); return true;
    case i2cRevision: value = static_cast<uint16_t>(revision[0] << 8 | revision[1]); return true;
    case i2cHeartbeats: value = static_cast<uint16_t>(heartbeats_); return true;
    case i2cAnalogState: value = analogState_; return true;
    case i2cAnalogType: value = analogType_; return true;
    case i2cAnalogVoltage: value = analogVoltage_; return true;
    case i2cAnalogCurrent: value = analogCurrent_; return true;
    case i2cPwmDuty: value = pwmDuty_; return true;
    case i2cPwmPeriod: value = pwmPeriod_; return true;
    default: value = 0; return false;
    }
}

bool RtuModel::writeHalfword(uint8_t reg, uint16_t value)
{
    std::lock_guard lock(mutex_);
    switch (reg) {
    case i2cAnalogState: analogState_ = value; break;
    case i2cAnalogType: analogType_ = value; break;
    case i2cAnalogVoltage: analogVoltage_ = value; break;
    case i2cAnalogCurrent: analogCurrent_ = value; break;
    case i2cPwmDuty: pwmDuty_ = value; break;
    case i2cPwmPeriod: pwmPeriod_ = value; break;
    default: return false; // read-only or absent: not acknowledged
    }
    showAnalogLines();
    return true;
}

void RtuModel::analogLineWritten(bool enableLine, const std::string& text)
{
    std::lock_guard lock(mutex_);
    // sysfs takes a number; anything else leaves the line as it was.
    char* end = nullptr;
    long level = std::strtol(text.c_str(), &end, 10);
    const bool parsed = end != text.c_str() && (*end == '\0' || *end == '\n');
    if (parsed) {
        const bool active = level == 0; // both lines are active-low
        if (enableLine && active != (analogState_ != 0))
            analogState_ = active ? analogEnableFlag : 0;
        if (!enableLine && active != (analogType_ != 0))
            analogType_ = active;
    }
    showAnalogLines();
}

void RtuModel::showAnalogLines()
{
    if (enableLine_)
        enableLine_->setContent(analogState_ ? "0\n" : "1\n");
    if (typeLine_)
        typeLine_->setContent(analogType_ ? "0\n" : "1\n");
}

void attachRTU(EmulatedBoard& board)
{
    auto unit = std::make_shared<RtuModel>(board.faults(), board.sensorBus());
    std::weak_ptr<RtuModel> weak = unit; // the lines live in the board as long as the unit
    auto lineObserver = [weak](bool enableLine) {
        return [weak, enableLine](const std::string& text) {
            if (auto rtu = weak.lock())
                rtu->analogLineWritten(enableLine, text);
        };
    };
    {
        std::lock_guard lock(unit->mutex_);
        unit->enableLine_ = std::make_shared<TextFile>("", lineObserver(true));
        unit->typeLine_ = std::make_shared<TextFile>("", lineObserver(false));
        unit->showAnalogLines();
    }
    board.attach(RtuModel::devicePath, unit);
    board.attach(rtu_registers::analogOutputEnableLinePath, unit->enableLine_);
    board.attach(rtu_registers::analogOutputTypeLinePath, unit->typeLine_);
    attachI2CBus(board, RtuModel::i2cBusPath)
        .addDevice(RtuModel::i2cAddress, std::make_shared<RtuModel::I2CRegisters>(unit));
}

} // namespace utils::platform::emulated
