#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

// The XML descriptor message on the control socket: the XML container file as it stands, always
// its full size, with the length of its used part (header, XML text, NUL, checksum) at offset 4
// and the checksum both after the text and in the last four bytes.
namespace utils::wire {

inline constexpr uint32_t descriptorKind = 0x052A0201; // the XML sub-container's identifier
inline constexpr size_t descriptorSize = 229376;

// Turns `message`, a copy of the XML container (descriptorSize bytes, the NUL-terminated text
// from offset 16), into the message: writes both lengths and both checksum copies. Returns the
// checksum.
uint32_t sealDescriptorMessage(uint8_t* message);

struct XmlDescriptor {
    std::string document; // the XML text
    uint32_t usedLength = 0;
    uint32_t checksum = 0;
};

// Checks a whole message (size, magic, kind, lengths, both checksum copies, the one NUL after
// the text) and returns its document; throws std::runtime_error saying what is wrong.
XmlDescriptor decodeDescriptorMessage(std::string_view message);

} // namespace utils::wire
