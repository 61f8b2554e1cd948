#include "client/descriptor.h"
#include "client/wire.h"

#include "utils/base/crc.h"

#include <chrono>
#include <cstdio>
#include <cstring>
#include <optional>
#include <stdexcept>

namespace k52client {

XmlDescriptor unpackXmlDescriptor(std::string_view message)
{
    if (message.size() != xmlframe::size)
        throw std::runtime_error("XML descriptor of " + std::to_string(message.size()) + " bytes, expected " +
                                 std::to_string(xmlframe::size));
    if (wordAt(message, 0) != xmlframe::magic)
        throw std::runtime_error("bad XML descriptor magic " + hex(wordAt(message, 0)));
    if (wordAt(message, 8) != xmlframe::kind)
        throw std::runtime_error("bad XML descriptor kind " + hex(wordAt(message, 8)));
    const uint32_t used = wordAt(message, 4);
    if (used < xmlframe::headerSize + 1 + 4 || used > xmlframe::size)
        throw std::runtime_error("XML descriptor used length " + std::to_string(used) + " out of range");
    if (wordAt(message, 12) != used - 12)
        throw std::runtime_error("XML descriptor remaining length " + std::to_string(wordAt(message, 12)) +
                                 " does not match used length " + std::to_string(used));
    const uint32_t computed = utils::CRCSum32(message.data(), used - 4, 0xFFFFFFFF);
    const uint32_t stored = wordAt(message, used - 4);
    if (stored != computed)
        throw std::runtime_error("XML descriptor checksum " + hex(stored) + " but content gives " + hex(computed));
    if (wordAt(message, xmlframe::size - 4) != computed)
        throw std::runtime_error("XML descriptor end checksum " + hex(wordAt(message, xmlframe::size - 4)) +
                                 " differs from " + hex(computed));
    std::string_view text = message.substr(xmlframe::headerSize, used - 4 - xmlframe::headerSize);
    if (text.back() != '\0' || text.find('\0') != text.size() - 1)
        throw std::runtime_error("XML descriptor text does not end with its only NUL");
    text.remove_suffix(1);
    return {std::string(text), used, computed};
}

std::string completeXmlDescriptor(Connection& connection, const Message& head, Milliseconds timeout)
{
    if (head.kind != xmlframe::kind || head.bytes.size() > xmlframe::size)
        throw std::runtime_error("not the head of an XML descriptor message");
    std::string message = head.bytes;
    const size_t received = message.size();
    message.resize(xmlframe::size);
    connection.readExactly(message.data() + received, xmlframe::size - received, timeout);
    return message;
}

DescriptorReply fetchXmlDescriptor(ControlClient& client, Milliseconds timeout)
{
    using Clock = std::chrono::steady_clock;
    const auto deadline = Clock::now() + timeout;
    auto left = [&deadline] {
        auto rest = std::chrono::duration_cast<Milliseconds>(deadline - Clock::now());
        return rest.count() > 0 ? rest : Milliseconds(0);
    };

    client.send("GetXmlDescriptor");
    std::optional<XmlDescriptor> descriptor;
    for (;;) {
        Message message = client.readMessage(left());
        if (message.kind == xmlframe::kind) {
            descriptor = unpackXmlDescriptor(completeXmlDescriptor(client.connection(), message, left()));
            continue;
        }
        if (message.kind != ackframe::kind)
            throw std::runtime_error("unexpected message kind " + hex(message.kind) + " on the control socket");
        const std::string text = unpackFrame(message.bytes);
        auto notice = parseNotice(text);
        if (!notice)
            throw std::runtime_error("notice text not understood: " + text);
        if (!notice->isAcknowledgement()) {
            client.unsolicited().push_back(std::move(*notice));
            continue;
        }
        // The descriptor goes out before the route's answer, so the answer ends the exchange.
        if (!descriptor)
            throw std::runtime_error("GetXmlDescriptor answered " + notice->status() + " : " + notice->reply());
        return {std::move(*descriptor), std::move(*notice)};
    }
}

} // namespace k52client
