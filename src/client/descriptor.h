#pragma once

#include "client/connection.h"
#include "client/notice.h"
#include "utils/wire/descriptormessage.h"

#include <cstdint>
#include <string>
#include <string_view>

namespace k52client {

using utils::wire::XmlDescriptor;

// Checks a whole descriptor message (magic, kind, lengths, both checksum copies, the NUL after
// the text) and returns its document; throws std::runtime_error saying what is wrong.
inline XmlDescriptor unpackXmlDescriptor(std::string_view message)
{
    return utils::wire::decodeDescriptorMessage(message);
}

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
