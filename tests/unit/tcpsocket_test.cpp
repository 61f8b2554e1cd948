#include "utils/base/exceptions.h"
#include "utils/net/tcpsocket.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

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
    void send(const std::string& text) { ASSERT_EQ(::write(fd_, text.data(), text.size()), ssize_t(text.size())); }
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

TEST(TCPSocket, ServesACommandAndAnswersWithEveryByteWithinBoundedWaits)
{
    TCPSocket socket; // assigned later, as the daemon does once it knows its ports
    socket = listeningOnLoopback();
    const auto expectBoundedWait = [](auto call, std::chrono::milliseconds bound) {
        const auto start = std::chrono::steady_clock::now();
        EXPECT_THROW(call(), utils::UtilsTimeoutException);
        const auto waited = std::chrono::steady_clock::now() - start;
        EXPECT_GE(waited, bound - 5ms);
        EXPECT_LT(waited, 1s);
    };
    expectBoundedWait([&] { socket.acceptConnection(); }, TCPSocket::acceptTimeout);
    Client client(socket.localPort());
    int fd = acceptWithin(socket);
    ASSERT_GE(fd, 0);
    expectBoundedWait([&] { socket.receive(fd); }, TCPSocket::receiveTimeout);
    {
        // One client at a time: a refused accept and a stale descriptor (which the system may
        // already have reused) leave the current client alone.
        Client second(socket.localPort());
        std::this_thread::sleep_for(20ms);
        EXPECT_THROW(socket.acceptConnection(), utils::UtilsRuntimeError);
        socket.close(fd + 1000);
        EXPECT_THROW(socket.receive(fd + 1000), utils::UtilsRuntimeError);
        EXPECT_EQ(socket.client(), fd);
    }

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

    // The last command is still read after the peer leaves; then the close reads as empty.
    client.send("GetRTUFPS\r");
    client.close();
    std::this_thread::sleep_for(20ms);
    EXPECT_FALSE(socket.isClosed(fd)) << "the last command is still unread";
    EXPECT_EQ(receiveSomething(socket, fd), "GetRTUFPS\r");
    EXPECT_EQ(socket.receive(fd), "");
    EXPECT_TRUE(socket.isClosed(fd));
    socket.close(fd);
    EXPECT_EQ(socket.client(), -1);
}

TEST(TCPSocket, SendingToAVanishedClientThrowsInsteadOfKillingTheProcess)
{
    TCPSocket socket = listeningOnLoopback();
    Client client(socket.localPort());
    int fd = acceptWithin(socket);
    client.reset();
    std::this_thread::sleep_for(20ms);
    std::vector<char> frame(1 << 20, 'x');
    EXPECT_THAT(
        [&] {
            for (int attempt = 0; attempt < 10; ++attempt)
                socket.send(frame.data(), frame.size());
        },
        testing::ThrowsMessage<utils::IOError>(testing::HasSubstr("127.0.0.1")));
    EXPECT_TRUE(socket.isClosed(fd)) << "the serving loop must see the client gone";
}

TEST(TCPSocket, MisuseAndSetupFailuresNameTheProblem)
{
    TCPSocket busy = listeningOnLoopback();
    TCPSocket idle;
    const std::pair<std::function<void()>, std::string> cases[] = {
        {[&] { idle.acceptConnection(); }, "not listening"},
        {[&] { busy.send("x", 1); }, "no client"},
        {[] { TCPSocket("300.1.1.1", 0).bindAndListen(2); }, "'300.1.1.1'"},
        {[&] { TCPSocket("127.0.0.1", busy.localPort()).bindAndListen(2); },
         "127.0.0.1:" + std::to_string(busy.localPort())},
        {[] { TCPSocket("ctrl"); }, "no activated socket named 'ctrl'"},
    };
    for (const auto& [call, text] : cases)
        EXPECT_THAT(call, testing::ThrowsMessage<utils::UtilsError>(testing::HasSubstr(text)));
}

// The daemon's own end-to-end suite serves activated sockets; here a forked child (so that this
// process's descriptors and environment stay untouched) checks that a second owner of one name
// has its own descriptor.
TEST(TCPSocket, EachOwnerOfAnActivatedSocketHasItsOwnDescriptor)
{
    const int listener = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{AF_INET, 0, {htonl(INADDR_LOOPBACK)}, {}};
    socklen_t length = sizeof address;
    ASSERT_EQ(::bind(listener, reinterpret_cast<sockaddr*>(&address), length), 0);
    ASSERT_EQ(::listen(listener, 2), 0);
    ::getsockname(listener, reinterpret_cast<sockaddr*>(&address), &length);
    const uint16_t port = ntohs(address.sin_port);
    const pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        try {
            ::dup2(listener, 3);
            ::setenv("LISTEN_PID", std::to_string(::getpid()).c_str(), 1);
            ::setenv("LISTEN_FDS", "1", 1);
            ::setenv("LISTEN_FDNAMES", "stream", 1);
            TCPSocket activated("stream");
            { TCPSocket again("stream"); }
            Client client(port);
            client.send("hello");
            const bool served = receiveSomething(activated, acceptWithin(activated)) == "hello";
            ::_exit(activated.localPort() == port && served ? 0 : 1);
        } catch (...) {
            ::_exit(2);
        }
    }
    ::close(listener);
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "1 not served, 2 threw";
}

} // namespace
