#include "utils/wire/framemessage.h"

#include "utils/base/crc.h"
#include "utils/wire/framing.h"

#include <iterator>
#include <stdexcept>
#include <string>

namespace utils::wire {

namespace {

[[noreturn]] void reject(const std::string& what) { throw std::runtime_error("bad frame: " + what); }

} // namespace

void encodeFrameHeader(void* message, uint32_t width, uint32_t height, uint32_t pixelFormat,
                       uint32_t dataLength)
{
    writeWord(message, frameTotalLengthOffset, static_cast<uint32_t>(frameOverhead) + dataLength);
    writeWord(message, frameWidthOffset, width);
    writeWord(message, frameHeightOffset, height);
    writeWord(message, framePixelFormatOffset, pixelFormat);
    // The data sub-container's size counts its own 8-byte header.
    writeWord(message, frameDataLengthOffset, dataLength + 8);
}

FrameView decodeFrameMessage(const uint8_t* message, size_t size)
{
    if (size < frameOverhead || size > frameOverhead + frameCapacity)
        reject("implausible message size " + std::to_string(size));
    if (readWord(message, 0) != magic)
        reject("no frame magic at the start");
    if (readWord(message, frameTotalLengthOffset) != size)
        reject("total length " + std::to_string(readWord(message, frameTotalLengthOffset)) + " but " +
               std::to_string(size) + " bytes");
    if (readWord(message, frameMetadataIdOffset) != frameMetadataId)
        reject("frame metadata identifier " + hexWord(readWord(message, frameMetadataIdOffset)));
    if (readWord(message, frameDataIdOffset) != frameDataId)
        reject("frame data identifier " + hexWord(readWord(message, frameDataIdOffset)));
    const size_t dataSize = size - frameOverhead;
    if (readWord(message, frameDataLengthOffset) != dataSize + 8)
        reject("data length field " + std::to_string(readWord(message, frameDataLengthOffset)) + " for " +
               std::to_string(dataSize) + " data bytes");

    FrameView frame;
    frame.width = readWord(message, frameWidthOffset);
    frame.height = readWord(message, frameHeightOffset);
    frame.pixelFormat = readWord(message, framePixelFormatOffset);
    if (std::string_view(pixelFormatName(frame.pixelFormat)) == "?")
        reject("unknown pixel format " + std::to_string(frame.pixelFormat));
    frame.data = message + frameDataOffset;
    frame.size = dataSize;
    // The message ends with the checksum: its total length is the container's size field.
    frame.crc = readWord(message, size - 4);
    const uint32_t expected = CRCSum32(message, size - 4, checksumSeed);
    if (frame.crc != expected)
        reject("CRC " + hexWord(frame.crc) + ", computed " + hexWord(expected));
    return frame;
}

const char* pixelFormatName(uint32_t pixelFormat)
{
    static const char* const names[] = {"?", "GREY", "BYR2", "UYVY", "YUYV", "Y444", "NV12", "RGB3", "RGB4"};
    return pixelFormat < std::size(names) ? names[pixelFormat] : "?";
}

} // namespace utils::wire
