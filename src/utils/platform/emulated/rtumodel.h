#pragma once

#include "utils/platform/emulated/registermodel.h"

#include <array>
#include <chrono>
#include <cstdint>
#include <memory>
#include <string>

namespace utils::platform::emulated {

class EmulatedBoard;
class SensorBus;
class TextFile;

// The real-time trigger and I/O unit: one unit with one state, reached through its register
// file at /dev/k52rtu, its 16-bit registers at address 66 on /dev/i2c-1 and the two sysfs GPIO
// lines of its analog output. Trigger mode, frame rate, acquisition, manual triggers and the
// exposure time go to the sensor bus, where the capture model turns them into frames.
class RtuModel final : public RegisterModel {
public:
    using Clock = std::chrono::steady_clock;

    static constexpr const char* devicePath = "/dev/k52rtu";
    static constexpr const char* i2cBusPath = "/dev/i2c-1";
    static constexpr uint8_t i2cAddress = 66;

    RtuModel(FaultInjector& faults, SensorBus& sensorBus);

    // The unit's temperature in millidegrees Celsius `sinceStart` after power-up: it warms up
    // over the first minutes and then wanders slowly by a few tenths of a degree.
    static int32_t temperatureMilliCelsius(Clock::duration sinceStart);

protected:
    int readRegister(uint32_t address, uint32_t& value) override;
    int writeRegister(uint32_t address, uint32_t value) override;
    int readTable(uint32_t address, std::span<uint8_t> data) override;
    int writeTable(uint32_t address, std::span<const uint8_t> data) override;

private:
    class I2CRegisters;
    friend void attachRTU(EmulatedBoard& board);

    // The I2C face; each returns false for a register it does not have (or cannot write).
    bool readHalfword(uint8_t reg, uint16_t& value);
    bool writeHalfword(uint8_t reg, uint16_t value);
    // The sysfs face: the text written to a line's value file.
    void analogLineWritten(bool enableLine, const std::string& text);

    // Mirrors the analog output's state onto the value files (under the mutex).
    void showAnalogLines();
    // Locates `length` bytes at `address` in a pin block; false when they leave it.
    static bool pinWords(uint32_t address, size_t length, uint32_t& pin, uint32_t& word);
    static int checkPinWord(uint32_t word, uint32_t value);
    int32_t temperatureNow() const;

    struct Pin {
        std::array<uint32_t, 11> words{}; // ten configuration parameters, then the value
    };

    SensorBus& sensorBus_;
    const Clock::time_point poweredUp_ = Clock::now();
    uint32_t deviceState_ = 2; // booting until the host says otherwise
    uint32_t statusLed_ = 0;
    uint32_t imageSensor_ = 0;
    uint32_t exposureProhibitedUs_ = 0;
    uint32_t exposureOffsetUs_ = 0;
    uint32_t heartbeats_ = 0;
    Clock::time_point lastHeartbeat_{};
    // The analog output as its 16-bit registers hold it.
    uint16_t analogState_ = 0;
    uint16_t analogType_ = 0;
    uint16_t analogVoltage_ = 0;
    uint16_t analogCurrent_ = 0;
    uint16_t pwmDuty_ = 0;
    uint16_t pwmPeriod_ = 0;
    std::array<Pin, 6> pins_{};
    std::shared_ptr<TextFile> enableLine_;
    std::shared_ptr<TextFile> typeLine_;
};

// Attaches the RTU's device node, its I2C registers and its two sysfs value files.
void attachRTU(EmulatedBoard& board);

} // namespace utils::platform::emulated
