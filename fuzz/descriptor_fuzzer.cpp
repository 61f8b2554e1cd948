// The client's decoder of the XML descriptor message.
#include "client/descriptor.h"
#include "client/wire.h"

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <stdexcept>
#include <string>
#include <string_view>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    // The message has one size. A shorter input is its used part: it is padded with zeros and
    // ends with a copy of the checksum word at used - 4, as the daemon sends it, so that the
    // fuzzer reaches the checks behind the length test without inputs of 224 KiB.
    std::string message(reinterpret_cast<const char*>(data), size);
    if (size < k52client::xmlframe::size) {
        message.resize(k52client::xmlframe::size, '\0');
        const uint32_t used = size >= 8 ? k52client::wordAt(data, 4) : 0;
        if (used >= 4 && used <= size)
            std::memcpy(&message[k52client::xmlframe::size - 4], data + used - 4, 4);
    }
    try {
        k52client::unpackXmlDescriptor(message);
    } catch (const std::runtime_error&) {
    }
    return 0;
}
