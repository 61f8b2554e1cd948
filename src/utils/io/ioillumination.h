#pragma once

#include "utils/io/ioregisterfile.h"

#include <cstdint>
#include <string>

namespace utils {

// The illumination module: four light segments with white, red, green and blue channels,
// continuous or strobed with the exposure. The register map is in
// docs/hardware/illumination.md.
//
// The constructor does not open the device; open() does. Values outside what the module
// takes throw UtilsRuntimeError before anything is written; device failures throw IOError.
class IOIllumination : public IORegisterFile {
public:
    static constexpr uint32_t deviceId = 0x4B520002;
    static constexpr unsigned strobeWholeExposure = 65535;
    static constexpr unsigned maxBrightness = 100;
    static constexpr unsigned allSegments = 0xF;

    struct Register {
        static constexpr uint32_t id = 0x00;
        static constexpr uint32_t status = 0x04;
        static constexpr uint32_t serialNumber = 0x08;
        static constexpr uint32_t internalTemperature = 0x0C; // milli-degrees Celsius, signed
        static constexpr uint32_t externalTemperature = 0x10; // milli-degrees Celsius, signed
        static constexpr uint32_t mode = 0x14;
        static constexpr uint32_t segments = 0x18;
        static constexpr uint32_t enable = 0x1C;
        static constexpr uint32_t white = 0x20;
        static constexpr uint32_t red = 0x24;
        static constexpr uint32_t green = 0x28;
        static constexpr uint32_t blue = 0x2C;
    };
    struct Status {
        static constexpr uint32_t lit = 1u << 0;     // enabled with some segment and channel on
        static constexpr uint32_t strobe = 1u << 1;  // strobe mode selected
        static constexpr uint32_t derated = 1u << 2; // too hot: output limited to half
    };

    explicit IOIllumination(std::string path, int flags = O_RDWR);

    // The Status bits above.
    unsigned getStatus() const;
    unsigned getSerialNumber() const;
    // Degrees Celsius: the LED driver's own sensor and the one on the light's housing.
    float getInternalTemperature() const;
    float getExternalTemperature() const;

    // 0: continuous light while enabled. 1-65534: a strobe of that many microseconds at each
    // exposure. 65535: a strobe lasting the whole exposure.
    void setMode(unsigned mode);
    unsigned getMode() const;
    // One bit per segment (bit 0 = segment 1).
    void setSegments(unsigned mask);
    unsigned getSegments() const;
    // 0 switches the light off, anything else on.
    void setEnable(unsigned state);

    // Channel brightness in percent (0-100).
    void setWhiteBrightness(unsigned percent);
    unsigned getWhiteBrightness() const;
    void setRedBrightness(unsigned percent);
    unsigned getRedBrightness() const;
    void setGreenBrightness(unsigned percent);
    unsigned getGreenBrightness() const;
    void setBlueBrightness(unsigned percent);
    unsigned getBlueBrightness() const;

private:
    void setChecked(uint32_t address, const char* name, unsigned value, unsigned max);
    float temperature(uint32_t address, const char* name) const;
};

} // namespace utils
