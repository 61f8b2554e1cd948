#include "client/connection.h"
#include "utils/base/exceptions.h"
#include "utils/net/tcpsocket.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
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

} // namespace
