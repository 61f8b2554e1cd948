#pragma once

#include <cstddef>
#include <cstdint>

// The smart sensor's I2C register protocol (docs/hardware/smartsensor.md): byte registers,
// multi-byte values little-endian.
namespace utils::smartsensor_registers {

constexpr uint8_t chipId = 0x5C;
constexpr uint8_t gyroscope = 37; // the virtual sensor id
constexpr size_t firmwareHeaderSize = 16;
// Firmware bytes per FW_DATA write: one 32-byte I2C block holds the u32 offset and these.
constexpr size_t firmwareChunkSize = 32 - 4;
constexpr size_t maxFirmwareSize = 64 * 1024; // the sensor's program RAM
constexpr uint8_t resetKey = 0xB6;
constexpr uint8_t interruptDataReady = 1u << 0;
constexpr uint8_t interruptError = 1u << 1;

struct Register {
    static constexpr uint8_t chipId = 0x00;
    static constexpr uint8_t status = 0x01;
    static constexpr uint8_t reset = 0x02;
    static constexpr uint8_t error = 0x03;
    static constexpr uint8_t interruptEnable = 0x04;
    static constexpr uint8_t firmwareLength = 0x10;   // u32
    static constexpr uint8_t firmwareCrc = 0x14;      // u32
    static constexpr uint8_t firmwareData = 0x18;     // u32 offset, then the bytes
    static constexpr uint8_t firmwareReceived = 0x1C; // u32
    static constexpr uint8_t boot = 0x20;
    static constexpr uint8_t virtualSensor = 0x30; // u8 id, f32 rate (Hz), u32 latency (ms)
    static constexpr uint8_t gyroData = 0x40;      // 3 x s16 (1/16 deg/s), u32 samples
};
struct Status {
    static constexpr uint8_t bootloader = 1u << 0;
    static constexpr uint8_t firmwareValid = 1u << 1;
    static constexpr uint8_t running = 1u << 2;
    static constexpr uint8_t error = 1u << 3;
    static constexpr uint8_t booting = 1u << 4;
};
enum class Error : uint8_t {
    none = 0,
    notInBootloader = 1,
    chunkOutOfOrder = 2,
    firmwareTooLarge = 3,
    crcMismatch = 4,
    noFirmware = 5,
    unknownSensor = 6,
    rateOutOfRange = 7,
    notRunning = 8,
};

} // namespace utils::smartsensor_registers
