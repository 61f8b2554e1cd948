#pragma once

#include "utils/platform/filedescriptor.h"

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>

namespace utils {

// A listening TCP endpoint serving one client at a time. The listening socket is either our own
// (address and port, then bindAndListen) or one handed over by the service manager's socket
// activation, found by its name. These are real sockets: the emulated board has no network.
//
// Every wait is short and bounded so that the threads serving the socket notice a shutdown
// promptly. The client descriptor is published atomically, so accepting on one thread and
// sending on another (each under the caller's own lock) is safe.
class TCPSocket {
public:
    // How long acceptConnection() waits for a client before it throws UtilsTimeoutException.
    static constexpr std::chrono::milliseconds acceptTimeout{100};
    // How long receive() waits for data; short, since callers hold a lock while they wait:
    // on the control socket an acknowledgement waits for that lock, so this wait is part of
    // every command's round trip.
    static constexpr std::chrono::milliseconds receiveTimeout{10};
    // How long send() waits for a client that does not read before it gives up with IOError.
    static constexpr std::chrono::seconds sendTimeout{5};
    // The most bytes one receive() returns.
    static constexpr std::size_t receiveBufferSize = 4096;

    // Not listening: every operation but the destructor and assignment throws.
    TCPSocket();
    // Our own socket on `address` (numeric IPv4 or IPv6; "0.0.0.0" for every interface) and
    // `port` (0 picks a free one, see localPort()). Nothing is bound until bindAndListen().
    TCPSocket(std::string address, uint16_t port);
    // The activated listening socket named `name` (the FileDescriptorName of its socket unit).
    // Throws UtilsRuntimeError when the process was given no activated socket of that name.
    explicit TCPSocket(const std::string& name);

    TCPSocket(TCPSocket&& other) noexcept;
    TCPSocket& operator=(TCPSocket&& other) noexcept;
    TCPSocket(const TCPSocket&) = delete;
    TCPSocket& operator=(const TCPSocket&) = delete;
    // Closes the client connection and the listening socket.
    ~TCPSocket();

    // Creates the socket (SO_REUSEADDR, so a restart does not wait for TIME_WAIT), binds it and
    // listens with `backlog`. Throws UtilsRuntimeError for a bad address, IOError when the
    // system refuses (port in use, no permission).
    void bindAndListen(int backlog);

    // Waits up to acceptTimeout for a client and returns its descriptor, which becomes the
    // current client. Throws UtilsTimeoutException when none came, UtilsRuntimeError when the
    // socket is not listening, a client is still connected (close it first: one at a time) or
    // accept failed.
    int acceptConnection();

    // True when `client` is not the current client (never accepted, or closed) or its peer has
    // gone and nothing is left to read.
    bool isClosed(int client) const;

    // Waits up to receiveTimeout for data from `client` and returns what arrived (at most
    // receiveBufferSize bytes); empty when the peer has closed the connection. Throws
    // UtilsTimeoutException when nothing arrived, UtilsRuntimeError when `client` is not the
    // current client, IOError when the connection failed (reset by the peer).
    std::string receive(int client);

    // Sends all `length` bytes to the current client, or throws IOError (no client, peer gone,
    // client not reading for sendTimeout). A vanished peer never raises SIGPIPE. `more` says
    // that the rest of the message follows at once, so the kernel may hold a short tail back
    // to fill a segment.
    void send(const void* data, std::size_t length, bool more = false);

    // Closes `client` if it is the current client; the socket can then accept the next one.
    void close(int client);

    // The client being served, or -1.
    int client() const { return client_.load(); }
    bool isListening() const { return listener_.valid(); }
    // The port the listening socket is bound to (useful after binding port 0).
    uint16_t localPort() const;

private:
    void closeClient() noexcept;
    // `what` + " " + this socket's description + ": " + strerror(errno).
    std::string describeFailure(const std::string& what) const;

    std::string address_;
    uint16_t port_ = 0;
    std::string activationName_;
    FileDescriptor listener_;
    // Owned, but published as a plain number: other threads read it without the callers' lock.
    std::atomic<int> client_{-1};
};

} // namespace utils
