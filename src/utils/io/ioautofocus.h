#pragma once

#include "utils/io/ioregisterfile.h"
#include "utils/regmap/autofocusregisters.h"

#include <cstdint>
#include <string>

namespace utils {

// The autofocus module: a lens actuator with a position range, an assist LED and a resonance
// frequency found by sweeping the drive. The register map is in docs/hardware/autofocus.md.
//
// The constructor does not open the device; open() does. Commands wait until the module is
// idle before they start; moves and resets also wait until they have finished, a sweep does
// not. Values outside what the module takes throw UtilsRuntimeError; device failures and a
// module that stays busy throw IOError.
class IOAutoFocus : public IORegisterFile {
public:
    explicit IOAutoFocus(std::string path, int flags = O_RDWR);

    // Moves the lens and returns once it has arrived.
    void setPosition(unsigned position);
    unsigned getPosition() const;
    unsigned getPositionMax() const;
    // 0: the LED follows its state; 1: it also goes dark while the sensor captures.
    void setLEDMode(unsigned mode);
    // 0: off, 1: on.
    void setLEDState(unsigned state);
    // Homes the lens and clears the LED settings; returns once the module is ready again.
    void reset();
    // Starts a sweep for the resonance frequency; getFrequency() shows it when it is done.
    void sweepFrequency();
    // The resonance frequency in Hz from the last finished sweep (the factory value before).
    unsigned getFrequency() const;

private:
    void waitUntilIdle(const char* what) const;
    void requireAtMost(const char* name, unsigned value, unsigned max) const;
};

} // namespace utils
