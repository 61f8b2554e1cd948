#pragma once

#include <cstddef>
#include <cstdint>

// The time-of-flight sensor's register file (docs/hardware/tof.md): 32-bit little-endian
// registers below 0x100, tables of 16-bit zone values from 0x100 on.
namespace utils::tof_registers {

constexpr uint32_t deviceId = 0x4B520001;
constexpr size_t maxZones = 64;

// RESOLUTION holds the zone count of the grid.
enum Resolution : uint8_t { RESOLUTION_4X4 = 16, RESOLUTION_8X8 = 64 };
enum PowerMode : uint8_t { SLEEP = 0, WAKEUP = 1 };
enum RangingMode : uint8_t { CONTINUOUS = 1, AUTONOMOUS = 3 };

struct Register {
    static constexpr uint32_t id = 0x00;
    static constexpr uint32_t status = 0x04;
    static constexpr uint32_t command = 0x08;
    static constexpr uint32_t resolution = 0x0C;
    static constexpr uint32_t frequency = 0x10;
    static constexpr uint32_t powerMode = 0x14;
    static constexpr uint32_t rangingMode = 0x18;
    static constexpr uint32_t integrationTime = 0x1C;
    static constexpr uint32_t calibrationReflectance = 0x20;
    static constexpr uint32_t calibrationSamples = 0x24;
    static constexpr uint32_t calibrationDistance = 0x28;
    static constexpr uint32_t crossTalk = 0x2C;
    static constexpr uint32_t calibrationEnable = 0x30;
    static constexpr uint32_t frameCount = 0x34;
    static constexpr uint32_t temperature = 0x38;
    static constexpr uint32_t factoryOffsets = 0x100;   // 64 x int16, read-only
    static constexpr uint32_t factoryChecksum = 0x180;  // CRC-32 of the 128 bytes above
    static constexpr uint32_t offsetTable = 0x200;      // 64 x int16, applied offsets
    static constexpr uint32_t results = 0x400;          // 64 x uint16 distances
};
struct Status {
    static constexpr uint32_t booted = 1u << 0;
    static constexpr uint32_t ranging = 1u << 1;
    static constexpr uint32_t dataReady = 1u << 2;
    static constexpr uint32_t calibrated = 1u << 3;
    static constexpr uint32_t crossTalkBusy = 1u << 4;
    static constexpr uint32_t crossTalkValid = 1u << 5;
};
enum class Command : uint32_t { boot = 1, startRanging = 2, stopRanging = 3, crossTalk = 4 };

} // namespace utils::tof_registers
