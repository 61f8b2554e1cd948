// The daemon end to end: start-up, the control channel's framing, acknowledgement frames,
// clients that misbehave, and shutdown.
#include "client/connection.h"
#include "client/notice.h"
#include "support/bytes.h"
#include "support/daemonprocess.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <syslog.h>
#include <zlib.h>

#include <sys/resource.h>
#include <sys/stat.h>

#include <csignal>
#include <cstring>
#include <filesystem>
#include <regex>

using k52client::ControlClient;
using k52client::Milliseconds;
using k52test::DaemonProcess;

namespace {

using k52test::word;

// One daemon shared by the tests that leave it as they found it.
class Daemon : public ::testing::Test {
protected:
    static void SetUpTestSuite() { daemon = std::make_unique<DaemonProcess>(); }
    static void TearDownTestSuite() { daemon.reset(); }

    ControlClient connect() { return ControlClient("127.0.0.1", daemon->config().controlPort()); }

    static std::unique_ptr<DaemonProcess> daemon;
};
std::unique_ptr<DaemonProcess> Daemon::daemon;

TEST_F(Daemon, AcknowledgementFrameIsExactOnTheWire)
{
    auto client = connect();
    client.send("help");
    k52client::Message message = client.readMessage(Milliseconds(5000));
    const std::string& frame = message.bytes;
    size_t n = frame.size() - 20;
    EXPECT_EQ(word(frame, 0), 0x0510FFFFu);
    EXPECT_EQ(word(frame, 4), frame.size());
    EXPECT_EQ(word(frame, 8), 0x052A1001u);
    EXPECT_EQ(word(frame, 12), 8 + n);
    EXPECT_EQ(frame[16 + n - 1], '\0');
    uLong crc = crc32(0, reinterpret_cast<const Bytef*>(frame.data()), static_cast<uInt>(16 + n));
    EXPECT_EQ(word(frame, 16 + n), static_cast<uint32_t>(crc));

    std::string text(frame.data() + 16);
    char host[256] = {};
    ::gethostname(host, sizeof host);
    std::regex shape(std::string(R"(<font color=#121212>\[\d\d-\d\d-\d\d \d\d:\d\d:\d\d\] k52app-v1\.3\.1@)") +
                     host + R"( <\\font><font color=#788a3d>OK : \d+ routes:.*<\\font>)");
    EXPECT_TRUE(std::regex_match(text, shape)) << text;
}

TEST_F(Daemon, ChannelFramingRules)
{
    auto client = connect();
    // Only the first command of a payload runs; the rest of the payload is dropped.
    client.sendRaw("help\rNope\r\n");
    auto first = client.readNotice(Milliseconds(5000));
    EXPECT_EQ(first.status(), "OK");
    // A payload without a carriage return and an empty command are dropped with a warning.
    client.sendRaw("help");
    ASSERT_TRUE(daemon->waitForRecord("CTRL client: No Delimiter in the command='help'"));
    client.sendRaw("\r");
    ASSERT_TRUE(daemon->waitForRecord("-- skipping empty command."));
    // Nothing of the above produced an acknowledgement: the next one answers the next command.
    auto next = client.command("help NoSuchRoute");
    EXPECT_EQ(next.status(), "Error");
    EXPECT_EQ(next.reply(), "help: unknown route 'NoSuchRoute'.");
    EXPECT_TRUE(client.unsolicited().empty());
}

TEST_F(Daemon, DispatchErrorsAreRedNotices)
{
    struct Case {
        const char* command;
        const char* text;
    };
    const Case cases[] = {
        {"NoSuchRoute 1 2", "Unknown route 'NoSuchRoute'. Send \"help\" for the list of routes."},
        {"\x01\x02\xff garbage", "Unknown route '\x01\x02\xff'. Send \"help\" for the list of routes."},
    };
    auto client = connect();
    for (const auto& c : cases) {
        SCOPED_TRACE(c.command);
        auto notice = client.command(c.command);
        EXPECT_EQ(notice.color, 0xC81919u);
        EXPECT_EQ(notice.status(), "Error");
        EXPECT_NE(notice.reply().find(c.text), std::string::npos) << notice.reply();
    }
}

TEST_F(Daemon, HostileInputLeavesTheChannelServing)
{
    {
        auto client = connect();
        client.sendRaw(std::string(1 << 20, 'x')); // a megabyte without a carriage return
        client.sendRaw(std::string("\0\0\0\r", 4));
        client.sendRaw("\r\r\r");
        // The megabyte's last part and the NULs up to the carriage return make one command: wait
        // for its error notice (a slow or emulated machine takes a while over the megabyte),
        // then let any other notice arrive before asking again.
        EXPECT_EQ(client.readNotice(Milliseconds(10000)).status(), "Error");
        for (;;) {
            try {
                client.readNotice(Milliseconds(300));
            } catch (const std::runtime_error&) {
                break;
            }
        }
        EXPECT_EQ(client.command("help").status(), "OK");
    }
    // Clients that connect and vanish, with and without a command in flight.
    for (int i = 0; i < 3; ++i) {
        auto client = connect();
        if (i == 1)
            client.send("help");
    }
    auto client = connect();
    EXPECT_EQ(client.command("help").status(), "OK");
}

TEST_F(Daemon, SecondClientIsServedWhenTheFirstLeaves)
{
    auto first = std::make_unique<ControlClient>(connect());
    EXPECT_EQ(first->command("help").status(), "OK");
    ControlClient second = connect(); // waits in the backlog
    second.send("help");
    EXPECT_THROW(second.readNotice(Milliseconds(500)), std::runtime_error);
    first.reset();
    EXPECT_EQ(second.readNotice(Milliseconds(5000)).status(), "OK");
}

// With no descriptor to spare, waiting for and accepting clients fail at once: each channel
// must pause between attempts rather than flood the log and the control socket's group.
TEST_F(Daemon, AcceptFailuresAreRetriedAfterAPause)
{
#ifdef __SANITIZE_ADDRESS__
    // UBSan's type check opens a pipe to probe memory; with no descriptor left it fails every throw.
    GTEST_SKIP() << "the sanitizers' own checks need free descriptors";
#endif
    rlimit previous{};
    ASSERT_EQ(::prlimit(daemon->pid(), RLIMIT_NOFILE, nullptr, &previous), 0);
    const rlimit none{0, previous.rlim_max};
    ASSERT_EQ(::prlimit(daemon->pid(), RLIMIT_NOFILE, &none, nullptr), 0);
    long at = static_cast<long>(daemon->records().size()) - 1;
    ControlClient client = connect();
    std::this_thread::sleep_for(std::chrono::seconds(1));
    size_t failures = 0;
    while ((at = daemon->findRecord(">: Something went wrong in accepting connection", at + 1)) >= 0)
        ++failures;
    ASSERT_EQ(::prlimit(daemon->pid(), RLIMIT_NOFILE, &previous, nullptr), 0);
    EXPECT_GE(failures, 1u);
    EXPECT_LE(failures, 30u); // about one per 100 ms on each channel
    EXPECT_EQ(client.command("help").status(), "OK");
}

TEST(DaemonLifecycle, StartUpRecordsFollowTheThreadBudget)
{
    K52_SKIP_ON_REAL_KERNEL("the processor count it reports");
    struct Case {
        const char* cpus;
        const char* budget;
        const char* workers;
        bool warned;
    };
    const Case cases[] = {
        {"2", "Core: initialized with 4 threads.", "Core: spinner workers count = 1", true},
        {"8", "Core: initialized with 8 threads.", "Core: spinner workers count = 5", false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.cpus);
        DaemonProcess daemon({{"emulated-hardware-concurrency", std::string(c.cpus)}});
        ASSERT_TRUE(daemon.waitForRecord("Core: started."));
        // The configuration dump is left in the log buffer: it heads the next record.
        long head = daemon.findRecord("Configuration file: {");
        ASSERT_GE(head, 0);
        EXPECT_TRUE(std::regex_search(daemon.records()[head].text, std::regex(R"(\n\}\n\[.*:\d+:\w+\] )")))
            << daemon.records()[head].text;
        EXPECT_GE(daemon.findRecord("Hardware max concurrency: " + std::string(c.cpus)), head);
        EXPECT_EQ(daemon.findRecord("Minimum number of required threads is 4.") >= 0, c.warned);
        long budget = daemon.findRecord(c.budget);
        long families = daemon.findRecord("Registring K52 Routes... ");
        long registered = daemon.findRecord("Registered K52 Routes.");
        long workers = daemon.findRecord(c.workers);
        EXPECT_TRUE(head < budget && budget < families && families < registered && registered < workers);
        size_t started = 0;
        for (const auto& r : daemon.records())
            started += r.text.find(": Started.") != std::string::npos;
        EXPECT_EQ(std::to_string(started), std::string(c.workers).substr(std::string(c.workers).rfind(' ') + 1));
    }
}

TEST(DaemonLifecycle, SignalsStopGracefullyAndRemoveTheContainers)
{
    struct Case {
        int signal;
        const char* record;
        bool repeated; // a SIGTERM comes while the first signal's stop joins the threads
    };
    const Case cases[] = {{SIGTERM, "k52app: --SIGTERM received--", false},
                          {SIGINT, "k52app: --SIGINT received--", true}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.record);
        DaemonProcess daemon;
        auto client = ControlClient("127.0.0.1", daemon.config().controlPort());
        client.command("help");
        std::string dir = daemon.config().containerDir();
        ASSERT_TRUE(std::filesystem::exists(dir + "k52XMLContainer"));
        if (c.repeated) {
            // A one-second measurement keeps the worker busy, so the stop is still joining it
            // when the second signal comes.
            client.command("ToFSetIntegrationTime 1000000");
            client.send("ToFGetDistanceMatrix");
            ASSERT_TRUE(daemon.waitForRecord(":: Spinning ToFGetDistanceMatrix"));
            ::kill(daemon.pid(), c.signal);
            ASSERT_TRUE(daemon.waitForRecord("Core: terminating..."));
            std::this_thread::sleep_for(std::chrono::milliseconds(700));
            ::kill(daemon.pid(), SIGTERM);
        }
        ASSERT_EQ(c.repeated ? daemon.wait(std::chrono::seconds(10)) : daemon.stop(c.signal), 0);
        EXPECT_FALSE(std::filesystem::exists(dir + "k52XMLContainer"));
        EXPECT_FALSE(std::filesystem::exists(dir + "k52generalContainer"));
        long received = daemon.findRecord(c.record);
        long terminating = daemon.findRecord("Core: terminating...");
        long terminated = daemon.findRecord("Core: terminated.");
        long exiting = daemon.findRecord("exiting system gracefully...");
        ASSERT_GE(received, 0);
        EXPECT_TRUE(received < terminating && terminating < terminated && terminated < exiting);
        EXPECT_EQ(daemon.records()[received].priority, LOG_CRIT | LOG_USER);
        EXPECT_EQ(daemon.records()[exiting].priority, LOG_WARNING | LOG_USER);
    }
}

TEST(DaemonLifecycle, StartUpFailuresExitOne)
{
    // A second instance on the same containers must leave the first one's files alone.
    DaemonProcess first;
    const std::string containers = first.config().containerDir();
    auto inode = [&](const char* name) {
        struct stat info {};
        ::stat((containers + name).c_str(), &info);
        return info.st_ino;
    };
    const auto inodes = std::make_pair(inode("k52XMLContainer"), inode("k52generalContainer"));
    struct Case {
        k52test::EmulatedConfig::Overrides overrides;
        std::string reason;
    };
    const Case cases[] = {
        {{{"emulated-fault-open", std::string("/dev/video0")}}, "/dev/video0"},
        {{{"tof-path", std::nullopt}}, "map::at"},
        {{{"socket-stream", std::nullopt}}, "'socket-ctrl' or 'socket-ctrl' have invalid values"},
        {{{"container-path", containers}}, "Failed to lock file: " + containers + "k52app.lock"},
    };
    for (const auto& c : cases) {
        if (k52test::onRealKernel() && c.overrides.count("emulated-fault-open"))
            continue; // fault injection needs the emulated board
        EXPECT_THAT([&] { DaemonProcess daemon(c.overrides); },
                    testing::ThrowsMessage<std::runtime_error>(testing::AllOf(
                        testing::HasSubstr("k52app: start-up failed: "), testing::HasSubstr(c.reason))));
    }
    EXPECT_EQ(std::make_pair(inode("k52XMLContainer"), inode("k52generalContainer")), inodes);
    EXPECT_EQ(ControlClient("127.0.0.1", first.controlPort()).command("help").status(), "OK");
}

TEST(DaemonLifecycle, ServesActivatedSocketsByName)
{
    if (k52test::onRealKernel())
        GTEST_SKIP() << "the daemon starts at the first connection, and under the kernel VM's emulated "
                        "processor that takes longer than the client waits for its reply";
    DaemonProcess daemon(DaemonProcess::SocketActivation{});
    ControlClient client("127.0.0.1", daemon.controlPort());
    EXPECT_EQ(client.command("help").status(), "OK");
    EXPECT_TRUE(daemon.waitForRecord("K52ResourceManager: Using systemd for handling sockets."));
    k52client::Connection stream("127.0.0.1", daemon.streamPort());
    stream.sendAll("ping", 4); // only logged
    EXPECT_TRUE(daemon.waitForRecord("Received message: 'ping'."));
    EXPECT_EQ(daemon.stop(SIGTERM), 0);
}

TEST(DaemonLifecycle, HeartbeatFailureIsWarnedOnce)
{
    K52_SKIP_ON_REAL_KERNEL("fault injection");
    DaemonProcess daemon({{"emulated-fault-io", std::string("/dev/k52rtu")}});
    ASSERT_TRUE(daemon.waitForRecord("Core: started."));
    std::this_thread::sleep_for(std::chrono::milliseconds(3500)); // past a second period
    size_t warnings = 0;
    for (const auto& r : daemon.records())
        warnings += std::regex_search(r.text, std::regex(R"(\] Core:[^ ])"));
    EXPECT_EQ(warnings, 1u);
    EXPECT_EQ(daemon.stop(SIGTERM), 0);
}

} // namespace
