#pragma once

#include <cstdint>

namespace utils {

// Payloads of the general container's frame sub-containers, laid out in place in the file.
struct IOV4L2FrameMetadata {
    uint32_t width;
    uint32_t height;
    uint32_t pixelFormat;
};
static_assert(sizeof(IOV4L2FrameMetadata) == 12);

struct IOV4L2FrameData {
    static constexpr uint32_t capacity = 0x3000000; // 48 MiB
    uint8_t bytes[capacity];
};
static_assert(sizeof(IOV4L2FrameData) == 50331648);

} // namespace utils
