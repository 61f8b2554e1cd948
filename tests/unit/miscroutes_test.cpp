#include "client/connection.h"
#include "support/routerharness.h"
#include "support/syslogcapture.h"
#include "utils/base/exceptions.h"
#include "utils/io/ioi2cfile.h"
#include "utils/platform/emulated/gpiochip.h"
#include "utils/platform/emulated/textfile.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <syslog.h>

#include <bit>
#include <chrono>
#include <cstring>
#include <thread>

namespace {

using k52test::expectExchanges;
using namespace std::chrono_literals;
using testing::HasSubstr;
using testing::StartsWith;
using utils::platform::emulated::Fault;
using utils::platform::emulated::GPIOChip;

// --- smart sensor -------------------------------------------------------------------------

TEST(SmartSensorRoutes, GyroIsConfiguredOrSwitchedOff)
{
    k52test::RouterHarness h;
    const struct {
        const char* command;
        float rateHz; // as the sensor runs it: requests round up to a supported rate
        uint32_t latencyMs;
    } cases[] = {
        {"SmartSensorSetGyro 1 500 100", 800.0f, 100},
        {"SmartSensorSetGyro 1 25 0", 25.0f, 0},
        {"SmartSensorSetGyro 0 500 100", 0.0f, 10}, // switching off ignores the other two values
        {"SmartSensorSetGyro 7 100 -3", 100.0f, 0},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.command);
        expectExchanges(h, {{c.command, "OK", "SmartSensorSetGyro: Gyro configuration set."}});
        // The virtual-sensor register straight off the bus: id, f32 rate, u32 latency, little-endian.
        uint8_t bytes[9] = {};
        utils::IOI2CFile("/dev/i2c-5", 40).readBlock(0x30, bytes);
        uint32_t rate, latency;
        std::memcpy(&rate, bytes + 1, 4);
        std::memcpy(&latency, bytes + 5, 4);
        EXPECT_EQ(bytes[0], 37);
        EXPECT_EQ(std::bit_cast<float>(rate), c.rateHz);
        EXPECT_EQ(latency, c.latencyMs);
    }
    auto [status, message] = h.run("SmartSensorSetGyro 1 2000 10");
    EXPECT_EQ(status, "ErrorRuntimeError") << "the sensor refuses a rate beyond its fastest";
    EXPECT_THAT(message, StartsWith("SmartSensorSetGyro: "));
    EXPECT_THROW(h.run("SmartSensorSetGyro 1 500"), std::out_of_range);
    h.board().faults().inject("/dev/i2c-5", Fault::ioError);
    auto [ioStatus, ioMessage] = h.run("SmartSensorSetGyro 1 100 10");
    EXPECT_EQ(ioStatus, "ErrorIOException");
    EXPECT_THAT(ioMessage, testing::AllOf(StartsWith("SmartSensorSetGyro: "), HasSubstr("/dev/i2c-5")));
}

// --- raw I2C --------------------------------------------------------------------------------

TEST(I2CRoutes, RegisterAccessAndBusFailures)
{
    k52test::RouterHarness h;
    const char* failed = "Failed: Failed to set Address.";
    expectExchanges(h, {
        // The EEPROM at 80 holds "K52 I2C-<bus>": offset 1 is '5' (53).
        {"GetI2C 3 80 1 extra", "OK", "register 1 = 53"},
        {"SetI2C 4 80 16 171", "OK", "register 16 = 171"},
        {"GetI2C 3 80 16", "OK", "register 16 = 255"}, // another bus, still erased
        {"GetI2C 3 81 1", "Error", failed},     // nobody at that address
        {"GetI2C 3 336 1", "Error", failed},    // 336 would wrap onto 80 as a byte
        {"SetI2C 4 80 272 7", "Error", failed}, // 272 would wrap onto offset 16
        {"SetI2C 4 80 17 -1", "Error", failed},
        {"GetI2C 4 80 16", "OK", "register 16 = 171"},
        {"GetI2C 4 80 17", "OK", "register 17 = 255"},
    });
    auto [status, message] = h.run("GetI2C 9 80 1");
    EXPECT_EQ(status, "ErrorIOException");
    EXPECT_THAT(message, testing::AllOf(StartsWith("Failed"), HasSubstr("/dev/i2c-9")));
    h.board().faults().inject("/dev/i2c-3", Fault::ioError);
    expectExchanges(h, {{"SetI2C 3 80 1 1", "Error", failed}, {"GetI2C 2 80 1", "OK", "register 1 = 53"}});
    EXPECT_THROW(h.run("SetI2C 3 80 1"), std::out_of_range);
}

// --- CPU information ------------------------------------------------------------------------

// Each command reads the file afresh, so a changed file shows in the next reply.
TEST(CpuInfoRoutes, ReportTheFileAsItIsNowOrItsFailure)
{
    k52test::RouterHarness h;
    auto file = std::dynamic_pointer_cast<utils::platform::emulated::TextFile>(h.board().device("/proc/cpuinfo"));
    ASSERT_NE(file, nullptr);
    expectExchanges(h, {{"GetCPUInfoChipID", "OK", "GetCPUInfoChipID:  Serial: 00000000e52a0b1c"},
                        {"GetCPUInfoHardware extra words", "OK", "GetCPUInfoHardware: Hardware : K52 emulated board"}});
    file->setContent("processor\t: 0\n");
    expectExchanges(h, {{"GetCPUInfoChipID", "OK", "GetCPUInfoChipID:  Serial: unknown"},
                        {"GetCPUInfoHardware", "OK", "GetCPUInfoHardware: Hardware : unknown"}});
    for (Fault fault : {Fault::openFails, Fault::ioError}) {
        h.board().faults().inject("/proc/cpuinfo", fault);
        for (const std::string route : {"GetCPUInfoChipID", "GetCPUInfoHardware"}) {
            auto [status, message] = h.run(route);
            EXPECT_EQ(status, "ErrorIOException") << route;
            EXPECT_THAT(message, testing::AllOf(StartsWith(route + ": "), HasSubstr("/proc/cpuinfo")));
        }
    }
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
    // A second enable replaces the callbacks: still one notice per edge.
    expectExchanges(h, {{"MonitorButton 1", "OK", "button monitor enabled."},
                        {"MonitorButton 1", "OK", "button monitor enabled."}});
    chip().press();
    std::this_thread::sleep_for(200ms); // an edge with nobody to tell breaks nothing
    auto client = connect();
    chip().release();
    chip().press();
    for (auto [text, color] : {std::pair{"Button : Falling Edge Detected.", 0x3B65E3u},
                               {"Button : Rising Edge Detected.", 0xFF9D00u}}) {
        k52client::Notice notice = client->readNotice(2000ms);
        EXPECT_EQ(notice.message, text);
        EXPECT_EQ(notice.color, color);
    }
    EXPECT_THROW(client->readNotice(300ms), std::runtime_error) << "no duplicate notices";

    std::vector<std::pair<int, std::string>> edges;
    for (const auto& record : capture.records())
        if (record.text.find("Edge Detected !") != std::string::npos)
            edges.emplace_back(LOG_PRI(record.priority), record.text.substr(record.text.rfind("] ") + 2));
    const std::pair<int, std::string> rising{LOG_WARNING, "Button : Rising Edge Detected !\n"};
    EXPECT_EQ(edges, (decltype(edges){rising, {LOG_INFO, "Button : Falling Edge Detected !\n"}, rising}));
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

TEST_F(ButtonRoute, ArgumentAndDeviceFailures)
{
    EXPECT_THROW(h.run("MonitorButton"), std::out_of_range);
    EXPECT_THROW(h.run("MonitorButton on"), utils::UtilsRuntimeError);
    h.board().faults().inject(GPIOChip::path, Fault::openFails);
    auto [status, message] = h.run("MonitorButton 1");
    EXPECT_EQ(status, "ErrorIOException");
    EXPECT_THAT(message, StartsWith("Failed"));
    h.board().faults().clear(GPIOChip::path);
}

} // namespace
