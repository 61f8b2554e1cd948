#include "utils/io/ioimx.h"

#include "utils/regmap/imxregisters.h"

#include <endian.h>

namespace utils {

namespace reg = imx_registers;

IOIMX::IOIMX(std::string path, int flags) : IORegisterFile(std::move(path), flags) { open(); }

std::string IOIMX::getSensorModel() const
{
    char name[reg::modelLength + 1] = {};
    readBlock(reg::model, name, reg::modelLength, "MODEL");
    return name; // NUL-padded; the extra byte terminates a name that fills the field
}

unsigned IOIMX::getSensorType() const { return readRegister(reg::sensorType, "SENSOR_TYPE"); }

unsigned IOIMX::getExposure() const { return readRegister(reg::exposure, "EXPOSURE"); }

void IOIMX::setExposure(unsigned us) { writeRegister(reg::exposure, us, "EXPOSURE"); }

unsigned char IOIMX::getTriggerMode() const
{
    return static_cast<unsigned char>(readRegister(reg::triggerMode, "TRIGGER_MODE"));
}

void IOIMX::setTriggerMode(unsigned char mode)
{
    writeRegister(reg::triggerMode, mode, "TRIGGER_MODE");
}

_hscan_modes_t IOIMX::getHalfScanMode() const
{
    return static_cast<_hscan_modes_t>(readRegister(reg::halfScanMode, "HSCAN_MODE"));
}

void IOIMX::setScanMode(_hscan_modes_t mode)
{
    writeRegister(reg::halfScanMode, mode, "HSCAN_MODE");
}

std::pair<int, int> IOIMX::getROIXYOffset() const
{
    uint32_t wire[2] = {};
    readBlock(reg::roiOffset, wire, sizeof wire, "ROI_OFFSET");
    return {static_cast<int32_t>(le32toh(wire[0])), static_cast<int32_t>(le32toh(wire[1]))};
}

void IOIMX::setROIXYOffset(int x, int y)
{
    const uint32_t wire[2] = {htole32(static_cast<uint32_t>(x)), htole32(static_cast<uint32_t>(y))};
    writeBlock(reg::roiOffset, wire, sizeof wire, "ROI_OFFSET");
}

unsigned IOIMX::getPixelWidth() const { return readRegister(reg::pixelWidth, "PIXEL_WIDTH"); }
unsigned IOIMX::getPixelHeight() const { return readRegister(reg::pixelHeight, "PIXEL_HEIGHT"); }

} // namespace utils
