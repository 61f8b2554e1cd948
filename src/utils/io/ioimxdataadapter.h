#pragma once

#include "utils/io/ioimx.h"

#include <cstdint>
#include <type_traits>

namespace tinyxml2 {
class XMLElement;
}

namespace utils {

// What the image sensor reports, as other processes read it from the general container.
struct IOIMXData {
    char model[16]; // NUL-padded
    uint32_t sensorType; // 0 colour, otherwise monochrome
    uint32_t exposureUs;
    uint32_t triggerMode;
    uint32_t halfScanMode; // _hscan_modes_t
    int32_t roiX;
    int32_t roiY;
    uint32_t pixelWidth;
    uint32_t pixelHeight;
};

// The image sensor's record in the general container, laid out in place in the file.
class IOIMXDataAdapter {
public:
    // Reads the sensor's settings; throws IOError when the device cannot be read.
    void load(const IOIMX& imx);
    // Replaces the children of `element` with one child element per field.
    void toXml(tinyxml2::XMLElement* element) const;

    IOIMXData data;
    uint8_t reserved[56 - sizeof(IOIMXData)];
};
static_assert(sizeof(IOIMXDataAdapter) == 56);
static_assert(std::is_standard_layout_v<IOIMXDataAdapter>);

} // namespace utils
