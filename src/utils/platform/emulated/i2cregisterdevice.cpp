#include "utils/platform/emulated/i2cregisterdevice.h"

#include <algorithm>

namespace utils::platform::emulated {

RegisterI2CDevice::RegisterI2CDevice(const std::array<uint8_t, 256>& initial,
                                     const std::bitset<256>& writable)
    : registers_(initial), writable_(writable)
{
}

bool RegisterI2CDevice::write(std::span<const uint8_t> data)
{
    std::lock_guard lock(mutex_);
    if (data.empty())
        return true; // a quick write only probes for the device
    pointer_ = data[0];
    for (uint8_t value : data.subspan(1)) {
        if (!writable_[pointer_])
            return false;
        registers_[pointer_++] = value;
    }
    return true;
}

bool RegisterI2CDevice::read(std::span<uint8_t> data)
{
    std::lock_guard lock(mutex_);
    for (uint8_t& value : data)
        value = registers_[pointer_++];
    return true;
}

uint8_t RegisterI2CDevice::registerValue(uint8_t reg) const
{
    std::lock_guard lock(mutex_);
    return registers_[reg];
}

std::shared_ptr<RegisterI2CDevice> makeEmulatedEeprom(const std::string& label)
{
    std::array<uint8_t, 256> content;
    content.fill(0xff);
    std::copy_n(label.begin(), std::min(label.size(), content.size()), content.begin());
    return std::make_shared<RegisterI2CDevice>(content, std::bitset<256>().set());
}

std::shared_ptr<RegisterI2CDevice> makeEmulatedTemperatureSensor()
{
    std::array<uint8_t, 256> content{};
    content[0x00] = 25;   // degrees Celsius
    content[0x01] = 0x00; // continuous conversion
    content[0x02] = 0;    // alarm low
    content[0x03] = 80;   // alarm high
    content[0x0f] = 0xa5;
    std::bitset<256> writable;
    writable.set(0x01).set(0x02).set(0x03);
    return std::make_shared<RegisterI2CDevice>(content, writable);
}

} // namespace utils::platform::emulated
