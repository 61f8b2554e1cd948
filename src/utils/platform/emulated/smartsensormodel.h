#pragma once

#include "utils/platform/emulated/i2cbus.h"

#include <array>
#include <chrono>
#include <cstdint>
#include <mutex>
#include <vector>

namespace utils::platform::emulated {

class EmulatedBoard;

// The smart sensor at address 40 (0x28) of /dev/i2c-5. After a reset it waits in its
// bootloader for firmware, checks the image's CRC when the last byte has arrived, and runs it
// on request. Running, it serves the gyroscope (virtual sensor 37): the camera sways slowly
// about all three axes, with a little noise and a bias that drifts with the die temperature.
class SmartSensorModel final : public I2CDevice {
public:
    using Clock = std::chrono::steady_clock;

    static constexpr const char* busPath = "/dev/i2c-5";
    static constexpr uint8_t address = 40;
    // The rates the gyroscope runs at; a request is rounded up to the next one.
    static constexpr std::array<float, 7> gyroRates = {25, 50, 100, 200, 400, 800, 1600};

    SmartSensorModel();

    bool write(std::span<const uint8_t> data) override;
    bool read(std::span<uint8_t> data) override;

private:
    enum class State { resetting, bootloader, booting, running };

    State state() const;
    std::array<uint8_t, 256> snapshot() const;
    bool writeRegister(uint8_t reg, std::span<const uint8_t> payload);
    void reset();
    void refuse(uint8_t error);
    void firmwareChunk(uint32_t offset, std::span<const uint8_t> bytes);
    void configure(uint8_t id, float rate, uint32_t latencyMs);

    mutable std::mutex mutex_;
    Clock::time_point created_;
    uint8_t pointer_ = 0;
    State state_ = State::bootloader;
    Clock::time_point stateUntil_{};
    uint8_t error_ = 0;
    uint8_t interruptEnable_ = 0;
    uint32_t firmwareLength_ = 0;
    uint32_t firmwareCrc_ = 0;
    std::vector<uint8_t> firmware_;
    bool firmwareValid_ = false;
    float gyroRate_ = 0.0f;
    uint32_t gyroLatencyMs_ = 0;
    Clock::time_point gyroEnabled_{};
};

// Puts the smart sensor on /dev/i2c-5 (attaching the bus if it is not there yet).
void attachSmartSensor(EmulatedBoard& board);

} // namespace utils::platform::emulated
