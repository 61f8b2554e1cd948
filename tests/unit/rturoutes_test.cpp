#include "support/routerharness.h"
#include "utils/base/exceptions.h"
#include "utils/platform/emulated/textfile.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <regex>
#include <stdexcept>
#include <string>

namespace {

using k52test::expectExchanges;
using k52test::RouterHarness;
using utils::platform::emulated::Fault;
using utils::platform::emulated::TextFile;

constexpr const char* rtuNode = "/dev/k52rtu";
constexpr const char* enableLine = "/sys/class/gpio/gpio431/value";
constexpr const char* typeLine = "/sys/class/gpio/gpio479/value";

char lineLevel(RouterHarness& h, const char* path)
{
    return std::dynamic_pointer_cast<TextFile>(h.board().device(path))->content().at(0);
}

// In order: each setter is read back through the unit.
TEST(RTURoutes, RepliesAndReadsBackThroughTheUnit)
{
    RouterHarness h;
    const char* invalidMode = "SetTriggerMode: Invalid trigger mode. Must be 0 (manual) or 1 (continuous).";
    expectExchanges(h, {
        {"SetRTUTriggerMode 0", "OK", "SetTriggerMode: Trigger mode set to 0"},
        {"SetRTUTriggerMode 2", "ErrorRuntimeError", invalidMode},
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
        {"GetRTUAnalogOutputType", "OK", "GetRTUAnalogOutputType: RTU Analog Output Type: current"},
        {"SetRTUFPS 25 99", "OK", "SetFPS: FPS set to 25"}, // extra words are ignored
    });
    EXPECT_TRUE(std::regex_match(h.run("RTUGetInternalTemperature").second,
                                 std::regex("InternalTemperature: [0-9]+\\.[0-9]+")));
    // Not replies: state 0 wraps below the range, the other two do not parse as 32 bits.
    EXPECT_THAT([&] { h.run("SetRTUDeviceState 0"); },
                testing::ThrowsMessage<utils::UtilsOutOfRangeError>("Device state out of range [1, 6]"));
    EXPECT_THROW(h.run("SetRTUFPS 4294967296"), std::out_of_range);
    EXPECT_THROW(h.run("SetRTUIOValue 1 on"), std::invalid_argument);
    expectExchanges(h, {{"GetRTUDeviceState", "OK", "GetDeviceState: Device state: 6"}});
}

// Active-low lines. The state route changes the unit before its line; the type route writes
// its line first, so a failed line leaves the unit's type as it was.
TEST(RTURoutes, AnalogOutputLines)
{
    RouterHarness h;
    for (const auto& [command, enable, type] : {std::tuple{"SetRTUAnalogOutputState 1", '0', '1'},
                                                std::tuple{"SetRTUAnalogOutputType 1", '0', '0'},
                                                std::tuple{"SetRTUAnalogOutputState 0", '1', '0'}}) {
        ASSERT_EQ(h.run(command).first, "OK") << command;
        EXPECT_EQ(lineLevel(h, enableLine), enable) << command;
        EXPECT_EQ(lineLevel(h, typeLine), type) << command;
    }
    h.board().faults().inject(enableLine, Fault::ioError);
    h.board().faults().inject(typeLine, Fault::ioError);
    expectExchanges(h, {
        {"SetRTUAnalogOutputState 1", "ErrorIOException",
         "SetRTUAnalogOutputState: Failed to write to /sys/class/gpio/gpio431/value"},
        {"GetRTUAnalogOutputState", "OK", "GetRTUAnalogOutputState: RTU Analog Output State: enabled"},
        {"SetRTUAnalogOutputType 0", "ErrorIOException",
         "SetRTUAnalogOutputType: Failed to write to /sys/class/gpio/gpio479/value"},
        {"GetRTUAnalogOutputType", "OK", "GetRTUAnalogOutputType: RTU Analog Output Type: voltage"},
    });
}

} // namespace
