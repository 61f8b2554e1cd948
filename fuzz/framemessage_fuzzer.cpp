// The verification of frame messages from the stream socket.
#include "utils/wire/framemessage.h"

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <stdexcept>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    try {
        const utils::wire::FrameView frame = utils::wire::decodeFrameMessage(data, size);
        // An accepted frame's pixels must lie inside the message.
        if (frame.data < data || frame.data + frame.size > data + size)
            std::abort();
    } catch (const std::runtime_error&) {
    }
    return 0;
}
