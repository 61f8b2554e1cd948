#pragma once

#include <cstddef>
#include <cstdint>

// The frame message on the stream socket: the used part of the general container, with the
// latest frame in it. Offsets are from the start of the container.
namespace utils::wire {

inline constexpr size_t frameTotalLengthOffset = 4;
inline constexpr size_t frameMetadataIdOffset = 2216;
inline constexpr uint32_t frameMetadataId = 0x051A0801;
inline constexpr size_t frameWidthOffset = 2224;
inline constexpr size_t frameHeightOffset = 2228;
inline constexpr size_t framePixelFormatOffset = 2232;
inline constexpr size_t frameDataIdOffset = 2236;
inline constexpr uint32_t frameDataId = 0x051A0601;
inline constexpr size_t frameDataLengthOffset = 2240;
inline constexpr size_t frameDataOffset = 2244;
// Everything of a message that is not frame data: the header and the trailing checksum.
inline constexpr size_t frameOverhead = frameDataOffset + 4;
// The most data one frame carries (48 MiB).
inline constexpr uint32_t frameCapacity = 0x3000000;

// Writes the header words that change per frame (total length, width, height, pixel format,
// data length) for `dataLength` data bytes into `message`, which holds at least the header.
// The identifiers around them are the container's and stay as they are. No allocation: it runs
// once per frame.
void encodeFrameHeader(void* message, uint32_t width, uint32_t height, uint32_t pixelFormat,
                       uint32_t dataLength);

// One verified frame message; the pointers point into the message.
struct FrameView {
    uint32_t width = 0;
    uint32_t height = 0;
    uint32_t pixelFormat = 0; // 1 GREY, 2 BYR2, 3 UYVY, 4 YUYV, 5 Y444, 6 NV12, 7 RGB3, 8 RGB4
    const uint8_t* data = nullptr;
    size_t size = 0;
    uint32_t crc = 0;
};

// Checks a whole message (size, identifiers, lengths, pixel format, CRC); throws
// std::runtime_error "bad frame: " and which check failed.
FrameView decodeFrameMessage(const uint8_t* message, size_t size);

// "GREY", "RGB3", ... for a pixel-format number; "?" for others.
const char* pixelFormatName(uint32_t pixelFormat);

} // namespace utils::wire
