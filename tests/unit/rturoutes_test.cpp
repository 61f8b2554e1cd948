#include "support/board.h"
#include "support/routerharness.h"
#include "support/throws.h"
#include "utils/base/exceptions.h"
#include "utils/io/ioi2crtu.h"
#include "utils/io/ioimx.h"
#include "utils/io/iortu.h"
#include "utils/io/iortudataadapter.h"
#include "utils/platform/emulated/imxmodel.h"
#include "utils/platform/emulated/rtumodel.h"
#include "utils/platform/emulated/textfile.h"
#include "utils/platform/filedescriptor.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <tinyxml2.h>

#include <functional>
#include <optional>
#include <regex>
#include <stdexcept>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

namespace {

using k52test::expectExchanges;
using k52test::RouterHarness;
using utils::rtu_pin_config_t;
using namespace utils::platform::emulated;

constexpr const char* enableLine = "/sys/class/gpio/gpio431/value";
constexpr const char* typeLine = "/sys/class/gpio/gpio479/value";

// In order: each setter is read back through the unit.
TEST(RTURoutes, RepliesAndReadsBackThroughTheUnit)
{
    RouterHarness h;
    expectExchanges(h, {
        {"SetRTUTriggerMode 0", "OK", "SetTriggerMode: Trigger mode set to 0"},
        {"GetRTUStatus", "OK", "GetRTUStatus: Device State: 1"}, // ready only
        {"GetRTURevision", "OK", "GetRTURevision: Revision: 2.7 Week: 23 Year: 2024 Num: 1052 Patch: 3"},
        // Negative numbers reach the unit as their unsigned 32 bits.
        {"SetRTUExposureTime -2", "OK", "SetRTUExposureTime: Exposure time set to 4294967294"},
        {"SetRTUFPS -1", "OK", "SetFPS: FPS set to 4294967295"},
        {"GetRTUFPS", "OK", "GetRTUFPS: RTU FPS: 4294967295"},
        {"GetRTUIOConfig", "OK",
         "GetRTUIOConfig:  Configuration value=0 func=0 config=0 inverted=0 on_delay_enb=0 "
         "off_delay_enb=0 pulse_enb=0 on_delay_time=0 off_delay_time=0 pulse_time=0"},
        {"SetRTUIOConfig 2 1 3 1 1 0 5 7", "OK",
         "SetRTUIOConfig:  Configuration set to type=1 func=3 config=1 invert=1 on_delay_enb=0 "
         "off_delay_enb=1 pulse_enb=1 on_delay_time=0 off_delay_time=5 pulse_time=7"},
        {"GetRTUIOConfig 2", "OK",
         "GetRTUIOConfig:  Configuration value=1 func=3 config=1 inverted=1 on_delay_enb=0 "
         "off_delay_enb=1 pulse_enb=1 on_delay_time=0 off_delay_time=5 pulse_time=7"},
        {"SetRTUIOValue 2 1", "OK", "SetRTUIOValue: IO Value set to 1 on pin 2"},
        {"GetRTUIOValue 2", "OK", "GetRTUIOValue: IO Value is 1 on pin 2"},
        {"GetRTUIOConfig 3", "OK", // each pin its own
         "GetRTUIOConfig:  Configuration value=0 func=0 config=0 inverted=0 on_delay_enb=0 "
         "off_delay_enb=0 pulse_enb=0 on_delay_time=0 off_delay_time=0 pulse_time=0"},
        {"RTUManualTrigger", "OK", "ManualTrigger: Manual trigger fired."},
        {"SetRTUTriggerMode 1", "OK", "SetTriggerMode: Trigger mode set to 1"},
        {"SetRTUAnalogOutputState 1", "OK", "SetRTUAnalogOutputState: Analog output enabled"},
        {"GetRTUAnalogOutputState", "OK", "GetRTUAnalogOutputState: RTU Analog Output State: enabled"},
        // The set reply names the opposite of the description; clients rely on it.
        {"SetRTUAnalogOutputType 1", "OK", "SetRTUAnalogOutputType: voltage"},
        {"GetRTUAnalogOutputType", "OK", "GetRTUAnalogOutputType: RTU Analog Output Type: voltage"},
        // The analog output keeps 16 bits; the set reply shows the signed value sent.
        {"SetRTUAnalogOutputVoltage -1", "OK", "SetRTUAnalogOutputVoltage: Analog output voltage set to -1"},
        {"GetRTUAnalogOutputVoltage", "OK", "GetRTUAnalogOutputVoltage: RTU Analog Output Voltage: 65535"},
        {"SetRTUAnalogOutputCurrent 1200", "OK", "SetRTUAnalogOutputCurrent: Analog output current set to 1200"},
        {"GetRTUAnalogOutputCurrent", "OK", "GetRTUAnalogOutputCurrent: RTU Analog Output current: 1200"},
        {"SetRTUAcquisitionEnable 1", "OK", "SetAcquisitionEnable: Acquisition enabled"},
        {"RTUTriggerHeartbeat", "OK", "TriggerHeartbeat: Heartbeat triggered."},
        // ready | acquiring | continuous | analog output | heartbeat alive
        {"GetRTUStatus", "OK", "GetRTUStatus: Device State: 31"},
        {"SetRTUStatusLED 3", "OK", "SetStatusLED: Status LED set to 3"},
        {"SetRTUDeviceState 6", "OK", "SetDeviceState: Device state set to 6"},
        {"GetRTUDeviceState", "OK", "GetDeviceState: Device state: 6"},
        {"SetRTUImager 0", "OK", "SetImager: Imager set to 'imx296'"},
        {"SetRTUImager 5", "OK", "SetImager: Imager set to 'imx567'"},
        {"SetRTUExposureProhibitedTime 250", "OK",
         "SetExposureProhibitedTime: Exposure prohibited time set to 250 microseconds"},
        {"GetRTUExposureProhibitedTime", "OK", "GetExposureProhibitedTime: Exposure prohibited time: 250 microseconds"},
        {"SetRTUExposureOffset -20", "OK", "SetExposureOffset: Exposure offset set to -20 microseconds"},
        {"GetRTUExposureOffset", "OK", "GetExposureOffset: Exposure offset: -20 microseconds"},
        {"SetRTUAcquisitionEnable 0", "OK", "SetAcquisitionEnable: Acquisition disabled"},
        {"SetRTUAnalogOutputType 0", "OK", "SetRTUAnalogOutputType: current"},
        {"SetRTUFPS 25 99", "OK", "SetFPS: FPS set to 25"}, // extra words are ignored
    });
    EXPECT_TRUE(std::regex_match(h.run("RTUGetInternalTemperature").second,
                                 std::regex("InternalTemperature: [0-9]+\\.[0-9]+")));
    // Not replies: state 0 wraps below the range, the other two do not parse as 32 bits.
    EXPECT_THAT([&] { h.run("SetRTUDeviceState 0"); },
                testing::ThrowsMessage<utils::UtilsOutOfRangeError>("Device state out of range [1, 6]"));
    EXPECT_THROW(h.run("SetRTUFPS 4294967296"), std::out_of_range);
    EXPECT_THROW(h.run("SetRTUIOValue 1 on"), std::invalid_argument);
}

class RTUTest : public ::testing::Test {
protected:
    void SetUp() override { attachRTU(*board); rtu.open(); i2c.emplace("/dev/i2c-1", 66, O_RDWR); }
    void writeLine(const char* path, const std::string& text)
    {
        utils::FileDescriptor fd(utils::platform::kernel().open(path, O_WRONLY));
        ASSERT_EQ(utils::platform::kernel().write(fd.get(), text.data(), text.size()),
                  static_cast<ssize_t>(text.size()));
    }

    k52test::InstalledBoard board; // first: the devices close through it
    utils::IORTU rtu{"/dev/k52rtu"};
    std::optional<utils::IOI2CRTU> i2c;
};

// Refusals name the register or pin, and leave the unit's value as it was; outside the analog
// output the I2C registers are the unit's, read-only. A line written by others is the unit's
// state too (the type line: below).
TEST_F(RTUTest, RefusedValuesNameTheirRegister)
{
    writeLine(enableLine, "0"); // active-low
    EXPECT_TRUE(rtu.getAnalogOutputState());
    EXPECT_EQ(i2c->readRTUHalfwordRegister(14), 0x1000);
    rtu_pin_config_t badType;
    badType.setPin(2);
    badType[rtu_pin_config_t::type].value = 3;
    rtu_pin_config_t noSuchPin;
    noSuchPin.setPin(6);
    rtu.setDeviceState(utils::IORTUState::warning);
    rtu.setIOValue(5, 1); // the last pin
    EXPECT_EQ(i2c->readRTUHalfwordRegister(0) << 16 | i2c->readRTUHalfwordRegister(2), 5 << 16 | 2 << 8 | 7);
    for (uint8_t reg : {0, 20})
        EXPECT_THROW(i2c->writeRTUHalfwordRegister(reg, 1), utils::IOError) << reg;
    const std::pair<std::function<void()>, const char*> cases[] = {
        {[&] { rtu.setDeviceState(static_cast<utils::IORTUState>(0)); }, "DEVICE_STATE"},
        {[&] { rtu.setDeviceState(static_cast<utils::IORTUState>(7)); }, "DEVICE_STATE"},
        {[&] { rtu.setAutoTrigger(static_cast<utils::IORTUTriggerMode>(2)); }, "TRIGGER_MODE"},
        {[&] { rtu.setIOConfig(badType); }, "PIN_CONFIG"},
        {[&] { rtu.setIOValue(6, 1); }, "No I/O pin 6 on"},
        {[&] { rtu.getIOConfig(noSuchPin); }, "No I/O pin 6 on"},
        {[&] { rtu.getIOValue(1u << 26); }, "No I/O pin 67108864"}, // would alias pin 0
    };
    for (const auto& [call, text] : cases)
        EXPECT_THAT(call, k52test::throwsWith<utils::IOError>(text, "/dev/k52rtu"));
    badType.setPin(2);
    rtu.getIOConfig(badType);
    EXPECT_EQ(std::tuple(rtu.getDeviceState(), rtu.getAutoTrigger(), rtu.getIOValue(5), badType[rtu_pin_config_t::type].value),
              std::tuple(utils::IORTUState::warning, utils::IORTUTriggerMode::continuous, 1u, 0u));
}

// The unit and the image sensor drive the one sensor bus; the image sensor's routes' tests pin
// its ranges, replies and the status record's refresh.
TEST_F(RTUTest, TheUnitAndTheImageSensorShareTheSensorBus)
{
    attachIMX(*board);
    utils::IOIMX imx("/dev/imx0", O_RDWR);
    SensorBus& bus = board->sensorBus();
    rtu.setAutoTrigger(utils::IORTUTriggerMode::manual);
    rtu.enableAcquisition(true);
    rtu.setFPS(0);
    rtu.setExposureTime(4321);
    imx.setROIXYOffset(1455, 1087);
    const uint64_t before = bus.pulses();
    rtu.manualTrigger();
    EXPECT_EQ(std::tuple(bus.trigger(), bus.acquisition(), bus.framesPerSecond(), bus.pulses(), bus.roiX(), bus.roiY()),
              std::tuple(SensorBus::Trigger::manual, true, 0u, before + 1, 1455, 1087));
    bus.setFramesPerSecond(60);
    bus.setTrigger(SensorBus::Trigger::continuous);
    EXPECT_EQ(std::pair(rtu.getFPS(), rtu.getAutoTrigger()), std::pair(60u, utils::IORTUTriggerMode::continuous));
    EXPECT_EQ(imx.getExposure(), 4321u) << "the unit's exposure is the sensor's";
}

// The three interfaces are used from different threads (route workers, the heartbeat).
TEST_F(RTUTest, InterfacesMayBeUsedConcurrently)
{
    constexpr int rounds = 200;
    std::thread node([&] {
        for (int i = 0; i < rounds; ++i) {
            rtu.setAnalogOutputState(i % 2);
            rtu.triggerHeartbeat();
        }
    });
    std::thread bus([&] {
        utils::IOI2CRTU other("/dev/i2c-1", 66, O_RDWR);
        for (int i = 0; i < rounds; ++i)
            other.writeRTUHalfwordRegister(16, static_cast<unsigned short>(i));
    });
    for (int i = 0; i < rounds; ++i)
        writeLine(typeLine, i % 2 ? "0" : "1");
    node.join();
    bus.join();
    EXPECT_EQ(rtu.getHeartbeatCount(), static_cast<unsigned>(rounds));
    EXPECT_EQ(rtu.getAnalogOutputVoltage(), rounds - 1u);
    EXPECT_TRUE(rtu.getAnalogOutputType()); // the last line write (0) selected current
}

// Device failures on the routes are checked end to end.
TEST_F(RTUTest, TheAdapterKeepsItsLastRecord)
{
    rtu.setFPS(15);
    rtu.setExposureOffset(static_cast<unsigned>(-7));
    rtu.setAnalogOutputType(true);
    utils::IORTUDataAdapter adapter{};
    adapter.load(rtu);
    tinyxml2::XMLDocument document;
    auto* element = document.InsertFirstChild(document.NewElement("rtu"))->ToElement();
    adapter.toXml(element);
    adapter.toXml(element); // a refresh replaces, it does not add
    EXPECT_EQ(element->FirstChildElement("fps")->NextSiblingElement("fps"), nullptr);
    for (auto [name, text] : {std::pair{"fps", "15"}, {"exposureOffset", "-7"}, {"analogOutputType", "current"}, {"revision", "2.7"}})
        EXPECT_STREQ(element->FirstChildElement(name)->GetText(), text) << name;

    board->faults().inject("/dev/k52rtu", Fault::ioError);
    EXPECT_THROW(adapter.load(rtu), utils::IOError);
    EXPECT_EQ(adapter.data.framesPerSecond, 15u);
}

// Each setter's reply, the register it wrote as another bus client reads it, and the getter.
TEST(I2CRTURoutes, SettersWriteTheirRegistersAndGettersReadThem)
{
    RouterHarness h;
    utils::IOI2CRTU bus("/dev/i2c-1", 66); // a second client of the unit's registers
    std::vector<std::string> lineWrites;
    for (const char* line : {enableLine, typeLine})
        h.board().attach(line, std::make_shared<TextFile>("", [&, line](const std::string& text) {
            lineWrites.push_back(std::string(line == enableLine ? "enable=" : "type=") + text);
        }));
    // Routes are "SetI2CRTU<name> <argument>" and "GetI2CRTU<name>"; the get reply's text
    // follows "RTU Analog Output ".
    struct Case { const char *name, *argument, *setReply; uint8_t reg; unsigned short value; const char* getReply; };
    const Case cases[] = {
        {"AnalogOutputState", "1", "Analog output enabled", 14, 0x1000, "State: enabled"},
        {"AnalogOutputState", "0", "Analog output disabled", 14, 0, "State: disabled"},
        {"AnalogOutputType", "-7", "current", 15, 1, "Type: current"},
        {"AnalogOutputType", "0", "voltage", 15, 0, "Type: voltage"},
        {"AnalogOutputVoltage", "70000", "Analog output voltage set to 70000", 16, 4464, "Voltage: 4464"},
        {"AnalogOutputCurrent", "-1", "Analog output current set to -1", 17, 65535, "current: 65535"},
        {"AnalogOutputPWMDuty", "33 9", "Analog output PWMDuty set to 33", 18, 33, "PWMDuty: 33"},
        {"AnalogOutputPWMPeriod", "1000", "Analog output PWMPeriod set to 1000", 19, 1000, "PWM Period: 1000"},
    };
    for (const auto& c : cases) {
        const std::string set = std::string("SetI2CRTU") + c.name, get = std::string("GetI2CRTU") + c.name;
        expectExchanges(h, {{(set + " " + c.argument).c_str(), "OK", (set + ": " + c.setReply).c_str()}});
        EXPECT_EQ(bus.readRTUHalfwordRegister(c.reg), c.value) << set;
        expectExchanges(h, {{get.c_str(), "OK", (get + ": RTU Analog Output " + c.getReply).c_str()}});
    }
    // Any bit of the state register counts, not only the flag this family writes.
    bus.writeRTUHalfwordRegister(14, 0x0001);
    expectExchanges(h, {
        {"GetI2CRTUAnalogOutputState", "OK", "GetI2CRTUAnalogOutputState: RTU Analog Output State: enabled"},
        // One analog output behind both families; only their type words differ.
        {"GetRTUAnalogOutputVoltage", "OK", "GetRTUAnalogOutputVoltage: RTU Analog Output Voltage: 4464"},
        {"SetRTUAnalogOutputType 1", "OK", "SetRTUAnalogOutputType: voltage"},
        {"GetI2CRTUAnalogOutputType", "OK", "GetI2CRTUAnalogOutputType: RTU Analog Output Type: current"},
    });
    // Both lines are active-low, whichever family writes them.
    EXPECT_EQ(lineWrites, (std::vector<std::string>{"enable=0", "enable=1", "type=0", "type=1", "type=0"}));
    EXPECT_THROW(h.run("SetI2CRTUAnalogOutputPWMDuty 99999999999"), std::out_of_range);
}

// A failed line write: the state routes have changed the unit already, the type routes not
// yet. A bus failure names the bus after the route's prefix.
TEST(RTUAndI2CRTURoutes, LineAndBusFailures)
{
    struct Case { const char* name; const char* line; Fault fault; const char* after; };
    const Case cases[] = {
        {"RTUAnalogOutputState", enableLine, Fault::ioError, "State: enabled"},
        {"RTUAnalogOutputType", typeLine, Fault::ioError, "Type: current"},
        {"I2CRTUAnalogOutputState", enableLine, Fault::openFails, "State: enabled"},
        {"I2CRTUAnalogOutputType", typeLine, Fault::openFails, "Type: voltage"},
    };
    for (const auto& c : cases) {
        RouterHarness h;
        h.board().faults().inject(c.line, c.fault);
        const std::string set = std::string("Set") + c.name, get = std::string("Get") + c.name;
        const std::string failure = c.fault == Fault::ioError
                                        ? std::string("Failed to write to ") + c.line
                                        : std::string("Failed to open ") + c.line + " for writing";
        expectExchanges(h, {{(set + " 1").c_str(), "ErrorIOException", (set + ": " + failure).c_str()},
                            {get.c_str(), "OK", (get + ": RTU Analog Output " + c.after).c_str()}});
    }
    RouterHarness h;
    h.board().faults().inject("/dev/i2c-1", Fault::ioError);
    expectExchanges(h, {{"SetI2CRTUAnalogOutputPWMPeriod 1", "ErrorIOException",
                         "SetI2CRTUAnalogOutputPWMPeriod: RTU register 19: I2C transfer to address 0x42 on "
                         "/dev/i2c-1 failed: Input/output error"}});
}

} // namespace
