#include "client/framestream.h"
#include "client/wire.h"

#include "utils/base/crc.h"

#include <cstring>
#include <stdexcept>

namespace k52client {

namespace {

[[noreturn]] void reject(const std::string& what) { throw std::runtime_error("bad frame: " + what); }

} // namespace

std::string pixelFormatName(uint32_t pixelFormat)
{
    static const char* const names[] = {"?", "GREY", "BYR2", "UYVY", "YUYV", "Y444", "NV12", "RGB3", "RGB4"};
    return pixelFormat < std::size(names) ? names[pixelFormat] : "?";
}

FrameStream::FrameStream(const std::string& host, uint16_t port) : connection_(host, port) {}

const Frame& FrameStream::next(Milliseconds timeout)
{
    uint8_t head[8];
    connection_.readExactly(head, sizeof head, timeout);
    if (wordAt(head, 0) != framemessage::magic)
        reject("no frame magic at the start (" + hex(wordAt(head, 0)) + ")");
    const uint32_t total = wordAt(head, framemessage::totalLengthOffset);
    if (total < framemessage::overhead || total > framemessage::overhead + framemessage::capacity)
        reject("implausible total length " + std::to_string(total));
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
    using namespace framemessage;
    if (size < overhead || size > overhead + capacity)
        reject("implausible message size " + std::to_string(size));
    if (wordAt(message, 0) != magic)
        reject("no frame magic at the start");
    if (wordAt(message, totalLengthOffset) != size)
        reject("total length " + std::to_string(wordAt(message, totalLengthOffset)) +
               " but " + std::to_string(size) + " bytes");
    if (wordAt(message, metadataIdOffset) != metadataId)
        reject("frame metadata identifier " + hex(wordAt(message, metadataIdOffset)));
    if (wordAt(message, dataIdOffset) != dataId)
        reject("frame data identifier " + hex(wordAt(message, dataIdOffset)));
    const size_t dataSize = size - overhead;
    if (wordAt(message, dataLengthOffset) != dataSize + 8)
        reject("data length field " + std::to_string(wordAt(message, dataLengthOffset)) +
               " for " + std::to_string(dataSize) + " data bytes");

    Frame frame;
    frame.width = wordAt(message, widthOffset);
    frame.height = wordAt(message, heightOffset);
    frame.pixelFormat = wordAt(message, pixelFormatOffset);
    if (pixelFormatName(frame.pixelFormat) == "?")
        reject("unknown pixel format " + std::to_string(frame.pixelFormat));
    frame.data = message + dataOffset;
    frame.size = dataSize;
    frame.crc = wordAt(message, size - 4);
    // The same checksum sits at the end of the container file; on the wire the message ends
    // with it, since its total length is the container's size field.
    const uint32_t expected = utils::CRCSum32(message, size - 4, 0xFFFFFFFF);
    if (frame.crc != expected)
        reject("CRC " + hex(frame.crc) + ", computed " + hex(expected));
    frame.message = message;
    frame.messageSize = size;
    return frame;
}

} // namespace k52client
