#pragma once

#include "utils/platform/emulated/registermodel.h"

#include <cstdint>

namespace utils::platform::emulated {

class EmulatedBoard;
class SensorBus;

// The image sensor's control device at /dev/imx0: a monochrome 1456x1088 "imx296". Exposure
// and ROI offset go to the sensor bus, where the capture model uses them.
class ImxModel final : public RegisterModel {
public:
    static constexpr const char* devicePath = "/dev/imx0";
    static constexpr const char* modelName = "imx296";
    static constexpr uint32_t pixelWidth = 1456;
    static constexpr uint32_t pixelHeight = 1088;

    ImxModel(FaultInjector& faults, SensorBus& sensorBus);

protected:
    int readRegister(uint32_t address, uint32_t& value) override;
    int writeRegister(uint32_t address, uint32_t value) override;
    int readTable(uint32_t address, std::span<uint8_t> data) override;
    int writeTable(uint32_t address, std::span<const uint8_t> data) override;

private:
    SensorBus& sensorBus_;
    uint32_t triggerMode_ = 1; // on the RTU's trigger
    uint32_t halfScanMode_ = 0;
};

// Attaches the sensor control device at /dev/imx0.
void attachIMX(EmulatedBoard& board);

} // namespace utils::platform::emulated
