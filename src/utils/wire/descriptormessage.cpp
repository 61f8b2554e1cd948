#include "utils/wire/descriptormessage.h"

#include "utils/base/crc.h"
#include "utils/wire/framing.h"

#include <stdexcept>

namespace utils::wire {

uint32_t sealDescriptorMessage(uint8_t* message)
{
    const auto* text = reinterpret_cast<const char*>(message + headerSize);
    // The block always keeps a NUL after the text, so the used part fits the message.
    const auto textLength = static_cast<uint32_t>(::strnlen(text, descriptorSize - headerSize - 5));
    const uint32_t used = static_cast<uint32_t>(headerSize) + textLength + 1 + 4;
    writeWord(message, lengthOffset, used);
    writeWord(message, remainingOffset, used - static_cast<uint32_t>(remainingOffset));
    const uint32_t checksum = CRCSum32(message, used - 4, checksumSeed);
    writeWord(message, used - 4, checksum);
    writeWord(message, descriptorSize - 4, checksum);
    return checksum;
}

XmlDescriptor decodeDescriptorMessage(std::string_view message)
{
    if (message.size() != descriptorSize)
        throw std::runtime_error("XML descriptor of " + std::to_string(message.size()) + " bytes, expected " +
                                 std::to_string(descriptorSize));
    if (readWord(message, 0) != magic)
        throw std::runtime_error("bad XML descriptor magic " + hexWord(readWord(message, 0)));
    if (readWord(message, kindOffset) != descriptorKind)
        throw std::runtime_error("bad XML descriptor kind " + hexWord(readWord(message, kindOffset)));
    const uint32_t used = readWord(message, lengthOffset);
    if (used < headerSize + 1 + 4 || used > descriptorSize)
        throw std::runtime_error("XML descriptor used length " + std::to_string(used) + " out of range");
    if (readWord(message, remainingOffset) != used - remainingOffset)
        throw std::runtime_error("XML descriptor remaining length " +
                                 std::to_string(readWord(message, remainingOffset)) +
                                 " does not match used length " + std::to_string(used));
    const uint32_t computed = CRCSum32(message.data(), used - 4, checksumSeed);
    const uint32_t stored = readWord(message, used - 4);
    if (stored != computed)
        throw std::runtime_error("XML descriptor checksum " + hexWord(stored) + " but content gives " +
                                 hexWord(computed));
    if (readWord(message, descriptorSize - 4) != computed)
        throw std::runtime_error("XML descriptor end checksum " + hexWord(readWord(message, descriptorSize - 4)) +
                                 " differs from " + hexWord(computed));
    std::string_view text = message.substr(headerSize, used - 4 - headerSize);
    if (text.back() != '\0' || text.find('\0') != text.size() - 1)
        throw std::runtime_error("XML descriptor text does not end with its only NUL");
    text.remove_suffix(1);
    return {std::string(text), used, computed};
}

} // namespace utils::wire
