#pragma once

#include "utils/platform/emulated/i2cbus.h"

#include <array>
#include <bitset>
#include <memory>
#include <mutex>
#include <string>

namespace utils::platform::emulated {

// A plain I2C device with 256 8-bit registers behind a register pointer: the first byte of a
// write sets the pointer, further bytes are written to successive registers; a read returns
// successive registers from the pointer. The pointer wraps from 0xff to 0x00.
class RegisterI2CDevice final : public I2CDevice {
public:
    // Registers not in `writable` are read-only: writing one is not acknowledged.
    RegisterI2CDevice(const std::array<uint8_t, 256>& initial, const std::bitset<256>& writable);

    bool write(std::span<const uint8_t> data) override;
    bool read(std::span<uint8_t> data) override;

    uint8_t registerValue(uint8_t reg) const;

private:
    mutable std::mutex mutex_;
    std::array<uint8_t, 256> registers_;
    std::bitset<256> writable_;
    uint8_t pointer_ = 0;
};

// An EEPROM: every byte writable, holding `label` from offset 0 and erased (0xff) after it.
std::shared_ptr<RegisterI2CDevice> makeEmulatedEeprom(const std::string& label);

// A temperature sensor: 0x00 temperature in whole degrees Celsius (read-only), 0x01
// configuration (read-write), 0x02/0x03 low/high alarm limits (read-write), 0x0f identifier
// 0xa5 (read-only).
std::shared_ptr<RegisterI2CDevice> makeEmulatedTemperatureSensor();

} // namespace utils::platform::emulated
