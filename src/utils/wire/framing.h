#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>
#include <string_view>

// What the daemon and its clients exchange: the framed messages on the sockets and the
// container files. Both sides build on these definitions, so they cannot drift apart.
namespace utils::wire {

// The first word of every framed message and of both container files.
inline constexpr uint32_t magic = 0x0510FFFF;
// Every checksum is CRC-32 from this register value, zlib's crc32 of the same bytes.
inline constexpr uint32_t checksumSeed = 0xFFFFFFFF;

// The header the control-socket messages share: magic, total (or used) length, kind, and the
// length that follows the kind word.
inline constexpr size_t lengthOffset = 4;
inline constexpr size_t kindOffset = 8;
inline constexpr size_t remainingOffset = 12;
inline constexpr size_t headerSize = 16;

// Words are little-endian, the camera's native order; offsets need not be aligned.
inline uint32_t readWord(const void* bytes, size_t offset)
{
    uint32_t value;
    std::memcpy(&value, static_cast<const char*>(bytes) + offset, sizeof value);
    return value;
}

inline uint32_t readWord(std::string_view bytes, size_t offset) { return readWord(bytes.data(), offset); }

inline void writeWord(void* bytes, size_t offset, uint32_t value)
{
    std::memcpy(static_cast<char*>(bytes) + offset, &value, sizeof value);
}

// "0x" and eight lower-case hexadecimal digits, for messages about header words and CRCs.
inline std::string hexWord(uint32_t value)
{
    char text[16];
    std::snprintf(text, sizeof text, "0x%08x", value);
    return text;
}

} // namespace utils::wire
