#pragma once

#include <cstdint>

// The autofocus module's register file (docs/hardware/autofocus.md): 32-bit little-endian
// registers.
namespace utils::autofocus_registers {

constexpr uint32_t deviceId = 0x4B520003;

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

} // namespace utils::autofocus_registers
