// The command path of the real daemon on the emulated board: round-trip time of a simple
// command, where that time goes, CPU used while idle with a client connected, time from start
// to listening and from SIGTERM to exit. Prints its figures; run on demand.
#include "client/connection.h"
#include "core/middleware/ackreport.h"
#include "support/daemonprocess.h"
#include "support/routerharness.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <fstream>
#include <numeric>
#include <sstream>
#include <thread>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;
using Micros = std::chrono::duration<double, std::micro>;

struct Summary {
    double p50, p99, mean;
};

Summary summarize(std::vector<double> samples)
{
    std::sort(samples.begin(), samples.end());
    auto at = [&](double q) { return samples[static_cast<size_t>(q * (samples.size() - 1))]; };
    double mean = std::accumulate(samples.begin(), samples.end(), 0.0) / samples.size();
    return {at(0.5), at(0.99), mean};
}

void print(const char* what, const Summary& s, const char* unit)
{
    std::printf("  %-58s p50 %10.1f  p99 %10.1f  mean %10.1f %s\n", what, s.p50, s.p99, s.mean, unit);
}

double cpuSeconds(pid_t pid)
{
    std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
    std::string text((std::istreambuf_iterator<char>(stat)), {});
    std::istringstream fields(text.substr(text.rfind(')') + 2));
    std::string field;
    unsigned long utime = 0, stime = 0;
    for (int i = 3; i <= 15 && fields >> field; ++i) {
        if (i == 14)
            utime = std::stoul(field);
        if (i == 15)
            stime = std::stoul(field);
    }
    return static_cast<double>(utime + stime) / static_cast<double>(::sysconf(_SC_CLK_TCK));
}

// The same-run reference: a request/answer of the same sizes over loopback with nothing in
// between (one thread echoes 4 KiB-frame-sized answers).
std::vector<double> loopbackRoundTrips(int count, size_t answerSize)
{
    int listener = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address;
    ::bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof address);
    ::listen(listener, 1);
    ::getsockname(listener, reinterpret_cast<sockaddr*>(&address), &size);
    std::thread server([&] {
        int peer = ::accept(listener, nullptr, nullptr);
        int one = 1;
        ::setsockopt(peer, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
        std::vector<char> answer(answerSize, 'a');
        char request[64];
        for (int i = 0; i < count; ++i) {
            if (::recv(peer, request, sizeof request, 0) <= 0)
                break;
            ::send(peer, answer.data(), answer.size(), MSG_NOSIGNAL);
        }
        ::close(peer);
    });
    k52client::Connection client("127.0.0.1", ntohs(address.sin_port));
    std::vector<char> answer(answerSize);
    std::vector<double> samples;
    for (int i = 0; i < count; ++i) {
        auto start = Clock::now();
        client.sendAll("GetRTUFPS\r", 10);
        client.readExactly(answer.data(), answer.size(), std::chrono::milliseconds(2000));
        samples.push_back(Micros(Clock::now() - start).count());
    }
    server.join();
    ::close(listener);
    return samples;
}

} // namespace

int main(int argc, char** argv)
{
    int commands = argc > 1 ? std::atoi(argv[1]) : 500;
    int idleSeconds = argc > 2 ? std::atoi(argv[2]) : 30;
    std::printf("k52app command path (emulated board, %u hardware threads)\n",
                std::thread::hardware_concurrency());

    // In-process costs: the route itself and the acknowledgement's formatting.
    std::string route = "GetRTUFPS";
    {
        k52test::RouterHarness harness;
        if (harness.run(route).first != "OK")
            route = "help";
        std::vector<double> handler, format;
        for (int i = 0; i < 2000; ++i) {
            auto start = Clock::now();
            auto spinner = harness.router->dispatch(route);
            auto reply = spinner.spin();
            auto middle = Clock::now();
            auto text = k52app::AckReport::formatNotice(k52app::AckReport::Olive, reply.first + " : " + reply.second);
            handler.push_back(Micros(middle - start).count());
            format.push_back(Micros(Clock::now() - middle).count());
        }
        std::printf("\nwhere the time of one command goes (route \"%s\"):\n", route.c_str());
        print("dispatch + route handler (in process)", summarize(handler), "us");
        print("acknowledgement text (in process)", summarize(format), "us");
    }
    print("loopback request/4 KiB answer, nothing in between (reference)",
          summarize(loopbackRoundTrips(commands, 200)), "us");

    auto launchStart = Clock::now();
    k52test::DaemonProcess daemon;
    double startup = std::chrono::duration<double, std::milli>(Clock::now() - launchStart).count();

    {
        k52client::ControlClient client("127.0.0.1", daemon.controlPort());
        client.command(route); // first command: connection accepted and served
        std::vector<double> samples;
        for (int i = 0; i < commands; ++i) {
            auto start = Clock::now();
            auto ack = client.command(route);
            samples.push_back(std::chrono::duration<double, std::milli>(Clock::now() - start).count());
            if (ack.status() != "OK")
                std::printf("unexpected status %s\n", ack.status().c_str());
        }
        std::printf("\nround trip of \"%s\" through the daemon, %d commands one at a time:\n",
                    route.c_str(), commands);
        print("send command -> acknowledgement received", summarize(samples), "ms");

        double before = cpuSeconds(daemon.pid());
        auto idleStart = Clock::now();
        std::this_thread::sleep_for(std::chrono::seconds(idleSeconds));
        double cpu = cpuSeconds(daemon.pid()) - before;
        double wall = std::chrono::duration<double>(Clock::now() - idleStart).count();
        std::printf("\nidle with a client connected for %.0f s: %.3f s CPU (%.2f %% of one core)\n", wall,
                    cpu, 100.0 * cpu / wall);
    }

    std::printf("\nstart to listening: %.0f ms\n", startup);
    auto stopStart = Clock::now();
    int status = daemon.stop(SIGTERM);
    std::printf("SIGTERM to exit: %.0f ms (exit status %d)\n",
                std::chrono::duration<double, std::milli>(Clock::now() - stopStart).count(), status);
    return 0;
}
