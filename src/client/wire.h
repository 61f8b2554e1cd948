#pragma once

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>
#include <string_view>

namespace k52client {

// The daemon's messages are little-endian 32-bit words, as the camera's processor stores them.
inline uint32_t wordAt(const void* bytes, size_t offset)
{
    uint32_t value;
    std::memcpy(&value, static_cast<const char*>(bytes) + offset, sizeof value);
    return value;
}

inline uint32_t wordAt(std::string_view bytes, size_t offset) { return wordAt(bytes.data(), offset); }

// "0x" and eight lower-case hexadecimal digits, for messages about header words and CRCs.
inline std::string hex(uint32_t value)
{
    char text[16];
    std::snprintf(text, sizeof text, "0x%08x", value);
    return text;
}

} // namespace k52client
