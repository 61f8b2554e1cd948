#pragma once

#include "utils/platform/emulated/registermodel.h"

#include <chrono>
#include <cstdint>

namespace utils::platform::emulated {

class EmulatedBoard;

// The illumination module at /dev/k52illum. The room temperature swings slowly; the LED
// driver warms toward a level set by the light's output (segments lit times channel
// brightness) with a time constant of 20 s, and the housing follows it in part. Above 70 °C
// inside, the module derates its output.
class IlluminationModel final : public RegisterModel {
public:
    using Clock = std::chrono::steady_clock;

    static constexpr const char* devicePath = "/dev/k52illum";
    static constexpr uint32_t serialNumber = 52013377;

    explicit IlluminationModel(FaultInjector& faults);

protected:
    int readRegister(uint32_t address, uint32_t& value) override;
    int writeRegister(uint32_t address, uint32_t value) override;

private:
    // Brings the LED driver's warmth up to now under the output that held since last time.
    void advance();
    double outputFraction() const;
    double ambientC() const;
    bool lit() const;

    Clock::time_point created_;
    Clock::time_point updated_;
    double warmthC_ = 0.0;
    uint32_t mode_ = 0;
    uint32_t segments_ = 0xF;
    bool enabled_ = false;
    uint32_t channels_[4] = {0, 0, 0, 0}; // white, red, green, blue
};

// Attaches the module at /dev/k52illum.
void attachIllumination(EmulatedBoard& board);

} // namespace utils::platform::emulated
