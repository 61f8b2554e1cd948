#pragma once

#include "utils/io/ioregisterfile.h"
#include "utils/regmap/illuminationregisters.h"

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
    using Status = illumination_registers::Status;

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
