#include "utils/platform/emulated/imxmodel.h"

#include "utils/regmap/imxregisters.h"
#include "utils/platform/emulated/board.h"

#include <endian.h>

#include <cstring>

namespace utils::platform::emulated {

namespace reg = utils::imx_registers;

ImxModel::ImxModel(FaultInjector& faults, SensorBus& sensorBus)
    : RegisterModel(devicePath, faults), sensorBus_(sensorBus)
{
}

int ImxModel::readRegister(uint32_t address, uint32_t& value)
{
    if (timingOut())
        return ETIMEDOUT;
    switch (address) {
    case reg::sensorType: value = 1; return 0;
    case reg::exposure: value = sensorBus_.exposureUs(); return 0;
    case reg::triggerMode: value = triggerMode_; return 0;
    case reg::halfScanMode: value = halfScanMode_; return 0;
    case reg::pixelWidth: value = pixelWidth; return 0;
    case reg::pixelHeight: value = pixelHeight; return 0;
    default: return EINVAL;
    }
}

int ImxModel::writeRegister(uint32_t address, uint32_t value)
{
    if (timingOut())
        return ETIMEDOUT;
    switch (address) {
    case reg::sensorType:
    case reg::pixelWidth:
    case reg::pixelHeight:
        return EPERM;
    case reg::exposure:
        if (value < reg::minExposureUs || value > reg::maxExposureUs)
            return EINVAL;
        sensorBus_.setExposureUs(value);
        return 0;
    case reg::triggerMode:
        if (value > 0xff)
            return EINVAL; // an 8-bit register
        triggerMode_ = value;
        return 0;
    case reg::halfScanMode:
        if (value > 1)
            return EINVAL;
        halfScanMode_ = value;
        return 0;
    default:
        return EINVAL;
    }
}

int ImxModel::readTable(uint32_t address, std::span<uint8_t> data)
{
    if (timingOut())
        return ETIMEDOUT;
    if (address >= reg::model && address + data.size() <= reg::model + reg::modelLength) {
        char name[reg::modelLength] = {};
        std::strncpy(name, modelName, sizeof name);
        std::memcpy(data.data(), name + (address - reg::model), data.size());
        return 0;
    }
    if (address == reg::roiOffset && data.size() == 8) {
        const uint32_t wire[2] = {htole32(static_cast<uint32_t>(sensorBus_.roiX())),
                                  htole32(static_cast<uint32_t>(sensorBus_.roiY()))};
        std::memcpy(data.data(), wire, sizeof wire);
        return 0;
    }
    return EINVAL;
}

int ImxModel::writeTable(uint32_t address, std::span<const uint8_t> data)
{
    if (timingOut())
        return ETIMEDOUT;
    if (address >= reg::model && address < reg::model + reg::modelLength)
        return EPERM;
    if (address != reg::roiOffset || data.size() != 8)
        return EINVAL;
    uint32_t wire[2];
    std::memcpy(wire, data.data(), sizeof wire);
    const auto x = static_cast<int32_t>(le32toh(wire[0]));
    const auto y = static_cast<int32_t>(le32toh(wire[1]));
    if (x < 0 || y < 0 || x >= static_cast<int32_t>(pixelWidth) ||
        y >= static_cast<int32_t>(pixelHeight))
        return EINVAL;
    sensorBus_.setRoiOffset(x, y);
    return 0;
}

void attachIMX(EmulatedBoard& board)
{
    board.attach(ImxModel::devicePath,
                 std::make_shared<ImxModel>(board.faults(), board.sensorBus()));
}

} // namespace utils::platform::emulated
