#pragma once

#include <cstddef>
#include <cstdint>

namespace utils {

// CRC-32 (reflected polynomial 0xEDB88320): the register starts at `seed` and the result is
// inverted, so CRCSum32(p, n, 0xFFFFFFFF) equals zlib's crc32(0, p, n).
uint32_t CRCSum32(const void* data, size_t length, uint32_t seed);

} // namespace utils
