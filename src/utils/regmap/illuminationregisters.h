#pragma once

#include <cstdint>

// The illumination module's register file (docs/hardware/illumination.md): 32-bit
// little-endian registers.
namespace utils::illumination_registers {

constexpr uint32_t deviceId = 0x4B520002;
// MODE: 0 continuous, 1-65534 a strobe of that many microseconds, this value the whole exposure.
constexpr unsigned strobeWholeExposure = 65535;
constexpr unsigned maxBrightness = 100; // percent
constexpr unsigned allSegments = 0xF;

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

} // namespace utils::illumination_registers
