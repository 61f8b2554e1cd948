#include "utils/log/logrecord.h"
#include "utils/log/printfunc.h"
#include "utils/log/syslogstream.h"
#include "support/syslogcapture.h"

#include <gtest/gtest.h>
#include <syslog.h>

#include <thread>

using k52test::SyslogCapture;

namespace {

// Works the global stream under its lock, as the daemon's writers do.
template <typename Use>
void withLog(Use use)
{
    std::lock_guard lock(k52app::log.mutex);
    use(k52app::log);
}

// Leaves the global stream as the daemon starts it, whatever a test did.
class SyslogStreamTest : public ::testing::Test {
protected:
    void TearDown() override { withLog([](auto& log) { log << k52app::user << k52app::info; log.flush(); }); }
};

// Each change of severity or facility reopens the connection, without an ident.
TEST_F(SyslogStreamTest, FlushSendsOneRecordWithSeverityAndFacility)
{
    SyslogCapture capture;
    withLog([](auto& log) { log << k52app::warn << k52app::daemon << k52app::crit << "abc" << std::endl; });
    const auto records = capture.records();
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(std::tie(records[0].priority, records[0].text, records[0].format),
              std::tuple(LOG_CRIT | LOG_DAEMON, "abc\n", "%s"));
    const auto calls = capture.calls();
    ASSERT_EQ(calls.size(), 6u);
    using enum k52test::SyslogCall::Kind;
    EXPECT_EQ(std::tie(calls[0].kind, calls[1].kind, calls[1].ident, calls[1].option),
              std::tuple(close, open, "", LOG_PID));
    EXPECT_EQ(calls[5].facility, LOG_CRIT | LOG_DAEMON);
}

// A record's line number stays decimal whatever the previous record left in the stream; an
// unflushed record waits for the next; an empty flush still sends one; the drivers' print
// function logs at debug.
TEST_F(SyslogStreamTest, RecordsCarryTheirOwnPrefixAndFlushOnlyWhenAsked)
{
    SyslogCapture capture;
    withLog([](auto& log) { log << std::hex; });
    K52_LOG(warn) << "value " << std::hex << 255;
    const int line = __LINE__ - 1;
    K52_LOG_UNFLUSHED(err) << "kept";
    K52_LOG(info) << "next";
    withLog([](auto& log) { log.flush(); });
    k52app::printFunc("from the driver");
    auto records = capture.records();
    ASSERT_EQ(records.size(), 4u);
    EXPECT_TRUE(records[0].text.ends_with(":" + std::to_string(line) + ":TestBody] value ff\n")) << records[0].text;
    EXPECT_EQ(records[0].priority, LOG_WARNING | LOG_USER);
    EXPECT_NE(records[1].text.find("] kept["), std::string::npos) << records[1].text;
    EXPECT_EQ(records[1].priority, LOG_INFO | LOG_USER);
    EXPECT_EQ(records[2].text, "");
    EXPECT_EQ(records[3].priority, LOG_DEBUG | LOG_USER);
    EXPECT_TRUE(records[3].text.ends_with("] from the driver\n")) << records[3].text;
}

TEST_F(SyslogStreamTest, ConcurrentRecordsNeverInterleave)
{
    SyslogCapture capture;
    constexpr int perThread = 200;
    auto writer = [](char tag) {
        for (int i = 0; i < perThread; ++i)
            K52_LOG(info) << std::string(40, tag);
    };
    std::thread a(writer, 'a'), b(writer, 'b');
    a.join();
    b.join();
    auto records = capture.records();
    ASSERT_EQ(records.size(), 2u * perThread);
    for (const auto& r : records) {
        auto body = r.text.substr(r.text.find("] ") + 2);
        EXPECT_TRUE(body == std::string(40, 'a') + "\n" || body == std::string(40, 'b') + "\n") << body;
    }
}

} // namespace
