#include "k52app/logrecord.h"
#include "k52app/printfunc.h"
#include "k52app/syslogstream.h"
#include "support/syslogcapture.h"

#include <gtest/gtest.h>
#include <syslog.h>

#include <regex>
#include <thread>

using k52test::SyslogCapture;

namespace {

// Leaves the global stream as the daemon starts it, whatever a test did.
class SyslogStreamTest : public ::testing::Test {
protected:
    void TearDown() override
    {
        std::lock_guard lock(k52app::log.mutex);
        k52app::log << k52app::user << k52app::info;
        k52app::log.flush();
    }
};

TEST_F(SyslogStreamTest, FlushSendsOneRecordWithSeverityAndFacility)
{
    struct Case {
        k52app::SyslogSeverity severity;
        k52app::SyslogFacility facility;
        int priority;
    };
    const Case cases[] = {
        {k52app::debug, k52app::user, LOG_DEBUG | LOG_USER},
        {k52app::err, k52app::user, LOG_ERR | LOG_USER},
        {k52app::crit, k52app::daemon, LOG_CRIT | LOG_DAEMON},
        {k52app::warn, k52app::local7, LOG_WARNING | LOG_LOCAL7},
        {k52app::emerg, k52app::kern, LOG_EMERG | LOG_KERN},
        {k52app::notice, k52app::authpriv, LOG_NOTICE | LOG_AUTHPRIV},
    };
    for (const auto& c : cases) {
        SyslogCapture capture;
        {
            std::lock_guard lock(k52app::log.mutex);
            k52app::log << c.facility << c.severity << "abc" << std::endl;
        }
        auto records = capture.records();
        ASSERT_EQ(records.size(), 1u);
        EXPECT_EQ(records[0].priority, c.priority);
        EXPECT_EQ(records[0].text, "abc\n");
        EXPECT_EQ(records[0].format, "%s");
    }
}

TEST_F(SyslogStreamTest, SeverityChangeReopensWithoutIdent)
{
    SyslogCapture capture;
    {
        std::lock_guard lock(k52app::log.mutex);
        k52app::log << k52app::warn;
    }
    auto calls = capture.calls();
    ASSERT_EQ(calls.size(), 2u);
    EXPECT_EQ(calls[0].kind, k52test::SyslogCall::Kind::close);
    EXPECT_EQ(calls[1].kind, k52test::SyslogCall::Kind::open);
    EXPECT_EQ(calls[1].ident, "");
    EXPECT_EQ(calls[1].option, LOG_PID);
    EXPECT_EQ(calls[1].facility, LOG_WARNING | LOG_USER);
}

TEST_F(SyslogStreamTest, RecordPrefixNamesFileLineAndFunctionInDecimal)
{
    SyslogCapture capture;
    int line = 0;
    {
        std::lock_guard lock(k52app::log.mutex);
        k52app::log << std::hex; // a record must not inherit a hexadecimal line number
    }
    K52_LOG(warn) << "value " << std::hex << 255;
    line = __LINE__ - 1;
    auto records = capture.records();
    ASSERT_EQ(records.size(), 1u);
    const std::string expected =
        std::string("[") + __FILE__ + ":" + std::to_string(line) + ":TestBody] value ff\n";
    EXPECT_EQ(records[0].text, expected);
    EXPECT_EQ(records[0].priority, LOG_WARNING | LOG_USER);
}

TEST_F(SyslogStreamTest, UnflushedRecordStaysInTheBuffer)
{
    SyslogCapture capture;
    K52_LOG_UNFLUSHED(err) << "kept";
    EXPECT_TRUE(capture.records().empty());
    K52_LOG(info) << "next";
    auto records = capture.records();
    ASSERT_EQ(records.size(), 1u);
    EXPECT_NE(records[0].text.find("] kept["), std::string::npos) << records[0].text;
    EXPECT_EQ(records[0].priority, LOG_INFO | LOG_USER);
}

TEST_F(SyslogStreamTest, EmptyFlushIsStillARecord)
{
    SyslogCapture capture;
    {
        std::lock_guard lock(k52app::log.mutex);
        k52app::log.flush();
    }
    auto records = capture.records();
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(records[0].text, "");
}

TEST_F(SyslogStreamTest, PrintFuncWritesOneDebugRecordFromALambda)
{
    SyslogCapture capture;
    k52app::printFunc("from the driver");
    auto records = capture.records();
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(records[0].priority, LOG_DEBUG | LOG_USER);
    EXPECT_TRUE(std::regex_match(records[0].text,
                                 std::regex(R"(\[.*k52resourcemanager\.cpp:\d+:operator\(\)\] from the driver\n)")))
        << records[0].text;
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
        EXPECT_TRUE(body == std::string(40, 'a') + "\n" || body == std::string(40, 'b') + "\n")
            << body;
    }
}

TEST_F(SyslogStreamTest, DevModeChangesNothingOnTheWire)
{
    SyslogCapture capture;
    k52app::log.devMode(true);
    K52_LOG(info) << "dev";
    k52app::log.devMode(false);
    ASSERT_EQ(capture.records().size(), 1u);
}

TEST(LogFormat, Hex32IsZeroPaddedLowerCase)
{
    EXPECT_EQ(k52app::hex32(0x0510f000), "0x0510f000");
    EXPECT_EQ(k52app::hex32(0), "0x00000000");
    EXPECT_EQ(k52app::hex32(0xFFFFFFFF), "0xffffffff");
}

} // namespace
