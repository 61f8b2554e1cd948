#include "client/connection.h"
#include "support/routerharness.h"
#include "support/syslogcapture.h"
#include "utils/base/exceptions.h"
#include "utils/io/ioi2cfile.h"
#include "utils/platform/emulated/gpiochip.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <syslog.h>

#include <bit>
#include <chrono>
#include <cstring>
#include <thread>

namespace {

using k52test::Exchange;
using k52test::expectExchanges;

using namespace std::chrono_literals;
using testing::HasSubstr;
using testing::StartsWith;
using utils::platform::emulated::Fault;
using utils::platform::emulated::GPIOChip;

// --- smart sensor -------------------------------------------------------------------------

struct GyroSetting {
    uint8_t id;
    float rateHz;
    uint32_t latencyMs;
};

// Reads the virtual-sensor register straight off the emulated bus (id, f32 rate, u32
// latency, little-endian), independently of the daemon's driver object.
GyroSetting gyroSetting()
{
    utils::IOI2CFile bus("/dev/i2c-5", 40);
    const uint8_t reg = 0x30;
    uint8_t bytes[9] = {};
    bus.readBlock(reg, bytes);
    uint32_t rate;
    uint32_t latency;
    std::memcpy(&rate, bytes + 1, 4);
    std::memcpy(&latency, bytes + 5, 4);
    return {bytes[0], std::bit_cast<float>(rate), latency};
}

TEST(SmartSensorRoutes, GyroIsConfiguredOrSwitchedOff)
{
    k52test::RouterHarness h;
    struct Case {
        const char* command;
        float rateHz; // as the sensor runs it: requests round up to a supported rate
        uint32_t latencyMs;
    };
    for (const Case& c : {Case{"SmartSensorSetGyro 1 500 100", 800.0f, 100},
                          Case{"SmartSensorSetGyro 1 25 0", 25.0f, 0},
                          // Switching off ignores the other two values.
                          Case{"SmartSensorSetGyro 0 500 100", 0.0f, 10},
                          Case{"SmartSensorSetGyro 7 100 -3", 100.0f, 0}}) {
        SCOPED_TRACE(c.command);
        expectExchanges(h, {{c.command, "OK", "SmartSensorSetGyro: Gyro configuration set."}});
        GyroSetting setting = gyroSetting();
        EXPECT_EQ(setting.id, 37);
        EXPECT_EQ(setting.rateHz, c.rateHz);
        EXPECT_EQ(setting.latencyMs, c.latencyMs);
    }
}

TEST(SmartSensorRoutes, Failures)
{
    k52test::RouterHarness h;
    auto [status, message] = h.run("SmartSensorSetGyro 1 2000 10");
    EXPECT_EQ(status, "ErrorRuntimeError") << "the sensor refuses a rate beyond its fastest";
    EXPECT_THAT(message, StartsWith("SmartSensorSetGyro: "));
    EXPECT_THROW(h.run("SmartSensorSetGyro 1 500"), std::out_of_range);

    h.board().faults().inject("/dev/i2c-5", Fault::ioError);
    auto [ioStatus, ioMessage] = h.run("SmartSensorSetGyro 1 100 10");
    EXPECT_EQ(ioStatus, "ErrorIOException");
    EXPECT_THAT(ioMessage, StartsWith("SmartSensorSetGyro: "));
    EXPECT_THAT(ioMessage, HasSubstr("/dev/i2c-5"));
}

// --- raw I2C --------------------------------------------------------------------------------

TEST(I2CRoutes, RegisterAccess)
{
    k52test::RouterHarness h;
    const char* failed = "Failed: Failed to set Address.";
    expectExchanges(h, {
        // The EEPROM at 80 holds "K52 I2C-<bus>": offset 1 is '5' (53).
        {"GetI2C 3 80 1 extra", "OK", "register 1 = 53"},
        // The temperature sensor at 72 identifies itself with 0xa5 at 0x0f.
        {"GetI2C 4 72 15", "OK", "register 15 = 165"},
        {"SetI2C 4 80 16 171", "OK", "register 16 = 171"},
        {"GetI2C 4 80 16", "OK", "register 16 = 171"},
        {"GetI2C 3 80 16", "OK", "register 16 = 255"}, // another bus, still erased

        {"GetI2C 3 81 1", "Error", failed},     // nobody at that address
        {"SetI2C 2 72 0 5", "Error", failed},   // read-only register
        {"GetI2C 3 336 1", "Error", failed},    // 336 would wrap onto 80 as a byte
        {"SetI2C 4 80 272 7", "Error", failed}, // 272 would wrap onto offset 16
        {"SetI2C 4 80 17 -1", "Error", failed},
        {"GetI2C 4 80 16", "OK", "register 16 = 171"},
        {"GetI2C 4 80 17", "OK", "register 17 = 255"},
    });
}

TEST(I2CRoutes, BusFailures)
{
    k52test::RouterHarness h;
    auto [status, message] = h.run("GetI2C 9 80 1");
    EXPECT_EQ(status, "ErrorIOException");
    EXPECT_THAT(message, StartsWith("Failed"));
    EXPECT_THAT(message, HasSubstr("/dev/i2c-9"));

    h.board().faults().inject("/dev/i2c-3", Fault::ioError);
    expectExchanges(h, {{"SetI2C 3 80 1 1", "Error", "Failed: Failed to set Address."},
                        {"GetI2C 2 80 1", "OK", "register 1 = 53"}});
    EXPECT_THROW(h.run("SetI2C 3 80 1"), std::out_of_range);
}

// --- button ---------------------------------------------------------------------------------

class ButtonRoute : public ::testing::Test {
protected:
    GPIOChip& chip() { return dynamic_cast<GPIOChip&>(*h.board().device(GPIOChip::path)); }

    std::unique_ptr<k52client::ControlClient> connect()
    {
        auto client = std::make_unique<k52client::ControlClient>("127.0.0.1", h.config.controlPort());
        h.resources->controlSocket().acceptConnection();
        return client;
    }

    void TearDown() override { h.run("MonitorButton 0"); }

    k52test::RouterHarness h;
};

TEST_F(ButtonRoute, EdgesBecomeColouredNoticesInOrder)
{
    k52test::SyslogCapture capture;
    auto client = connect();
    // A second enable replaces the callbacks: still one notice per edge.
    expectExchanges(h, {{"MonitorButton 1", "OK", "button monitor enabled."},
                 {"MonitorButton 1", "OK", "button monitor enabled."}});

    chip().press();
    chip().release();
    struct Expected {
        const char* text;
        uint32_t color;
    };
    for (const Expected& e : {Expected{"Button : Rising Edge Detected.", 0xFF9D00},
                              Expected{"Button : Falling Edge Detected.", 0x3B65E3}}) {
        k52client::Notice notice = client->readNotice(2000ms);
        EXPECT_EQ(notice.message, e.text);
        EXPECT_EQ(notice.color, e.color);
    }
    EXPECT_THROW(client->readNotice(300ms), std::runtime_error) << "no duplicate notices";

    std::vector<std::pair<int, std::string>> edges;
    for (const auto& record : capture.records())
        if (record.text.find("Edge Detected !") != std::string::npos)
            edges.emplace_back(LOG_PRI(record.priority), record.text);
    ASSERT_EQ(edges.size(), 2u);
    EXPECT_EQ(edges[0].first, LOG_WARNING);
    EXPECT_THAT(edges[0].second, testing::EndsWith("] Button : Rising Edge Detected !\n"));
    EXPECT_EQ(edges[1].first, LOG_INFO);
    EXPECT_THAT(edges[1].second, testing::EndsWith("] Button : Falling Edge Detected !\n"));
}

// Two workers switch the monitor on and off at once; every command succeeds and, after the
// last disable, nothing is sent.
TEST_F(ButtonRoute, DisabledMonitoringSendsNothing)
{
    auto client = connect();
    auto toggle = [this] {
        for (int i = 0; i < 20; ++i)
            expectExchanges(h, {{"MonitorButton 1", "OK", "button monitor enabled."},
                                {"MonitorButton 0", "OK", "button monitor disabled."}});
    };
    {
        std::jthread first(toggle);
        std::jthread second(toggle);
    }
    expectExchanges(h, {{"MonitorButton 0", "OK", "button monitor disabled."}});
    chip().press();
    chip().release();
    EXPECT_THROW(client->readNotice(300ms), std::runtime_error);
}

TEST_F(ButtonRoute, PressWithoutClientBreaksNothing)
{
    expectExchanges(h, {{"MonitorButton 1", "OK", "button monitor enabled."}});
    chip().press();
    std::this_thread::sleep_for(200ms); // let the event thread try to send
    auto client = connect();
    chip().release();
    EXPECT_EQ(client->readNotice(2000ms).message, "Button : Falling Edge Detected.");
}

TEST_F(ButtonRoute, ArgumentAndDeviceFailures)
{
    EXPECT_THROW(h.run("MonitorButton"), std::out_of_range);
    EXPECT_THROW(h.run("MonitorButton on"), utils::UtilsRuntimeError);

    h.board().faults().inject(GPIOChip::path, Fault::openFails);
    auto [status, message] = h.run("MonitorButton 1");
    EXPECT_EQ(status, "ErrorIOException");
    EXPECT_THAT(message, StartsWith("Failed"));
    h.board().faults().clear(GPIOChip::path);
    expectExchanges(h, {{"MonitorButton 1", "OK", "button monitor enabled."}});
}

} // namespace
