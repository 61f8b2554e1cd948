#include "utils/base/exceptions.h"
#include "utils/net/tcpsocket.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fcntl.h>

#include <chrono>
#include <cstdlib>
#include <functional>
#include <numeric>
#include <thread>
#include <vector>

using utils::TCPSocket;
using namespace std::chrono_literals;

namespace {

// The client side of a loopback connection: plain POSIX, independent of the code under test.
class Client {
public:
    explicit Client(uint16_t port) : fd_(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0))
    {
        sockaddr_in address{AF_INET, htons(port), {htonl(INADDR_LOOPBACK)}, {}};
        if (::connect(fd_, reinterpret_cast<sockaddr*>(&address), sizeof address) < 0)
            ADD_FAILURE() << "connect to port " << port << " failed";
    }
    ~Client() { close(); }

    void send(const std::string& text)
    {
        ASSERT_EQ(::write(fd_, text.data(), text.size()), ssize_t(text.size()));
    }
    std::vector<char> readExactly(size_t length)
    {
        std::vector<char> data(length);
        size_t got = 0;
        for (ssize_t n; got < length && (n = ::read(fd_, data.data() + got, length - got)) > 0;)
            got += size_t(n);
        data.resize(got);
        return data;
    }
    // Closing with a zero linger resets the connection, as a crashed client does.
    void reset()
    {
        linger abort{1, 0};
        ::setsockopt(fd_, SOL_SOCKET, SO_LINGER, &abort, sizeof abort);
        close();
    }
    void close() { ::close(std::exchange(fd_, -1)); }

private:
    int fd_;
};

TCPSocket listeningOnLoopback()
{
    TCPSocket socket("127.0.0.1", 0);
    socket.bindAndListen(2);
    return socket;
}

template <typename Call>
std::chrono::milliseconds timeToTimeout(Call call)
{
    auto start = std::chrono::steady_clock::now();
    EXPECT_THROW(call(), utils::UtilsTimeoutException);
    return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - start);
}

// Retries `call` past its bounded waits; a test must not depend on the first wait being enough.
template <typename Call>
auto withinAttempts(Call call) -> decltype(call())
{
    for (int attempt = 0; attempt < 40; ++attempt) {
        try {
            return call();
        } catch (const utils::UtilsTimeoutException&) {
        }
    }
    ADD_FAILURE() << "nothing arrived";
    return {};
}

std::string receiveSomething(TCPSocket& socket, int client)
{
    return withinAttempts([&] { return socket.receive(client); });
}

int acceptWithin(TCPSocket& socket)
{
    return withinAttempts([&] { return socket.acceptConnection(); });
}

} // namespace

TEST(TCPSocket, ServesACommandAndAnswersWithEveryByteWithinBoundedWaits)
{
    TCPSocket socket; // assigned later, as the daemon does once it knows its ports
    socket = listeningOnLoopback();
    const auto acceptWait = timeToTimeout([&] { socket.acceptConnection(); });
    EXPECT_GE(acceptWait, TCPSocket::acceptTimeout - 5ms);
    EXPECT_LT(acceptWait, 1s);
    Client client(socket.localPort());
    int fd = acceptWithin(socket);
    const auto receiveWait = timeToTimeout([&] { socket.receive(fd); });
    EXPECT_GE(receiveWait, TCPSocket::receiveTimeout - 5ms);
    EXPECT_LT(receiveWait, 1s);
    ASSERT_GE(fd, 0);
    EXPECT_EQ(socket.client(), fd);
    EXPECT_FALSE(socket.isClosed(fd));

    client.send("help\r\n");
    EXPECT_EQ(receiveSomething(socket, fd), "help\r\n");

    // Larger than any socket buffer, so send() must loop over partial writes.
    std::vector<char> frame(8 << 20);
    std::iota(frame.begin(), frame.end(), 0);
    std::vector<char> received;
    std::thread reader([&] { received = client.readExactly(frame.size()); });
    socket.send(frame.data(), frame.size());
    reader.join();
    EXPECT_EQ(received, frame);
}

TEST(TCPSocket, PeerThatLeavesIsSeenOnlyAfterItsLastBytes)
{
    TCPSocket socket = listeningOnLoopback();
    Client client(socket.localPort());
    int fd = acceptWithin(socket);

    client.send("GetRTUFPS\r");
    client.close();
    std::this_thread::sleep_for(20ms);
    EXPECT_FALSE(socket.isClosed(fd)) << "the last command is still unread";
    EXPECT_EQ(receiveSomething(socket, fd), "GetRTUFPS\r");
    EXPECT_EQ(socket.receive(fd), "") << "an orderly close reads as an empty payload";
    EXPECT_TRUE(socket.isClosed(fd));

    socket.close(fd);
    EXPECT_EQ(socket.client(), -1);
    EXPECT_TRUE(socket.isClosed(fd));
}

TEST(TCPSocket, SendingToAVanishedClientThrowsInsteadOfKillingTheProcess)
{
    TCPSocket socket = listeningOnLoopback();
    Client client(socket.localPort());
    int fd = acceptWithin(socket);
    client.reset();
    std::this_thread::sleep_for(20ms);

    std::vector<char> frame(1 << 20, 'x');
    bool failed = false;
    for (int attempt = 0; attempt < 10 && !failed; ++attempt) {
        try {
            socket.send(frame.data(), frame.size());
        } catch (const utils::IOError& error) {
            failed = true;
            EXPECT_NE(std::string(error.what()).find("127.0.0.1"), std::string::npos)
                << error.what();
        }
    }
    EXPECT_TRUE(failed);
    EXPECT_TRUE(socket.isClosed(fd)) << "the serving loop must see the client gone";
}

TEST(TCPSocket, ServesOneClientAtATime)
{
    TCPSocket socket = listeningOnLoopback();
    Client first(socket.localPort());
    int firstFd = acceptWithin(socket);
    Client second(socket.localPort()); // waits in the backlog
    std::this_thread::sleep_for(20ms);
    EXPECT_THROW(socket.acceptConnection(), utils::UtilsRuntimeError);
    EXPECT_EQ(socket.client(), firstFd) << "a refused accept leaves the current client alone";

    socket.close(firstFd);
    int secondFd = acceptWithin(socket);
    ASSERT_GE(secondFd, 0);
    second.send("next\r");
    EXPECT_EQ(receiveSomething(socket, secondFd), "next\r");

    // A stale descriptor (which the system may already have reused) touches nothing.
    socket.close(secondFd + 1000);
    EXPECT_EQ(socket.client(), secondFd);
    EXPECT_THROW(socket.receive(secondFd + 1000), utils::UtilsRuntimeError);
}

TEST(TCPSocket, MisuseAndSetupFailuresNameTheProblem)
{
    TCPSocket busy = listeningOnLoopback();
    const std::string busyPort = std::to_string(busy.localPort());

    struct Case {
        const char* name;
        std::function<void()> call;
        std::string expectedText;
    };
    TCPSocket idle;
    std::vector<Case> cases = {
        {"accept before listening", [&] { idle.acceptConnection(); }, "not listening"},
        {"send without client", [&] { busy.send("x", 1); }, "no client"},
        {"bad address", [] { TCPSocket("300.1.1.1", 0).bindAndListen(2); }, "'300.1.1.1'"},
        {"port in use", [&] { TCPSocket("127.0.0.1", busy.localPort()).bindAndListen(2); },
         "127.0.0.1:" + busyPort},
        {"not activated", [] { TCPSocket("ctrl"); }, "no activated socket named 'ctrl'"},
    };
    for (const auto& c : cases) {
        EXPECT_THAT(c.call, testing::ThrowsMessage<utils::UtilsError>(testing::HasSubstr(c.expectedText)))
            << c.name;
    }
}

// The service manager's side of socket activation, in plain POSIX: a listening socket on a free
// loopback port.
struct ManagerSocket {
    int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    uint16_t port = 0;
    ManagerSocket()
    {
        sockaddr_in address{AF_INET, 0, {htonl(INADDR_LOOPBACK)}, {}};
        socklen_t length = sizeof address;
        ::bind(fd, reinterpret_cast<sockaddr*>(&address), length);
        ::listen(fd, 2);
        ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length);
        port = ntohs(address.sin_port);
    }
    ~ManagerSocket() { ::close(fd); }
};

// Activated sockets arrive from descriptor 3 on, described by LISTEN_PID, LISTEN_FDS and
// LISTEN_FDNAMES. A forked child plays the activated daemon so that this process's own
// descriptors and environment stay untouched.
TEST(TCPSocket, TakesOverActivatedSocketsByName)
{
    ManagerSocket ctrl, stream;
    pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        enum Exit { ok = 0, wrongCtrl = 10, wrongStream, notServed, threw };
        try {
            ::dup2(::fcntl(ctrl.fd, F_DUPFD, 100), 3);
            ::dup2(::fcntl(stream.fd, F_DUPFD, 100), 4);
            ::setenv("LISTEN_PID", std::to_string(::getpid()).c_str(), 1);
            ::setenv("LISTEN_FDS", "2", 1);
            ::setenv("LISTEN_FDNAMES", "ctrl:stream", 1);

            // Looked up in the other order, and each object owns its own descriptor.
            TCPSocket activatedStream("stream");
            TCPSocket activatedCtrl("ctrl");
            if (activatedCtrl.localPort() != ctrl.port)
                ::_exit(wrongCtrl);
            if (activatedStream.localPort() != stream.port)
                ::_exit(wrongStream);
            { TCPSocket again("stream"); } // closing a second owner must not close the first
            Client client(stream.port);
            int fd = acceptWithin(activatedStream);
            client.send("hello");
            if (fd < 0 || receiveSomething(activatedStream, fd) != "hello")
                ::_exit(notServed);
            ::_exit(ok);
        } catch (...) {
            ::_exit(threw);
        }
    }
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 0) << "10 wrong ctrl, 11 wrong stream, 12 not served, 13 threw";
}
