#pragma once

#include "client/connection.h"
#include "client/notice.h"

#include <cstdint>
#include <string>
#include <string_view>

namespace k52client {

// The XML descriptor message the daemon sends on the control socket for "GetXmlDescriptor":
// always 229376 bytes, framed like an acknowledgement but of its own kind, with the used length
// (header, XML text, its NUL, checksum) at offset 4 and the checksum after the text and again in
// the last four bytes.
namespace xmlframe {
constexpr uint32_t magic = 0x0510FFFF;
constexpr uint32_t kind = 0x052A0201;
constexpr size_t headerSize = 16;
constexpr size_t size = 229376;
} // namespace xmlframe

struct XmlDescriptor {
    std::string document; // the XML text
    uint32_t usedLength = 0;
    uint32_t checksum = 0;
};

// Checks a whole descriptor message (magic, kind, lengths, both checksum copies, the NUL after
// the text) and returns its document; throws std::runtime_error saying what is wrong.
XmlDescriptor unpackXmlDescriptor(std::string_view message);

// readMessage() stops at the used length; the daemon sends the whole fixed-size message, so
// this reads the rest of it from `connection` and returns all 229376 bytes.
std::string completeXmlDescriptor(Connection& connection, const Message& head, Milliseconds timeout);

struct DescriptorReply {
    XmlDescriptor descriptor;
    Notice acknowledgement;
};

// Sends "GetXmlDescriptor" and returns the verified descriptor with the route's
// acknowledgement; notices in between are kept in client.unsolicited(). Throws
// std::runtime_error with the daemon's answer when the route fails (no descriptor comes then).
DescriptorReply fetchXmlDescriptor(ControlClient& client, Milliseconds timeout = Milliseconds(5000));

} // namespace k52client
