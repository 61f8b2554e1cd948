#include "client/descriptor.h"
#include "utils/wire/framing.h"

#include <chrono>
#include <cstdio>
#include <cstring>
#include <optional>
#include <stdexcept>

namespace k52client {

std::string completeXmlDescriptor(Connection& connection, const Message& head, Milliseconds timeout)
{
    using utils::wire::descriptorSize;
    if (head.kind != utils::wire::descriptorKind || head.bytes.size() > descriptorSize)
        throw std::runtime_error("not the head of an XML descriptor message");
    std::string message = head.bytes;
    const size_t received = message.size();
    message.resize(descriptorSize);
    connection.readExactly(message.data() + received, descriptorSize - received, timeout);
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
        if (message.kind == utils::wire::descriptorKind) {
            descriptor = unpackXmlDescriptor(completeXmlDescriptor(client.connection(), message, left()));
            continue;
        }
        if (message.kind != utils::wire::ackKind)
            throw std::runtime_error("unexpected message kind " + utils::wire::hexWord(message.kind) + " on the control socket");
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
