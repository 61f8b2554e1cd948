#include "utils/platform/emulated/autofocusmodel.h"

#include "utils/platform/emulated/board.h"
#include "utils/regmap/autofocusregisters.h"

#include <cmath>
#include <numbers>

namespace utils::platform::emulated {

namespace {

using Reg = autofocus_registers::Register;
using Bit = autofocus_registers::Status;
using Cmd = autofocus_registers::Command;
using namespace std::chrono_literals;

constexpr auto resetTime = 30ms;
constexpr auto sweepTime = 50ms;
// Settling plus travel: a full-range move takes about 22 ms.
constexpr auto settleTime = 2ms;
constexpr auto travelTimePerStep = 5us;

} // namespace

AutoFocusModel::AutoFocusModel(FaultInjector& faults, const SensorBus& sensorBus)
    : RegisterModel(devicePath, faults), sensorBus_(sensorBus), created_(Clock::now())
{
}

double AutoFocusModel::resonanceHz() const
{
    double t = std::chrono::duration<double>(Clock::now() - created_).count();
    return 1185.0 + 20.0 * std::sin(2.0 * std::numbers::pi * t / 120.0);
}

bool AutoFocusModel::busy() const
{
    return operationPending_ && (timingOut() || Clock::now() < busyUntil_);
}

uint32_t AutoFocusModel::positionNow() const
{
    auto now = Clock::now();
    if (!operationPending_ || now >= busyUntil_)
        return timingOut() && operationPending_ ? moveFrom_ : moveTo_;
    if (timingOut())
        return moveFrom_; // stuck: the lens never left
    double done = std::chrono::duration<double>(now - moveStart_) /
                  std::chrono::duration<double>(busyUntil_ - moveStart_);
    return static_cast<uint32_t>(std::lround(moveFrom_ + (double(moveTo_) - moveFrom_) * done));
}

void AutoFocusModel::moveTo(uint32_t target, Clock::duration duration)
{
    moveFrom_ = positionNow();
    moveTo_ = target;
    moveStart_ = Clock::now();
    busyUntil_ = moveStart_ + duration;
    operationPending_ = true;
}

void AutoFocusModel::finishSweep()
{
    if (sweepPending_ && !busy()) {
        frequencyHz_ = sweepResultHz_;
        sweepValid_ = true;
        sweepPending_ = false;
    }
}

int AutoFocusModel::readRegister(uint32_t address, uint32_t& value)
{
    finishSweep();
    switch (address) {
    case Reg::id: value = autofocus_registers::deviceId; return 0;
    case Reg::status: {
        bool dark = ledMode_ == 1 && sensorBus_.acquisition();
        value = (busy() ? Bit::busy : 0) | (ledState_ && !dark ? Bit::ledOn : 0) |
                (sweepValid_ ? Bit::sweepValid : 0);
        return 0;
    }
    case Reg::command: value = 0; return 0; // write-only
    case Reg::position: value = positionNow(); return 0;
    case Reg::positionMax: value = positionMax; return 0;
    case Reg::ledMode: value = ledMode_; return 0;
    case Reg::ledState: value = ledState_; return 0;
    case Reg::frequency: value = frequencyHz_; return 0;
    default: return EINVAL;
    }
}

int AutoFocusModel::writeRegister(uint32_t address, uint32_t value)
{
    finishSweep();
    switch (address) {
    case Reg::command:
        if (busy())
            return EBUSY;
        if (value == static_cast<uint32_t>(Cmd::reset)) {
            moveTo(0, resetTime);
            ledMode_ = 0;
            ledState_ = 0;
            return 0;
        }
        if (value == static_cast<uint32_t>(Cmd::sweep)) {
            // The lens stays where it is; the module measures while it drives it.
            moveTo(positionNow(), sweepTime);
            sweepResultHz_ = static_cast<uint32_t>(std::lround(resonanceHz()));
            sweepPending_ = true;
            return 0;
        }
        return EINVAL;
    case Reg::position: {
        if (value > positionMax)
            return ERANGE;
        if (busy())
            return EBUSY;
        uint32_t from = positionNow();
        uint32_t distance = value > from ? value - from : from - value;
        moveTo(value, settleTime + distance * travelTimePerStep);
        return 0;
    }
    case Reg::ledMode:
    case Reg::ledState:
        if (value > 1)
            return EINVAL;
        (address == Reg::ledMode ? ledMode_ : ledState_) = value;
        return 0;
    case Reg::id:
    case Reg::status:
    case Reg::positionMax:
    case Reg::frequency: return EPERM;
    default: return EINVAL;
    }
}

void attachAutoFocus(EmulatedBoard& board)
{
    board.attach(AutoFocusModel::devicePath,
                 std::make_shared<AutoFocusModel>(board.faults(), board.sensorBus()));
}

} // namespace utils::platform::emulated
