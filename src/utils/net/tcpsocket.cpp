#include "utils/net/tcpsocket.h"

#include "utils/base/exceptions.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <systemd/sd-daemon.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <utility>

namespace utils {

namespace {

// Waits for `events` on `fd`, retrying on signals. Returns poll's revents, 0 on timeout, or
// -1 with errno set.
int waitFor(int fd, short events, std::chrono::milliseconds timeout)
{
    pollfd entry{fd, events, 0};
    int ready;
    do {
        ready = ::poll(&entry, 1, static_cast<int>(timeout.count()));
    } while (ready < 0 && errno == EINTR);
    return ready <= 0 ? ready : entry.revents;
}

// The names libsystemd hands out are malloc'ed strings in a malloc'ed, null-terminated array.
struct ActivationNames {
    char** names = nullptr;
    int count = 0;
    ~ActivationNames()
    {
        for (int i = 0; names && i < count; ++i)
            std::free(names[i]);
        std::free(names);
    }
};

} // namespace

TCPSocket::TCPSocket() = default;

TCPSocket::TCPSocket(std::string address, uint16_t port) : address_(std::move(address)), port_(port)
{
}

TCPSocket::TCPSocket(const std::string& name) : activationName_(name)
{
    ActivationNames activated;
    // Keep the environment: the control and the stream socket are looked up one after the other.
    activated.count = sd_listen_fds_with_names(0, &activated.names);
    if (activated.count < 0) {
        errno = -activated.count;
        throw UtilsRuntimeError(describeFailure("Unable to read the activated sockets for"));
    }
    for (int i = 0; i < activated.count; ++i) {
        if (!activated.names || name != activated.names[i])
            continue;
        int fd = SD_LISTEN_FDS_START + i;
        if (sd_is_socket(fd, AF_UNSPEC, SOCK_STREAM, 1) <= 0)
            throw UtilsRuntimeError("TCPSocket: the activated socket '" + name +
                                    "' is not a listening stream socket.");
        // Our own duplicate, so that closing this object never closes the service manager's
        // descriptor for another object that looked up the same name.
        const int lowest = SD_LISTEN_FDS_START + activated.count;
        listener_ = FileDescriptor(::fcntl(fd, F_DUPFD_CLOEXEC, lowest),
                                   FileDescriptor::Closer::system);
        if (!listener_)
            throw IOError(describeFailure("Unable to take over"));
        return;
    }
    throw UtilsRuntimeError("TCPSocket: no activated socket named '" + name + "' (" +
                            std::to_string(activated.count) +
                            " passed by the service manager); configure 'socket-ctrl' and "
                            "'socket-stream' or start the daemon through its socket units.");
}

TCPSocket::TCPSocket(TCPSocket&& other) noexcept
    : address_(std::move(other.address_)),
      port_(other.port_),
      activationName_(std::move(other.activationName_)),
      listener_(std::move(other.listener_)),
      client_(other.client_.exchange(-1))
{
}

TCPSocket& TCPSocket::operator=(TCPSocket&& other) noexcept
{
    if (this != &other) {
        closeClient();
        address_ = std::move(other.address_);
        port_ = other.port_;
        activationName_ = std::move(other.activationName_);
        listener_ = std::move(other.listener_);
        client_.store(other.client_.exchange(-1));
    }
    return *this;
}

TCPSocket::~TCPSocket() { closeClient(); }

void TCPSocket::bindAndListen(int backlog)
{
    if (!activationName_.empty())
        throw UtilsRuntimeError("TCPSocket: the activated socket '" + activationName_ +
                                "' is already listening.");
    addrinfo hints{};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = AI_PASSIVE | AI_NUMERICHOST | AI_NUMERICSERV;
    addrinfo* found = nullptr;
    const std::string service = std::to_string(port_);
    if (int rc = ::getaddrinfo(address_.c_str(), service.c_str(), &hints, &found); rc != 0)
        throw UtilsRuntimeError("TCPSocket: invalid listening address '" + address_ +
                                "': " + ::gai_strerror(rc));
    std::unique_ptr<addrinfo, decltype(&::freeaddrinfo)> resolved(found, &::freeaddrinfo);

    listener_.reset();
    // Non-blocking, so that a client which vanishes between poll and accept cannot block us.
    FileDescriptor created(
        ::socket(found->ai_family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0),
        FileDescriptor::Closer::system);
    if (!created)
        throw IOError(describeFailure("Unable to create"));
    const int fd = created.get();
    // A failed set-up leaves the object not listening, as before the call.
    auto refuse = [this](const std::string& what) {
        throw IOError(describeFailure(what));
    };
    int on = 1;
    if (::setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) < 0)
        refuse("Unable to set SO_REUSEADDR on");
    if (::bind(fd, found->ai_addr, found->ai_addrlen) < 0)
        refuse("Unable to bind");
    if (::listen(fd, backlog) < 0)
        refuse("Unable to listen on");
    listener_ = std::move(created);
}

int TCPSocket::acceptConnection()
{
    if (!listener_)
        throw UtilsRuntimeError("TCPSocket: accept on a socket that is not listening.");
    if (client_.load() >= 0)
        throw UtilsRuntimeError("TCPSocket: client " + std::to_string(client_.load()) +
                                " is still connected; close it before accepting another.");
    int ready = waitFor(listener_.get(), POLLIN, acceptTimeout);
    if (ready < 0)
        throw UtilsRuntimeError(describeFailure("Unable to wait for clients on"));
    if (ready == 0)
        throw UtilsTimeoutException("TCPSocket: no client within the accept timeout.");

    FileDescriptor accepted(::accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC),
                            FileDescriptor::Closer::system);
    if (!accepted) {
        if (errno == EAGAIN || errno == EWOULDBLOCK || errno == ECONNABORTED || errno == EINTR)
            throw UtilsTimeoutException("TCPSocket: the client left before it was accepted.");
        throw UtilsRuntimeError(describeFailure("Unable to accept a client on"));
    }
    // Notices are small and latency matters more than packing them.
    const int fd = accepted.get();
    int on = 1;
    ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    // A client that stops reading must not block a sender (who holds a lock) for ever.
    timeval limit{static_cast<time_t>(sendTimeout.count()), 0};
    ::setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
    client_.store(accepted.release());
    return fd;
}

bool TCPSocket::isClosed(int client) const
{
    if (client < 0 || client != client_.load())
        return true;
    int events = waitFor(client, POLLIN | POLLRDHUP, std::chrono::milliseconds(0));
    if (events < 0 || (events & (POLLERR | POLLNVAL)))
        return true;
    if (!(events & (POLLHUP | POLLRDHUP)))
        return false;
    // The peer has finished sending, but what it sent before still counts.
    int pending = 0;
    return ::ioctl(client, FIONREAD, &pending) < 0 || pending == 0;
}

std::string TCPSocket::receive(int client)
{
    if (client < 0 || client != client_.load())
        throw UtilsRuntimeError("TCPSocket: receive from " + std::to_string(client) +
                                ", which is not the connected client.");
    int ready = waitFor(client, POLLIN, receiveTimeout);
    if (ready < 0)
        throw IOError(describeFailure("Unable to wait for data from the client of"));
    if (ready == 0)
        throw UtilsTimeoutException("TCPSocket: no data within the receive timeout.");

    std::string data(receiveBufferSize, '\0');
    ssize_t n;
    do {
        n = ::recv(client, data.data(), data.size(), MSG_DONTWAIT);
    } while (n < 0 && errno == EINTR);
    if (n < 0) {
        if (errno == EAGAIN || errno == EWOULDBLOCK)
            throw UtilsTimeoutException("TCPSocket: no data within the receive timeout.");
        throw IOError(describeFailure("Unable to receive from the client of"));
    }
    data.resize(static_cast<size_t>(n));
    return data;
}

void TCPSocket::send(const void* data, std::size_t length, bool more)
{
    int client = client_.load();
    if (client < 0)
        throw IOError("TCPSocket: no client connected to send " + std::to_string(length) +
                      " bytes to.");
    const auto* bytes = static_cast<const char*>(data);
    std::size_t sent = 0;
    while (sent < length) {
        ssize_t n = ::send(client, bytes + sent, length - sent, MSG_NOSIGNAL | (more ? MSG_MORE : 0));
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0) {
            if (errno == EAGAIN || errno == EWOULDBLOCK)
                errno = ETIMEDOUT; // SO_SNDTIMEO expired: the client stopped reading
            throw IOError(describeFailure("Unable to send " + std::to_string(length - sent) +
                                          " bytes to the client of"));
        }
        sent += static_cast<std::size_t>(n);
    }
}

void TCPSocket::close(int client)
{
    if (client >= 0 && client == client_.load())
        closeClient();
}

uint16_t TCPSocket::localPort() const
{
    sockaddr_storage address{};
    socklen_t length = sizeof address;
    if (!listener_ || ::getsockname(listener_.get(), reinterpret_cast<sockaddr*>(&address), &length) < 0)
        throw UtilsRuntimeError("TCPSocket: the socket is not bound.");
    if (address.ss_family == AF_INET6)
        return ntohs(reinterpret_cast<const sockaddr_in6*>(&address)->sin6_port);
    return ntohs(reinterpret_cast<const sockaddr_in*>(&address)->sin_port);
}

void TCPSocket::closeClient() noexcept
{
    // Unpublished before it closes, so no thread uses a number the kernel may hand out again.
    FileDescriptor closing(client_.exchange(-1), FileDescriptor::Closer::system);
}

std::string TCPSocket::describeFailure(const std::string& what) const
{
    int error = errno;
    std::string self = activationName_.empty()
                           ? "socket " + address_ + ":" + std::to_string(port_)
                           : "activated socket '" + activationName_ + "'";
    return "TCPSocket: " + what + " " + self + ": " + std::strerror(error);
}

} // namespace utils
