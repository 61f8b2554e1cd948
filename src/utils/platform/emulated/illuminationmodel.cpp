#include "utils/platform/emulated/illuminationmodel.h"

#include "utils/platform/emulated/board.h"
#include "utils/regmap/illuminationregisters.h"

#include <bit>
#include <cmath>
#include <numbers>

namespace utils::platform::emulated {

namespace {

using Reg = illumination_registers::Register;
using Bit = illumination_registers::Status;

constexpr double fullOutputWarmthC = 45.0;
constexpr double warmthTimeConstantS = 20.0;
constexpr double derateAboveC = 70.0;

int32_t milliCelsius(double celsius) { return static_cast<int32_t>(std::lround(celsius * 1000.0)); }

} // namespace

IlluminationModel::IlluminationModel(FaultInjector& faults)
    : RegisterModel(devicePath, faults), created_(Clock::now()), updated_(created_)
{
}

double IlluminationModel::ambientC() const
{
    double t = std::chrono::duration<double>(Clock::now() - created_).count();
    return 24.0 + 1.5 * std::sin(2.0 * std::numbers::pi * t / 300.0);
}

bool IlluminationModel::lit() const
{
    return enabled_ && segments_ != 0 &&
           (channels_[0] | channels_[1] | channels_[2] | channels_[3]) != 0;
}

double IlluminationModel::outputFraction() const
{
    if (!lit())
        return 0.0;
    double channels = (channels_[0] + channels_[1] + channels_[2] + channels_[3]) / 400.0;
    return channels * std::popcount(segments_) / 4.0;
}

void IlluminationModel::advance()
{
    auto now = Clock::now();
    double dt = std::chrono::duration<double>(now - updated_).count();
    double output = outputFraction();
    if (ambientC() + warmthC_ > derateAboveC)
        output /= 2.0; // derated
    double target = fullOutputWarmthC * output;
    warmthC_ += (target - warmthC_) * (1.0 - std::exp(-dt / warmthTimeConstantS));
    updated_ = now;
}

int IlluminationModel::readRegister(uint32_t address, uint32_t& value)
{
    if (timingOut())
        return ETIMEDOUT;
    advance();
    const double internal = ambientC() + warmthC_;
    switch (address) {
    case Reg::id: value = illumination_registers::deviceId; return 0;
    case Reg::status:
        value = (lit() ? Bit::lit : 0) | (mode_ != 0 ? Bit::strobe : 0) |
                (internal > derateAboveC ? Bit::derated : 0);
        return 0;
    case Reg::serialNumber: value = serialNumber; return 0;
    case Reg::internalTemperature: value = static_cast<uint32_t>(milliCelsius(internal)); return 0;
    case Reg::externalTemperature:
        value = static_cast<uint32_t>(milliCelsius(ambientC() + 0.3 * warmthC_));
        return 0;
    case Reg::mode: value = mode_; return 0;
    case Reg::segments: value = segments_; return 0;
    case Reg::enable: value = enabled_; return 0;
    case Reg::white: value = channels_[0]; return 0;
    case Reg::red: value = channels_[1]; return 0;
    case Reg::green: value = channels_[2]; return 0;
    case Reg::blue: value = channels_[3]; return 0;
    default: return EINVAL;
    }
}

int IlluminationModel::writeRegister(uint32_t address, uint32_t value)
{
    if (timingOut())
        return ETIMEDOUT;
    advance(); // the old output heated the module until now
    auto channel = [&](int index) {
        if (value > illumination_registers::maxBrightness)
            return ERANGE;
        channels_[index] = value;
        return 0;
    };
    switch (address) {
    case Reg::mode:
        if (value > illumination_registers::strobeWholeExposure)
            return ERANGE;
        mode_ = value;
        return 0;
    case Reg::segments:
        if (value > illumination_registers::allSegments)
            return ERANGE;
        segments_ = value;
        return 0;
    case Reg::enable: enabled_ = value != 0; return 0;
    case Reg::white: return channel(0);
    case Reg::red: return channel(1);
    case Reg::green: return channel(2);
    case Reg::blue: return channel(3);
    case Reg::id:
    case Reg::status:
    case Reg::serialNumber:
    case Reg::internalTemperature:
    case Reg::externalTemperature: return EPERM;
    default: return EINVAL;
    }
}

void attachIllumination(EmulatedBoard& board)
{
    board.attach(IlluminationModel::devicePath,
                 std::make_shared<IlluminationModel>(board.faults()));
}

} // namespace utils::platform::emulated
