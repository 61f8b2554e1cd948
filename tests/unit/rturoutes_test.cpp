#include "support/routerharness.h"
#include "utils/base/exceptions.h"
#include "utils/platform/emulated/textfile.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <vector>

namespace {

using k52test::Exchange;
using k52test::expectExchanges;

using k52test::RouterHarness;
using utils::platform::emulated::Fault;
using utils::platform::emulated::TextFile;

constexpr const char* rtuNode = "/dev/k52rtu";
constexpr const char* enableLine = "/sys/class/gpio/gpio431/value";
constexpr const char* typeLine = "/sys/class/gpio/gpio479/value";

void expectGroupFree(RouterHarness& h)
{
    auto& rtuGroup = h.resources->getMutex(k52app::K52ResourceGroups::RTU);
    ASSERT_TRUE(rtuGroup.try_lock());
    rtuGroup.unlock();
}

std::string lineText(RouterHarness& h, const char* path)
{
    return std::dynamic_pointer_cast<TextFile>(h.board().device(path))->content();
}

// Runs the conversation in order: each setter is read back through the unit.
TEST(RTURoutes, RepliesAndReadsBackThroughTheUnit)
{
    RouterHarness h;
    expectExchanges(h, {
        {"SetRTUTriggerMode 0", "OK", "SetTriggerMode: Trigger mode set to 0"},
        {"GetRTUStatus", "OK", "GetRTUStatus: Device State: 1"}, // ready only
        {"GetRTURevision", "OK", "GetRTURevision: Revision: 2.7 Week: 23 Year: 2024 Num: 1052 Patch: 3"},
        {"SetRTUExposureTime 1500", "OK", "SetRTUExposureTime: Exposure time set to 1500"},
        {"SetRTUFPS 30", "OK", "SetFPS: FPS set to 30"},
        {"GetRTUFPS", "OK", "GetRTUFPS: RTU FPS: 30"},
        {"GetRTUIOConfig", "OK",
         "GetRTUIOConfig:  Configuration value=0 func=0 config=0 inverted=0 on_delay_enb=0 "
         "off_delay_enb=0 pulse_enb=0 on_delay_time=0 off_delay_time=0 pulse_time=0"},
        {"SetRTUIOConfig 2 1 3 1 1 0 5 7", "OK",
         "SetRTUIOConfig:  Configuration set to type=1 func=3 config=1 invert=1 on_delay_enb=0 "
         "off_delay_enb=1 pulse_enb=1 on_delay_time=0 off_delay_time=5 pulse_time=7"},
        {"GetRTUIOConfig 2", "OK",
         "GetRTUIOConfig:  Configuration value=1 func=3 config=1 inverted=1 on_delay_enb=0 "
         "off_delay_enb=1 pulse_enb=1 on_delay_time=0 off_delay_time=5 pulse_time=7"},
        // Omitted configuration arguments default to 0.
        {"SetRTUIOConfig 4 2 0 0 0 9", "OK",
         "SetRTUIOConfig:  Configuration set to type=2 func=0 config=0 invert=0 on_delay_enb=1 "
         "off_delay_enb=0 pulse_enb=0 on_delay_time=9 off_delay_time=0 pulse_time=0"},
        {"SetRTUIOValue 2 1", "OK", "SetRTUIOValue: IO Value set to 1 on pin 2"},
        {"GetRTUIOValue 2", "OK", "GetRTUIOValue: IO Value is 1 on pin 2"},
        {"RTUManualTrigger", "OK", "ManualTrigger: Manual trigger fired."},
        {"SetRTUTriggerMode 1", "OK", "SetTriggerMode: Trigger mode set to 1"},
        {"SetRTUAnalogOutputState 1", "OK", "SetRTUAnalogOutputState: Analog output enabled"},
        {"GetRTUAnalogOutputState", "OK", "GetRTUAnalogOutputState: RTU Analog Output State: enabled"},
        {"SetRTUAnalogOutputType 1", "OK", "SetRTUAnalogOutputType: voltage"},
        {"GetRTUAnalogOutputType", "OK", "GetRTUAnalogOutputType: RTU Analog Output Type: voltage"},
        {"SetRTUAnalogOutputVoltage 5000", "OK", "SetRTUAnalogOutputVoltage: Analog output voltage set to 5000"},
        {"GetRTUAnalogOutputVoltage", "OK", "GetRTUAnalogOutputVoltage: RTU Analog Output Voltage: 5000"},
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
        {"GetRTUExposureProhibitedTime", "OK",
         "GetExposureProhibitedTime: Exposure prohibited time: 250 microseconds"},
        {"SetRTUExposureOffset -20", "OK", "SetExposureOffset: Exposure offset set to -20 microseconds"},
        {"GetRTUExposureOffset", "OK", "GetExposureOffset: Exposure offset: -20 microseconds"},
        {"SetRTUAcquisitionEnable 0", "OK", "SetAcquisitionEnable: Acquisition disabled"},
        {"SetRTUAnalogOutputType 0", "OK", "SetRTUAnalogOutputType: current"},
        {"GetRTUAnalogOutputType", "OK", "GetRTUAnalogOutputType: RTU Analog Output Type: current"},
        // Words beyond the declared ones are ignored.
        {"GetRTUFPS 1 2", "OK", "GetRTUFPS: RTU FPS: 30"},
        {"SetRTUFPS 25 99", "OK", "SetFPS: FPS set to 25"},
    });
    auto& bus = h.board().sensorBus();
    EXPECT_EQ(bus.pulses(), 1u);
    EXPECT_EQ(bus.exposureUs(), 1500u);
    EXPECT_EQ(bus.framesPerSecond(), 25u);
}

TEST(RTURoutes, NegativeNumbersReachTheUnitAsTheirUnsigned32Bits)
{
    RouterHarness h;
    expectExchanges(h, {
        {"SetRTUFPS -1", "OK", "SetFPS: FPS set to 4294967295"},
        {"GetRTUFPS", "OK", "GetRTUFPS: RTU FPS: 4294967295"},
        {"SetRTUExposureTime -2", "OK", "SetRTUExposureTime: Exposure time set to 4294967294"},
        // The analog output keeps 16 bits; the set replies show the signed value sent.
        {"SetRTUAnalogOutputVoltage -1", "OK", "SetRTUAnalogOutputVoltage: Analog output voltage set to -1"},
        {"GetRTUAnalogOutputVoltage", "OK", "GetRTUAnalogOutputVoltage: RTU Analog Output Voltage: 65535"},
        {"SetRTUExposureOffset -1", "OK", "SetExposureOffset: Exposure offset set to -1 microseconds"},
        {"SetRTUExposureProhibitedTime -1", "OK",
         "SetExposureProhibitedTime: Exposure prohibited time set to 4294967295 microseconds"},
    });
    EXPECT_EQ(h.board().sensorBus().framesPerSecond(), 4294967295u);
    EXPECT_EQ(h.board().sensorBus().exposureUs(), 4294967294u);
}

TEST(RTURoutes, InternalTemperatureIsTheUnitsReadingInDegrees)
{
    RouterHarness h;
    auto [status, message] = h.run("RTUGetInternalTemperature");
    EXPECT_EQ(status, "OK");
    const std::string prefix = "InternalTemperature: ";
    ASSERT_EQ(message.rfind(prefix, 0), 0u) << message;
    size_t parsed = 0;
    const double degrees = std::stod(message.substr(prefix.size()), &parsed);
    EXPECT_EQ(prefix.size() + parsed, message.size()) << message; // nothing after the number
    EXPECT_GE(degrees, 37.5); // the emulated unit powers up at 38 and warms by 6 degrees
    EXPECT_LE(degrees, 44.5);
}

TEST(RTURoutes, RangeChecksOfTriggerModeAndDeviceState)
{
    RouterHarness h;
    const char* invalidMode =
        "SetTriggerMode: Invalid trigger mode. Must be 0 (manual) or 1 (continuous).";
    expectExchanges(h, {
        {"SetRTUTriggerMode 1", "OK", "SetTriggerMode: Trigger mode set to 1"},
        {"SetRTUTriggerMode 2", "ErrorRuntimeError", invalidMode},
        {"SetRTUTriggerMode -1", "ErrorRuntimeError", invalidMode},
        {"SetRTUTriggerMode 0", "OK", "SetTriggerMode: Trigger mode set to 0"},
        {"SetRTUDeviceState 6", "OK", "SetDeviceState: Device state set to 6"},
    });
    EXPECT_EQ(h.board().sensorBus().trigger(),
              utils::platform::emulated::SensorBus::Trigger::manual);

    for (const char* command : {"SetRTUDeviceState 0", "SetRTUDeviceState 7", "SetRTUDeviceState -1"}) {
        EXPECT_THAT([&] { h.run(command); },
                    testing::ThrowsMessage<utils::UtilsOutOfRangeError>("Device state out of range [1, 6]"))
            << command;
    }
    // Refused before the unit: the state stays, and the group is free again.
    expectExchanges(h, {{"GetRTUDeviceState", "OK", "GetDeviceState: Device state: 6"}});
    expectGroupFree(h);
}

// Bad argument lists are not replies: the exceptions leave the handler for the worker.
TEST(RTURoutes, MissingAndMalformedArgumentsLeaveTheHandler)
{
    RouterHarness h;
    EXPECT_THROW(h.run("SetRTUFPS"), std::out_of_range);
    EXPECT_THROW(h.run("GetRTUIOValue"), std::out_of_range);
    EXPECT_THROW(h.run("SetRTUIOValue 1"), std::out_of_range); // takes the pin and the value
    EXPECT_THROW(h.run("SetRTUIOValue 1 on"), std::invalid_argument);
    EXPECT_THROW(h.run("SetRTUFPS 4294967296"), std::out_of_range); // beyond a signed int
    EXPECT_THROW(h.run("SetRTUIOConfig 1 0 0 0 0 3000000000"), std::out_of_range);
    // Declared numeric arguments are checked before any handler runs.
    EXPECT_THROW(h.run("SetRTUFPS fast"), utils::UtilsRuntimeError);
    EXPECT_THROW(h.run("GetRTUIOConfig x"), utils::UtilsRuntimeError);

    expectGroupFree(h);
}

TEST(RTURoutes, DeviceFailuresBecomeIOExceptionRepliesAfterThePrefix)
{
    RouterHarness h;
    h.board().faults().inject(rtuNode, Fault::ioError);
    // One route of each shape; they all share the same frame.
    const std::pair<const char*, const char*> cases[] = {
        {"GetRTURevision", "GetRTURevision: "},
        {"SetRTUIOConfig 1 0 0 0 0 0 0 0", "SetRTUIOConfig: "},
        {"SetRTUIOValue 1 1", "SetRTUIOValue: "},
        {"RTUManualTrigger", "ManualTrigger: "},
        {"SetRTUTriggerMode 1", "SetTriggerMode: "},
        {"SetRTUAnalogOutputState 1", "SetRTUAnalogOutputState: "},
        {"SetRTUAnalogOutputType 1", "SetRTUAnalogOutputType: "},
        {"SetRTUDeviceState 3", "SetDeviceState: "},
        {"GetRTUExposureOffset", "GetExposureOffset: "},
        {"RTUGetInternalTemperature", "InternalTemperature: "},
    };
    for (const auto& [command, prefix] : cases) {
        SCOPED_TRACE(command);
        auto [status, message] = h.run(command);
        EXPECT_EQ(status, "ErrorIOException");
        EXPECT_EQ(message.rfind(prefix, 0), 0u) << message;
        EXPECT_NE(message.find(rtuNode), std::string::npos) << message; // the driver's text
    }
    // A pin the unit does not have is the driver's I/O error as well.
    h.board().faults().clear(rtuNode);
    auto [status, message] = h.run("GetRTUIOValue 6");
    EXPECT_EQ(status, "ErrorIOException");
    EXPECT_EQ(message.rfind("GetRTUIOValue: ", 0), 0u) << message;
}

// Active-low lines, read back as the board shows them.
TEST(RTURoutes, AnalogOutputLinesFollowTheUnitOnTheBoard)
{
    RouterHarness h;
    struct Case {
        const char* command;
        const char* enableLevel;
        const char* typeLevel;
    };
    const Case cases[] = {
        {"SetRTUAnalogOutputState 1", "0", "1"},
        {"SetRTUAnalogOutputType 1", "0", "0"},
        {"SetRTUAnalogOutputState 0", "1", "0"},
        {"SetRTUAnalogOutputType 0", "1", "1"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.command);
        ASSERT_EQ(h.run(c.command).first, "OK");
        EXPECT_EQ(lineText(h, enableLine).substr(0, 1), c.enableLevel);
        EXPECT_EQ(lineText(h, typeLine).substr(0, 1), c.typeLevel);
    }
}

// The state route changes the unit before its line; the type route writes its line first.
TEST(RTURoutes, LineFailuresAndWhatTheUnitKeeps)
{
    struct Case {
        const char* line;
        const char* route;
        const char* readBack;
        const char* unitAfter;
    };
    const Case cases[] = {
        {enableLine, "SetRTUAnalogOutputState", "GetRTUAnalogOutputState",
         "GetRTUAnalogOutputState: RTU Analog Output State: enabled"},
        {typeLine, "SetRTUAnalogOutputType", "GetRTUAnalogOutputType",
         "GetRTUAnalogOutputType: RTU Analog Output Type: current"},
    };
    for (const auto& c : cases) {
        for (Fault fault : {Fault::openFails, Fault::ioError}) {
            const std::string message = std::string(c.route) + ": " +
                (fault == Fault::openFails ? std::string("Failed to open ") + c.line + " for writing"
                                           : std::string("Failed to write to ") + c.line);
            SCOPED_TRACE(message);
            RouterHarness h;
            h.board().faults().inject(c.line, fault);
            expectExchanges(h, {{(std::string(c.route) + " 1").c_str(), "ErrorIOException", message.c_str()}});
            h.board().faults().clear(c.line);
            expectExchanges(h, {{c.readBack, "OK", c.unitAfter}});
        }
    }
}

} // namespace
