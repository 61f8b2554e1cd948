// The decoder of the XML descriptor message.
#include "utils/wire/descriptormessage.h"
#include "utils/wire/framing.h"

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <stdexcept>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    using namespace utils::wire;
    // The message has one size. A shorter input is its used part: it is padded with zeros and
    // ends with a copy of the checksum word at used - 4, as the daemon sends it, so that the
    // fuzzer reaches the checks behind the length test without inputs of 224 KiB.
    std::string message(reinterpret_cast<const char*>(data), size);
    if (size < descriptorSize) {
        message.resize(descriptorSize, '\0');
        const uint32_t used = size >= 8 ? readWord(data, lengthOffset) : 0;
        if (used >= 4 && used <= size)
            std::memcpy(&message[descriptorSize - 4], data + used - 4, 4);
    }
    try {
        decodeDescriptorMessage(message);
    } catch (const std::runtime_error&) {
    }
    return 0;
}
