#pragma once

#include "client/connection.h"
#include "utils/wire/framemessage.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

namespace k52client {

// One received frame; its pointers stay valid until the next FrameStream::next().
struct Frame : utils::wire::FrameView {
    const uint8_t* message = nullptr; // the whole message as received
    size_t messageSize = 0;
};

// Receives frame messages on the stream socket and verifies each (layout, lengths, CRC). The receive
// buffer is kept between frames, so a steady stream allocates nothing per frame.
class FrameStream {
public:
    FrameStream(const std::string& host, uint16_t port);

    // The next frame; throws std::runtime_error on a timeout, a closed connection or a frame
    // that fails verification (the message says which check).
    const Frame& next(Milliseconds timeout);

    // Verifies a whole frame message as it came off the wire and describes it.
    static Frame verify(const uint8_t* message, size_t size);

    Connection& connection() { return connection_; }

private:
    Connection connection_;
    std::unique_ptr<uint8_t[]> buffer_;
    size_t bufferSize_ = 0;
    Frame frame_;
};

} // namespace k52client
