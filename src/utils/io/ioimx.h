#pragma once

#include "utils/io/ioregisterfile.h"

#include <cstdint>
#include <string>
#include <utility>

namespace utils {

// The sensor's vertical readout: every line, or every other line at twice the frame rate.
enum _hscan_modes_t : uint32_t { HSCAN_MODE_FULL = 0, HSCAN_MODE_HALF = 1 };

// The image sensor's control device behind its register file (docs/hardware/imx.md). The
// constructor opens it. Every operation throws IOError naming the register and the device.
class IOIMX : public IORegisterFile {
public:
    IOIMX(std::string path, int flags);

    // The sensor's model name, such as "imx296".
    std::string getSensorModel() const;
    // 0 colour, anything else monochrome.
    unsigned getSensorType() const;

    unsigned getExposure() const;
    // Microseconds, 1 to 10 000 000.
    void setExposure(unsigned microseconds);

    // 0 free-running, 1 exposures on the RTU's trigger.
    unsigned char getTriggerMode() const;
    void setTriggerMode(unsigned char mode);

    _hscan_modes_t getHalfScanMode() const;
    void setScanMode(_hscan_modes_t mode);

    // Offset of the region of interest in the pixel array: (x, y).
    std::pair<int, int> getROIXYOffset() const;
    void setROIXYOffset(int x, int y);

    // The pixel array's size.
    unsigned getPixelWidth() const;
    unsigned getPixelHeight() const;
};

} // namespace utils
