#pragma once

#include "client/notice.h"
#include "utils/platform/filedescriptor.h"

#include <chrono>
#include <cstdint>
#include <deque>
#include <string>

namespace k52client {

using Milliseconds = std::chrono::milliseconds;

// A TCP connection to one of the daemon's sockets. Throws std::runtime_error on failure.
class Connection {
public:
    Connection(const std::string& host, uint16_t port, Milliseconds timeout = Milliseconds(3000));
    Connection(Connection&& other) noexcept = default;
    Connection& operator=(Connection&&) = delete;
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;

    void sendAll(const void* data, size_t length);
    // Reads exactly `length` bytes; throws std::runtime_error on timeout or a closed peer.
    void readExactly(void* data, size_t length, Milliseconds timeout);
    // True when the peer has closed (a read of zero bytes would follow).
    bool peerClosed(Milliseconds wait);
    int descriptor() const { return fd_.get(); }

private:
    utils::FileDescriptor fd_;
};

// A framed message from the daemon: magic, total length, kind, then the rest.
struct Message {
    uint32_t kind;
    std::string bytes; // the whole message, header included
};

// The control connection: sends commands and reads acknowledgement frames.
class ControlClient {
public:
    ControlClient(const std::string& host, uint16_t port);

    // Sends one command (route and arguments) terminated by a carriage return.
    void send(const std::string& command);
    // Sends raw bytes as they are (tests of the channel's framing).
    void sendRaw(const std::string& bytes);

    // The next framed message of any kind.
    Message readMessage(Milliseconds timeout);
    // The next notice (frames of other kinds are an error here).
    Notice readNotice(Milliseconds timeout);

    // Sends `command` and returns its acknowledgement; notices that arrive meanwhile are kept
    // for unsolicited().
    Notice command(const std::string& command, Milliseconds timeout = Milliseconds(5000));

    std::deque<Notice>& unsolicited() { return unsolicited_; }
    Connection& connection() { return connection_; }

private:
    Connection connection_;
    std::deque<Notice> unsolicited_;
};

} // namespace k52client
