#pragma once

#include "utils/io/ioregisterfile.h"

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
    static constexpr uint32_t deviceId = 0x4B520003;

    struct Register {
        static constexpr uint32_t id = 0x00;
        static constexpr uint32_t status = 0x04;
        static constexpr uint32_t command = 0x08;
        static constexpr uint32_t position = 0x0C;
        static constexpr uint32_t positionMax = 0x10;
        static constexpr uint32_t ledMode = 0x14;
        static constexpr uint32_t ledState = 0x18;
        static constexpr uint32_t frequency = 0x1C; // Hz
    };
    struct Status {
        static constexpr uint32_t busy = 1u << 0;       // moving, resetting or sweeping
        static constexpr uint32_t ledOn = 1u << 1;      // the LED is lit right now
        static constexpr uint32_t sweepValid = 1u << 2; // FREQUENCY comes from a sweep
    };
    enum class Command : uint32_t { reset = 1, sweep = 2 };

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
