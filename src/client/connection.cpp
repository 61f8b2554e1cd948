#include "client/connection.h"
#include "utils/wire/ackframe.h"
#include "utils/wire/framing.h"

#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <stdexcept>
#include <utility>

namespace k52client {

namespace {

using Clock = std::chrono::steady_clock;

[[noreturn]] void failWith(const std::string& what)
{
    throw std::runtime_error(what + ": " + std::strerror(errno));
}

int remainingMs(Clock::time_point deadline)
{
    auto left = std::chrono::duration_cast<Milliseconds>(deadline - Clock::now()).count();
    return left < 0 ? 0 : static_cast<int>(left);
}

} // namespace

Connection::Connection(const std::string& host, uint16_t port, Milliseconds timeout)
{
    addrinfo hints{};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* found = nullptr;
    int rc = ::getaddrinfo(host.c_str(), std::to_string(port).c_str(), &hints, &found);
    if (rc != 0)
        throw std::runtime_error("cannot resolve " + host + ": " + ::gai_strerror(rc));
    std::unique_ptr<addrinfo, decltype(&::freeaddrinfo)> addresses(found, &::freeaddrinfo);
    std::string lastError = "no address";
    for (addrinfo* a = found; a; a = a->ai_next) {
        utils::FileDescriptor socket(::socket(a->ai_family, a->ai_socktype | SOCK_CLOEXEC | SOCK_NONBLOCK, a->ai_protocol),
                                     utils::FileDescriptor::Closer::system);
        if (!socket)
            continue;
        const int fd = socket.get();
        if (::connect(fd, a->ai_addr, a->ai_addrlen) < 0 && errno == EINPROGRESS) {
            pollfd p{fd, POLLOUT, 0};
            int error = ETIMEDOUT;
            socklen_t size = sizeof error;
            if (::poll(&p, 1, static_cast<int>(timeout.count())) == 1)
                ::getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &size);
            errno = error;
        } else {
            errno = 0;
        }
        if (errno == 0) {
            int flags = 1;
            ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &flags, sizeof flags);
            fd_ = std::move(socket);
            return;
        }
        lastError = std::strerror(errno);
    }
    throw std::runtime_error("cannot connect to " + host + ":" + std::to_string(port) + ": " +
                             lastError);
}


void Connection::sendAll(const void* data, size_t length)
{
    auto bytes = static_cast<const char*>(data);
    while (length > 0) {
        ssize_t n = ::send(fd_.get(), bytes, length, MSG_NOSIGNAL);
        if (n < 0) {
            if (errno == EAGAIN || errno == EINTR) {
                pollfd p{fd_.get(), POLLOUT, 0};
                ::poll(&p, 1, 1000);
                continue;
            }
            failWith("send failed");
        }
        bytes += n;
        length -= static_cast<size_t>(n);
    }
}

void Connection::readExactly(void* data, size_t length, Milliseconds timeout)
{
    auto deadline = Clock::now() + timeout;
    auto bytes = static_cast<char*>(data);
    while (length > 0) {
        ssize_t n = ::recv(fd_.get(), bytes, length, 0);
        if (n > 0) {
            bytes += n;
            length -= static_cast<size_t>(n);
            continue;
        }
        if (n == 0)
            throw std::runtime_error("the daemon closed the connection");
        if (errno != EAGAIN && errno != EINTR)
            failWith("receive failed");
        pollfd p{fd_.get(), POLLIN, 0};
        int left = remainingMs(deadline);
        if (left == 0 || ::poll(&p, 1, left) == 0)
            throw std::runtime_error("timed out waiting for the daemon");
    }
}

bool Connection::peerClosed(Milliseconds wait)
{
    pollfd p{fd_.get(), POLLIN, 0};
    if (::poll(&p, 1, static_cast<int>(wait.count())) <= 0)
        return false;
    char byte;
    return ::recv(fd_.get(), &byte, 1, MSG_PEEK) == 0;
}

ControlClient::ControlClient(const std::string& host, uint16_t port) : connection_(host, port) {}

void ControlClient::send(const std::string& command) { sendRaw(command + "\r"); }

void ControlClient::sendRaw(const std::string& bytes) { connection_.sendAll(bytes.data(), bytes.size()); }

Message ControlClient::readMessage(Milliseconds timeout)
{
    using namespace utils::wire;
    std::string bytes(headerSize, '\0');
    connection_.readExactly(bytes.data(), bytes.size(), timeout);
    if (readWord(bytes, 0) != magic)
        throw std::runtime_error("unexpected bytes on the control socket (no frame magic)");
    uint32_t total = readWord(bytes, lengthOffset);
    constexpr uint32_t largest = 64u << 20;
    if (total < headerSize + 4 || total > largest)
        throw std::runtime_error("implausible frame length " + std::to_string(total));
    bytes.resize(total);
    connection_.readExactly(bytes.data() + headerSize, total - headerSize, timeout);
    return Message{readWord(bytes, kindOffset), std::move(bytes)};
}

Notice ControlClient::readNotice(Milliseconds timeout)
{
    Message message = readMessage(timeout);
    if (message.kind != utils::wire::ackKind)
        throw std::runtime_error("expected a notice, got a message of another kind");
    std::string text = unpackFrame(message.bytes);
    auto notice = parseNotice(text);
    if (!notice)
        throw std::runtime_error("notice text not understood: " + text);
    return *notice;
}

Notice ControlClient::command(const std::string& command, Milliseconds timeout)
{
    send(command);
    auto deadline = Clock::now() + timeout;
    for (;;) {
        Notice notice = readNotice(Milliseconds(remainingMs(deadline)));
        if (notice.isAcknowledgement())
            return notice;
        unsolicited_.push_back(std::move(notice));
    }
}

} // namespace k52client
