#include "client/connection.h"
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
#include <optional>
#include <string_view>
#include <thread>
#include <vector>

using k52client::Connection;
using utils::TCPSocket;
using namespace std::chrono_literals;

namespace {

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

// Clients are the client library's connections, which share no code with the server side.
void send(Connection& client, std::string_view text) { client.sendAll(text.data(), text.size()); }

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
    std::optional<Connection> client(std::in_place, "127.0.0.1", socket.localPort());
    int fd = withinAttempts([&] { return socket.acceptConnection(); });
    ASSERT_GE(fd, 0);
    expectBoundedWait([&] { socket.receive(fd); }, TCPSocket::receiveTimeout);
    {
        // One client at a time: a refused accept and a stale descriptor (which the system may
        // already have reused) leave the current client alone.
        Connection second("127.0.0.1", socket.localPort());
        std::this_thread::sleep_for(20ms);
        EXPECT_THROW(socket.acceptConnection(), utils::UtilsRuntimeError);
        socket.close(fd + 1000);
        EXPECT_THROW(socket.receive(fd + 1000), utils::UtilsRuntimeError);
        EXPECT_EQ(socket.client(), fd);
    }

    send(*client, "help\r\n");
    EXPECT_EQ(withinAttempts([&] { return socket.receive(fd); }), "help\r\n");

    // A frame larger than any socket buffer arrives whole and in order.
    std::vector<char> frame(8 << 20);
    std::iota(frame.begin(), frame.end(), 0);
    std::vector<char> received(frame.size());
    std::thread reader([&] { EXPECT_NO_THROW(client->readExactly(received.data(), received.size(), 10s)); });
    socket.send(frame.data(), frame.size());
    reader.join();
    EXPECT_EQ(received, frame);

    // The last command is still read after the peer leaves; then the close reads as empty.
    send(*client, "GetRTUFPS\r");
    client.reset();
    std::this_thread::sleep_for(20ms);
    EXPECT_FALSE(socket.isClosed(fd)) << "the last command is still unread";
    EXPECT_EQ(withinAttempts([&] { return socket.receive(fd); }), "GetRTUFPS\r");
    EXPECT_EQ(socket.receive(fd), "");
    EXPECT_TRUE(socket.isClosed(fd));
    socket.close(fd);
    EXPECT_EQ(socket.client(), -1);
}

TEST(TCPSocket, SendingToAVanishedClientThrowsInsteadOfKillingTheProcess)
{
    TCPSocket socket = listeningOnLoopback();
    int fd = -1;
    {
        Connection client("127.0.0.1", socket.localPort());
        fd = withinAttempts([&] { return socket.acceptConnection(); });
        linger abort{1, 0}; // a zero linger resets the connection, as a crashed client does
        ::setsockopt(client.descriptor(), SOL_SOCKET, SO_LINGER, &abort, sizeof abort);
    }
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
        // An exception ends the child with an abort, which the parent reports as a failure.
        ::dup2(listener, 3);
        ::setenv("LISTEN_PID", std::to_string(::getpid()).c_str(), 1);
        ::setenv("LISTEN_FDS", "1", 1);
        ::setenv("LISTEN_FDNAMES", "stream", 1);
        TCPSocket activated("stream");
        { TCPSocket again("stream"); }
        Connection client("127.0.0.1", port);
        send(client, "hello");
        const int fd = withinAttempts([&] { return activated.acceptConnection(); });
        const bool served = withinAttempts([&] { return activated.receive(fd); }) == "hello";
        ::_exit(activated.localPort() == port && served ? 0 : 1);
    }
    ::close(listener);
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "the child was not served";
}

} // namespace
