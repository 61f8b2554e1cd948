#include "utils/wire/ackframe.h"

#include "utils/base/crc.h"
#include "utils/base/exceptions.h"

#include <stdexcept>

namespace utils::wire {

size_t encodeAckFrame(AckFrameBuffer& frame, std::string_view text)
{
    const size_t n = text.size() + 1;
    if (n > ackMaxTextSize)
        throw UtilsError("Acknowledgement message is too big.");
    const size_t total = headerSize + n + 4;
    writeWord(frame.data(), 0, magic);
    writeWord(frame.data(), lengthOffset, static_cast<uint32_t>(total));
    writeWord(frame.data(), kindOffset, ackKind);
    writeWord(frame.data(), remainingOffset, static_cast<uint32_t>(total - remainingOffset));
    std::memcpy(frame.data() + headerSize, text.data(), text.size());
    frame[headerSize + text.size()] = '\0';
    const uint32_t checksum = CRCSum32(frame.data(), total - 4, checksumSeed);
    writeWord(frame.data(), total - 4, checksum);
    writeWord(frame.data(), ackFrameCapacity - 4, checksum);
    return total;
}

std::string decodeAckFrame(std::string_view frame)
{
    if (frame.size() < headerSize + 4)
        throw std::runtime_error("frame too short: " + std::to_string(frame.size()) + " bytes");
    if (readWord(frame, 0) != magic)
        throw std::runtime_error("bad frame magic " + hexWord(readWord(frame, 0)));
    const uint32_t total = readWord(frame, lengthOffset);
    if (total != frame.size())
        throw std::runtime_error("frame length " + std::to_string(total) + " but " +
                                 std::to_string(frame.size()) + " bytes received");
    if (readWord(frame, kindOffset) != ackKind)
        throw std::runtime_error("bad frame kind " + hexWord(readWord(frame, kindOffset)));
    if (readWord(frame, remainingOffset) != total - remainingOffset)
        throw std::runtime_error("remaining length " + std::to_string(readWord(frame, remainingOffset)) +
                                 " does not match total length " + std::to_string(total));
    const uint32_t stored = readWord(frame, total - 4);
    const uint32_t computed = CRCSum32(frame.data(), total - 4, checksumSeed);
    if (stored != computed)
        throw std::runtime_error("frame checksum " + hexWord(stored) + " but content gives " +
                                 hexWord(computed));
    std::string_view text = frame.substr(headerSize, total - headerSize - 4);
    if (text.empty() || text.back() != '\0')
        throw std::runtime_error("frame text is not NUL-terminated");
    text.remove_suffix(1);
    return std::string(text);
}

} // namespace utils::wire
