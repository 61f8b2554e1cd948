// The client's verification of frame messages from the stream socket.
#include "client/framestream.h"

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <stdexcept>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    try {
        k52client::Frame frame = k52client::FrameStream::verify(data, size);
        // An accepted frame's pixels must lie inside the message.
        if (frame.data < data || frame.data + frame.size > data + size)
            std::abort();
        k52client::pixelFormatName(frame.pixelFormat);
    } catch (const std::runtime_error&) {
    }
    return 0;
}
