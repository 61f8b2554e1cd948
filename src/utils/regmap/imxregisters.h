#pragma once

#include <cstdint>

// The image-sensor control device's register file (docs/hardware/imx.md): 32-bit
// little-endian registers below 0x100, one per request; byte tables from 0x100 on.
namespace utils::imx_registers {

constexpr uint32_t sensorType = 0x00; // 0 colour, 1 monochrome
constexpr uint32_t exposure = 0x04;   // microseconds
constexpr uint32_t triggerMode = 0x08; // 0 free-running, 1 externally triggered
constexpr uint32_t halfScanMode = 0x0c;
constexpr uint32_t pixelWidth = 0x10;  // the pixel array, for the ROI bounds
constexpr uint32_t pixelHeight = 0x14;

constexpr uint32_t model = 0x100; // 16 bytes of ASCII, NUL-padded
constexpr uint32_t modelLength = 16;
constexpr uint32_t roiOffset = 0x110; // x then y, signed 32-bit each, written together

constexpr uint32_t minExposureUs = 1;
constexpr uint32_t maxExposureUs = 10'000'000;

} // namespace utils::imx_registers
