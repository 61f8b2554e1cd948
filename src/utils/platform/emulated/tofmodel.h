#pragma once

#include "utils/platform/emulated/registermodel.h"

#include <array>
#include <chrono>
#include <cstdint>
#include <vector>

namespace utils::platform::emulated {

class EmulatedBoard;

// The time-of-flight sensor at /dev/k52tof. It looks at a room: a wall at 1.8 m, a floor
// coming closer toward the bottom rows and a box in the middle that slowly moves between 0.4
// and 0.9 m. Each zone carries a fixed factory offset (stored in the module's calibration
// table) until the host applies that table, and a little noise that shrinks with longer
// integration. Frames exist only while ranging, paced by integration time and frequency.
class ToFModel final : public RegisterModel {
public:
    using Clock = std::chrono::steady_clock;

    static constexpr const char* devicePath = "/dev/k52tof";

    explicit ToFModel(FaultInjector& faults);

    // The scene's true distance of `zone` in a grid of `zones` zones, `sinceStart` after the
    // model was made: what a perfectly calibrated, noiseless sensor reports.
    static double sceneDistanceMm(unsigned zone, unsigned zones, Clock::duration sinceStart);
    // The factory offset of `zone` at 8x8 (in millimetres).
    static int16_t factoryOffsetMm(unsigned zone);

    // Breaks the checksum of the stored factory calibration, as a damaged module would.
    void corruptFactoryCalibration();

protected:
    int readRegister(uint32_t address, uint32_t& value) override;
    int writeRegister(uint32_t address, uint32_t value) override;
    int readTable(uint32_t address, std::span<uint8_t> data) override;
    int writeTable(uint32_t address, std::span<const uint8_t> data) override;

private:
    void resetConfiguration();
    int command(uint32_t code);
    bool booted() const;
    bool crossTalkBusy() const;
    // Frames completed since ranging started (0 when not ranging or timing out).
    uint64_t framesCompleted() const;
    Clock::duration framePeriod() const;
    Clock::duration integration() const;
    uint32_t status() const;
    std::vector<uint16_t> measure(uint64_t frame) const;
    uint16_t offsetFor(unsigned zone, const std::array<int16_t, 64>& table) const;

    Clock::time_point created_;
    std::array<int16_t, 64> factoryOffsets_;
    uint32_t factoryChecksum_;

    bool bootRequested_ = false;
    Clock::time_point bootDone_{};
    uint32_t resolution_ = 16;
    uint32_t frequency_ = 15;
    uint32_t powerMode_ = 1;
    uint32_t rangingMode_ = 1;
    uint32_t integrationUs_ = 5000;
    uint32_t reflectance_ = 50;
    uint32_t samples_ = 10;
    uint32_t calibrationDistance_ = 1000;
    uint32_t crossTalk_ = 0;
    bool crossTalkValid_ = false;
    Clock::time_point crossTalkDone_{};
    bool calibrationEnabled_ = false;
    std::array<int16_t, 64> offsetTable_{};

    bool ranging_ = false;
    Clock::time_point rangingStart_{};
    uint64_t framesBefore_ = 0; // frames of earlier ranging sessions, for FRAME_COUNT
    uint64_t framesRead_ = 0;
    std::vector<uint16_t> lastFrame_;
};

// Attaches the sensor at /dev/k52tof.
void attachToF(EmulatedBoard& board);

} // namespace utils::platform::emulated
