#pragma once

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>
#include <string>

namespace k52test {

// The little-endian word at `offset` of a message, container or file read into memory.
inline uint32_t word(const void* bytes, size_t offset)
{
    uint32_t value;
    std::memcpy(&value, static_cast<const char*>(bytes) + offset, sizeof value);
    return value;
}
inline uint32_t word(const std::string& bytes, size_t offset) { return word(bytes.data(), offset); }

// A whole file; empty when it cannot be read.
inline std::string fileBytes(const std::string& path)
{
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

// A checksum as replies and records print it.
inline std::string hex(uint32_t value)
{
    char text[16];
    std::snprintf(text, sizeof text, "0x%08x", value);
    return text;
}

} // namespace k52test
