// The two ends that bench/run-frame-path.sh puts around every source of a frame stream, so that
// each source is read the same way:
//
//   frame_path_probe read PORT SECONDS [--verify] [--drain-idle-ms MS]
//       connects to 127.0.0.1:PORT, discards the first half second, then counts the bytes that
//       arrive in SECONDS and prints "<bytes> <seconds> <frames>" (frames only with --verify).
//       Plain: one large buffer, every recv discarded. --verify: the client library's frame
//       stream, which parses each frame message and checks its CRC, as a client application.
//       --drain-idle-ms: after the result, keep reading until nothing came for MS (so that a
//       stream can be stopped by command rather than by a vanished reader).
//   frame_path_probe send PORT BYTES
//       listens on 127.0.0.1:PORT, accepts one reader and sends the same BYTES-long message
//       from memory as fast as the socket takes it, until the reader goes.
//   frame_path_probe store PORT BYTES
//       the same, but each message is first stored as the daemon stores a frame: copied from
//       one of six source buffers in turn (the sensor's queue) into another in 64 KiB runs,
//       each checksummed, and sent in parts of 4 MiB as they are ready, the checksum last.
//       The limit of that order of work.
#include "client/framestream.h"
#include "core/middleware/capture.h"
#include "utils/base/crc.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;
constexpr size_t sensorBuffers = 6;
constexpr auto warmUp = std::chrono::milliseconds(500);

[[noreturn]] void fail(const std::string& what)
{
    throw std::runtime_error(what + ": " + std::strerror(errno));
}

class Descriptor {
public:
    explicit Descriptor(int fd = -1) : fd_(fd) {}
    Descriptor(Descriptor&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
    Descriptor& operator=(Descriptor&& other) noexcept
    {
        std::swap(fd_, other.fd_);
        return *this;
    }
    ~Descriptor()
    {
        if (fd_ >= 0)
            ::close(fd_);
    }
    int get() const { return fd_; }

private:
    int fd_;
};

sockaddr_in loopback(uint16_t port)
{
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(port);
    return address;
}

// Sources start listening on their own schedule: retried for up to ten seconds.
Descriptor connectTo(uint16_t port)
{
    const auto deadline = Clock::now() + std::chrono::seconds(10);
    for (;;) {
        Descriptor s(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
        const sockaddr_in address = loopback(port);
        if (::connect(s.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0)
            return s;
        if (Clock::now() > deadline)
            fail("connect to port " + std::to_string(port));
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
}

struct Count {
    uint64_t bytes = 0;
    uint64_t frames = 0;
    double seconds = 0;
};

// Calls `step` (which returns the bytes it consumed) through the warm-up, then for `seconds`.
template <typename Step>
Count measure(double seconds, Step&& step)
{
    const auto warmEnd = Clock::now() + warmUp;
    while (Clock::now() < warmEnd)
        step();
    Count count;
    const auto start = Clock::now();
    const auto end =
        start + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(seconds));
    auto now = start;
    while (now < end) {
        count.bytes += step();
        ++count.frames;
        now = Clock::now();
    }
    count.seconds = std::chrono::duration<double>(now - start).count();
    return count;
}

size_t receive(int fd, uint8_t* buffer, size_t size)
{
    for (;;) {
        const ssize_t n = ::recv(fd, buffer, size, 0);
        if (n > 0)
            return size_t(n);
        if (n < 0 && errno == EINTR)
            continue;
        if (n == 0)
            errno = ECONNRESET;
        fail("read");
    }
}

void drainUntilIdle(int fd, int idleMs)
{
    auto sink = std::make_unique_for_overwrite<uint8_t[]>(1 << 20);
    for (pollfd p{fd, POLLIN, 0}; ::poll(&p, 1, idleMs) == 1;)
        if (::recv(fd, sink.get(), 1 << 20, 0) <= 0)
            return;
}

int readMode(uint16_t port, double seconds, bool verify, int drainIdleMs)
{
    Count count;
    int fd = -1;
    std::unique_ptr<k52client::FrameStream> frames;
    Descriptor plain;
    if (verify) {
        // The daemon accepts a stream client on its own schedule; the stream only starts later.
        frames = std::make_unique<k52client::FrameStream>("127.0.0.1", port);
        fd = frames->connection().descriptor();
        count = measure(seconds, [&] { return frames->next(k52client::Milliseconds(10000)).messageSize; });
    } else {
        plain = connectTo(port);
        fd = plain.get();
        // Large enough that one recv can take all the socket holds.
        constexpr size_t size = 64 << 20;
        auto buffer = std::make_unique_for_overwrite<uint8_t[]>(size);
        count = measure(seconds, [&] { return receive(fd, buffer.get(), size); });
        count.frames = 0;
    }
    std::printf("%llu %.6f %llu\n", static_cast<unsigned long long>(count.bytes), count.seconds,
                static_cast<unsigned long long>(count.frames));
    std::fflush(stdout);
    if (drainIdleMs > 0)
        drainUntilIdle(fd, drainIdleMs);
    return 0;
}

void sendAll(int fd, const uint8_t* data, size_t length, int flags)
{
    for (size_t sent = 0; sent < length;) {
        const ssize_t n = ::send(fd, data + sent, length - sent, MSG_NOSIGNAL | flags);
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0)
            throw std::runtime_error("reader gone");
        sent += size_t(n);
    }
}

Descriptor acceptOne(uint16_t port)
{
    Descriptor listener(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    const int on = 1;
    ::setsockopt(listener.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    const sockaddr_in address = loopback(port);
    if (::bind(listener.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) < 0 ||
        ::listen(listener.get(), 1) < 0)
        fail("listen on port " + std::to_string(port));
    pollfd p{listener.get(), POLLIN, 0};
    if (::poll(&p, 1, 10000) != 1)
        fail("no reader within 10 s on port " + std::to_string(port));
    Descriptor client(::accept4(listener.get(), nullptr, nullptr, SOCK_CLOEXEC));
    if (client.get() < 0)
        fail("accept");
    return client;
}

int sendMode(uint16_t port, size_t bytes, bool store)
{
    const Descriptor client = acceptOne(port);
    // Zeroed: the pages exist before sending.
    auto message = std::make_unique<uint8_t[]>(bytes);
    // As many sources as the stream queues sensor buffers, taken in turn: a frame is not in
    // the cache when its copy begins.
    std::vector<std::unique_ptr<uint8_t[]>> sources;
    for (size_t i = 0; store && i < sensorBuffers; ++i)
        sources.push_back(std::make_unique<uint8_t[]>(bytes));
    constexpr size_t run = k52app::FrameArea::chunk;
    constexpr size_t part = k52app::FrameArea::sendRun;
    try {
        for (size_t index = 0;; ++index) {
            if (!store) {
                sendAll(client.get(), message.get(), bytes, 0);
                continue;
            }
            const size_t data = bytes - sizeof(uint32_t);
            uint32_t crc = 0;
            size_t unsent = 0;
            for (size_t done = 0; done < data; done += run) {
                const size_t length = std::min(run, data - done);
                std::memcpy(message.get() + done, sources[index % sensorBuffers].get() + done, length);
                crc = utils::CRCSum32(message.get() + done, length, ~crc);
                if (done + length - unsent >= part) {
                    sendAll(client.get(), message.get() + unsent, done + length - unsent, MSG_MORE);
                    unsent = done + length;
                }
            }
            std::memcpy(message.get() + data, &crc, sizeof crc);
            sendAll(client.get(), message.get() + unsent, bytes - unsent, 0);
        }
    } catch (const std::runtime_error&) {
        return 0; // the reader went: the round is over
    }
}

} // namespace

int main(int argc, char** argv)
{
    try {
        const std::string mode = argc > 1 ? argv[1] : "";
        if (mode == "read" && argc >= 4) {
            bool verify = false;
            int drainIdleMs = 0;
            for (int i = 4; i < argc; ++i) {
                const std::string option = argv[i];
                if (option == "--verify")
                    verify = true;
                else if (option == "--drain-idle-ms" && i + 1 < argc)
                    drainIdleMs = std::stoi(argv[++i]);
                else
                    throw std::runtime_error("unknown option " + option);
            }
            return readMode(static_cast<uint16_t>(std::stoul(argv[2])), std::stod(argv[3]), verify,
                            drainIdleMs);
        }
        if ((mode == "send" || mode == "store") && argc == 4)
            return sendMode(static_cast<uint16_t>(std::stoul(argv[2])), std::stoull(argv[3]),
                            mode == "store");
        std::fprintf(stderr, "usage: frame_path_probe read PORT SECONDS [--verify] [--drain-idle-ms MS]\n"
                             "       frame_path_probe send|store PORT BYTES\n");
        return 2;
    } catch (const std::exception& e) {
        std::fprintf(stderr, "frame_path_probe: %s\n", e.what());
        return 1;
    }
}
