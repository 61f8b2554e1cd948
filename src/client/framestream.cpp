#include "client/framestream.h"
#include "utils/wire/framing.h"

#include <cstring>
#include <stdexcept>

namespace k52client {

FrameStream::FrameStream(const std::string& host, uint16_t port) : connection_(host, port) {}

const Frame& FrameStream::next(Milliseconds timeout)
{
    using namespace utils::wire;
    uint8_t head[8];
    connection_.readExactly(head, sizeof head, timeout);
    if (readWord(head, 0) != magic)
        throw std::runtime_error("bad frame: no frame magic at the start (" + hexWord(readWord(head, 0)) + ")");
    const uint32_t total = readWord(head, frameTotalLengthOffset);
    if (total < frameOverhead || total > frameOverhead + frameCapacity)
        throw std::runtime_error("bad frame: implausible total length " + std::to_string(total));
    if (total > bufferSize_) {
        buffer_ = std::make_unique_for_overwrite<uint8_t[]>(total);
        bufferSize_ = total;
    }
    std::memcpy(buffer_.get(), head, sizeof head);
    connection_.readExactly(buffer_.get() + sizeof head, total - sizeof head, timeout);
    frame_ = verify(buffer_.get(), total);
    return frame_;
}

Frame FrameStream::verify(const uint8_t* message, size_t size)
{
    return {utils::wire::decodeFrameMessage(message, size), message, size};
}

} // namespace k52client
