#pragma once

#include "client/connection.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

namespace k52client {

// The frame message the daemon sends on the stream socket: the used part of its general
// container. Little-endian 32-bit words at these byte offsets; the data runs from dataOffset
// for (data length field - 8) bytes and the CRC-32 (zlib's crc32 of every byte before it)
// follows the data, so the message ends with it.
namespace framemessage {
constexpr uint32_t magic = 0x0510FFFF;
constexpr size_t totalLengthOffset = 4;
constexpr size_t metadataIdOffset = 2216;
constexpr uint32_t metadataId = 0x051A0801;
constexpr size_t widthOffset = 2224;
constexpr size_t heightOffset = 2228;
constexpr size_t pixelFormatOffset = 2232;
constexpr size_t dataIdOffset = 2236;
constexpr uint32_t dataId = 0x051A0601;
constexpr size_t dataLengthOffset = 2240;
constexpr size_t dataOffset = 2244;
constexpr size_t overhead = dataOffset + 4; // everything but the data
constexpr uint32_t capacity = 0x3000000;    // the most data one frame carries
} // namespace framemessage

// One received frame; its pointers stay valid until the next FrameStream::next().
struct Frame {
    uint32_t width = 0;
    uint32_t height = 0;
    uint32_t pixelFormat = 0; // 1 GREY, 2 BYR2, 3 UYVY, 4 YUYV, 5 Y444, 6 NV12, 7 RGB3, 8 RGB4
    const uint8_t* data = nullptr;
    size_t size = 0;
    uint32_t crc = 0;
    const uint8_t* message = nullptr; // the whole message as received
    size_t messageSize = 0;
};

// "GREY", "RGB3", ... for a pixel-format number; "?" for others.
std::string pixelFormatName(uint32_t pixelFormat);

// Receives frames on the stream socket and verifies each (layout, lengths, CRC). The receive
// buffer is kept between frames, so a steady stream allocates nothing per frame.
class FrameStream {
public:
    FrameStream(const std::string& host, uint16_t port);

    // The next frame; throws std::runtime_error on a timeout, a closed connection or a frame
    // that fails verification (the message says which check).
    const Frame& next(Milliseconds timeout);

    // Verifies a whole frame message as it came off the wire and describes it.
    static Frame verify(const uint8_t* message, size_t size);

    Connection& connection() { return connection_; }

private:
    Connection connection_;
    std::unique_ptr<uint8_t[]> buffer_;
    size_t bufferSize_ = 0;
    Frame frame_;
};

} // namespace k52client
