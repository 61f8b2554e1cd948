#pragma once

#include "utils/platform/emulated/registermodel.h"
#include "utils/platform/emulated/sensorbus.h"

#include <chrono>
#include <cstdint>

namespace utils::platform::emulated {

class EmulatedBoard;

// The autofocus module at /dev/k52af. The lens travels at a finite speed, a reset takes
// 30 ms and a sweep 50 ms, and the module is busy meanwhile. Its resonance frequency drifts
// with the actuator's temperature, so successive sweeps find slightly different values. In
// LED mode 1 the LED goes dark while the sensor bus reports an acquisition.
class AutoFocusModel final : public RegisterModel {
public:
    using Clock = std::chrono::steady_clock;

    static constexpr const char* devicePath = "/dev/k52af";
    static constexpr uint32_t positionMax = 4095;
    static constexpr uint32_t factoryFrequencyHz = 1200;

    AutoFocusModel(FaultInjector& faults, const SensorBus& sensorBus);

    // The actuator's true resonance frequency now, in Hz.
    double resonanceHz() const;

protected:
    int readRegister(uint32_t address, uint32_t& value) override;
    int writeRegister(uint32_t address, uint32_t value) override;

private:
    bool busy() const;
    uint32_t positionNow() const;
    void moveTo(uint32_t target, Clock::duration duration);
    void finishSweep();

    const SensorBus& sensorBus_;
    Clock::time_point created_;
    bool operationPending_ = false;
    Clock::time_point busyUntil_{};
    uint32_t moveFrom_ = 0;
    uint32_t moveTo_ = 0;
    Clock::time_point moveStart_{};
    uint32_t ledMode_ = 0;
    uint32_t ledState_ = 0;
    uint32_t frequencyHz_ = factoryFrequencyHz;
    bool sweepValid_ = false;
    bool sweepPending_ = false;
    uint32_t sweepResultHz_ = 0;
};

// Attaches the module at /dev/k52af.
void attachAutoFocus(EmulatedBoard& board);

} // namespace utils::platform::emulated
