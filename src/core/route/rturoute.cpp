#include "core/route/families.h"
#include "utils/base/exceptions.h"
#include "utils/io/iortu.h"
#include "utils/regmap/rturegisters.h"
#include "utils/io/sysfsvalue.h"

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace k52app {

namespace {

using utils::IORTU;
using PinConfig = utils::rtu_pin_config_t;

// Offsets and the analog output's set values are signed quantities carried in 32 bits.
std::string signedText(unsigned value) { return std::to_string(static_cast<int32_t>(value)); }

std::string enabledText(bool enabled) { return enabled ? "enabled" : "disabled"; }

PinConfig pinConfigFromArguments(const RouteCall& call)
{
    PinConfig config;
    config.setPin(call.u32(0));
    config[PinConfig::type].value = call.u32(1);
    config[PinConfig::func].value = call.u32(2);
    config[PinConfig::config].value = call.u32(3);
    config[PinConfig::invert].value = call.u32(4);
    config[PinConfig::onDelayTime].value = call.u32(5);
    config[PinConfig::offDelayTime].value = call.u32(6);
    config[PinConfig::pulseTime].value = call.u32(7);
    // A timing is switched on exactly when it has a time; clients never send the enables.
    config[PinConfig::onDelayEnable].value = config[PinConfig::onDelayTime].value != 0;
    config[PinConfig::offDelayEnable].value = config[PinConfig::offDelayTime].value != 0;
    config[PinConfig::pulseEnable].value = config[PinConfig::pulseTime].value != 0;
    return config;
}

// The ten parameters in record order; set and get label the first and the invert differently.
std::string describePinConfig(const PinConfig& config, const std::string& typeLabel,
                              const std::string& invertLabel)
{
    auto value = [&config](PinConfig::Index i) { return std::to_string(config[i].value); };
    return typeLabel + value(PinConfig::type) + " func=" + value(PinConfig::func) +
           " config=" + value(PinConfig::config) + invertLabel + value(PinConfig::invert) +
           " on_delay_enb=" + value(PinConfig::onDelayEnable) +
           " off_delay_enb=" + value(PinConfig::offDelayEnable) +
           " pulse_enb=" + value(PinConfig::pulseEnable) +
           " on_delay_time=" + value(PinConfig::onDelayTime) +
           " off_delay_time=" + value(PinConfig::offDelayTime) +
           " pulse_time=" + value(PinConfig::pulseTime);
}

std::string setPinConfig(RouteCall& call)
{
    PinConfig config = pinConfigFromArguments(call);
    call.device<IORTU>().setIOConfig(config);
    return describePinConfig(config, " Configuration set to type=", " invert=");
}

std::string getPinConfig(RouteCall& call)
{
    PinConfig config;
    config.setPin(call.u32(0));
    call.device<IORTU>().getIOConfig(config);
    return describePinConfig(config, " Configuration value=", " inverted=");
}

std::string describeRevision(RouteCall& call)
{
    const utils::IORTURevision revision = call.device<IORTU>().getRevision();
    return "Revision: " + std::to_string(revision.revisionMajor) + "." +
           std::to_string(revision.revisionMinor) + " Week: " + std::to_string(revision.week) +
           " Year: " + std::to_string(revision.year) + " Num: " + std::to_string(revision.number) +
           " Patch: " + std::to_string(revision.patch);
}

std::string setTriggerMode(RouteCall& call)
{
    const unsigned mode = call.u32(0);
    if (mode > 1)
        throw utils::UtilsRuntimeError("Invalid trigger mode. Must be 0 (manual) or 1 (continuous).");
    call.device<IORTU>().setAutoTrigger(static_cast<utils::IORTUTriggerMode>(mode));
    return "Trigger mode set to " + std::to_string(mode);
}

std::string setDeviceState(RouteCall& call)
{
    const unsigned state = call.u32(0);
    // Not a reply: a state outside the unit's six is a caller's bug and goes to the worker.
    if (state - 1 > 5)
        throw utils::UtilsOutOfRangeError("Device state out of range [1, 6]");
    call.device<IORTU>().setDeviceState(static_cast<utils::IORTUState>(state));
    return "Device state set to " + std::to_string(state);
}

std::string setAnalogOutputState(RouteCall& call)
{
    const bool enable = call.u32(0) != 0;
    call.device<IORTU>().setAnalogOutputState(enable);
    utils::writeActiveLowLine(utils::rtu_registers::analogOutputEnableLinePath, enable);
    return "Analog output " + enabledText(enable);
}

// The line goes first so that a failed write leaves the unit untouched. The reply names the
// opposite of what the description says; clients of this route rely on that.
std::string setAnalogOutputType(RouteCall& call)
{
    const bool current = call.u32(0) != 0;
    utils::writeActiveLowLine(utils::rtu_registers::analogOutputTypeLinePath, current);
    call.device<IORTU>().setAnalogOutputType(current);
    return current ? "voltage" : "current";
}

// Every RTU route holds the unit's group for its whole run and answers after its prefix,
// which for several routes is not the route's name.
Route rtu(std::string name, std::string help, std::vector<utils::SpinnerArgumentMetaData> arguments,
          std::string prefix, std::function<std::string(RouteCall&)> text)
{
    return {std::move(name), std::move(help), std::move(arguments), {K52ResourceGroups::RTU},
            std::move(prefix), "Error", Converts::deviceErrors, {},
            [text = std::move(text)](RouteCall& call) { return call.ok(text(call)); }};
}

} // namespace

std::vector<Route> rtuRoutes(const RouteServices&)
{
    const std::vector<utils::SpinnerArgumentMetaData> none;
    const std::vector<utils::SpinnerArgumentMetaData> integer{utils::IntegerArgumentMetaData};
    const std::vector<utils::SpinnerArgumentMetaData> pinConfig{
        utils::numericalArgument("pin", "the desiered io pin", 0, 5, "0"),
        utils::numericalArgument("type", "the desiered IO type configuration: 0-npn 1-pnp 2-pupu", 0, 2, "0"),
        utils::numericalArgument("function", "the desiered IO function configuration: 0-Out 1-OutIll 2-In 3-InTrigIm "
                    "4-InQuadrA 5-InQuadrB", 0, 5, "0"),
        utils::numericalArgument("mode", "the desiered IO mode configuration: 0-NO 1-NC", 0, 1, "0"),
        utils::numericalArgument("invert", "the desiered IO invert configuration: 0-NO 1-INV", 0, 1, "0"),
        utils::numericalArgument("on_delay_time", "the delay to turn the io on", 0, 4294967295.0, "0"),
        utils::numericalArgument("off_delay_time", "the delay to turn the io off", 0, 4294967295.0, "0"),
        utils::numericalArgument("pulse_time", "the io pulse time", 0, 4294967295.0, "0"),
    };
    const std::vector<utils::SpinnerArgumentMetaData> onePin{utils::numericalArgument("pin", "the desiered io pin", 0, 5, "0")};

    return {
        rtu("GetRTUStatus", "Gets the status of the unit", none, "GetRTUStatus: ",
            [](RouteCall& call) { return "Device State: " + std::to_string(call.device<IORTU>().getState()); }),
        rtu("GetRTURevision", "Gets the revision of the unit's driver", none, "GetRTURevision: ", describeRevision),
        rtu("SetRTUExposureTime", "Sets the RTU exposure time", integer, "SetRTUExposureTime: ",
            [](RouteCall& call) {
                const unsigned time = call.u32(0);
                call.device<IORTU>().setExposureTime(time);
                return "Exposure time set to " + std::to_string(time);
            }),
        rtu("GetRTUFPS", "Gets the RTU configured FPS", none, "GetRTUFPS: ",
            [](RouteCall& call) { return "RTU FPS: " + std::to_string(call.device<IORTU>().getFPS()); }),
        rtu("SetRTUIOConfig", "Sets the RTU config", pinConfig, "SetRTUIOConfig: ", setPinConfig),
        rtu("GetRTUIOConfig", "Gets the current configuration", onePin, "GetRTUIOConfig: ", getPinConfig),
        // Declared with one argument, but it takes the pin and then the value.
        rtu("SetRTUIOValue", "Sets the RTU IO value", integer, "SetRTUIOValue: ",
            [](RouteCall& call) {
                const unsigned pin = call.u32(0);
                const unsigned value = call.u32(1);
                call.device<IORTU>().setIOValue(pin, value);
                return "IO Value set to " + std::to_string(value) + " on pin " + std::to_string(pin);
            }),
        rtu("GetRTUIOValue", "Gets the IO value", integer, "GetRTUIOValue: ",
            [](RouteCall& call) {
                const unsigned pin = call.u32(0);
                return "IO Value is " + std::to_string(call.device<IORTU>().getIOValue(pin)) + " on pin " +
                       std::to_string(pin);
            }),
        rtu("RTUManualTrigger", "Triggers the RTU manually", none, "ManualTrigger: ",
            [](RouteCall& call) {
                call.device<IORTU>().manualTrigger();
                return std::string("Manual trigger fired.");
            }),
        rtu("SetRTUTriggerMode", "Sets the trigger mode of the RTU", integer, "SetTriggerMode: ", setTriggerMode),
        rtu("SetRTUFPS", "Sets the FPS of the RTU", integer, "SetFPS: ",
            [](RouteCall& call) {
                const unsigned fps = call.u32(0);
                call.device<IORTU>().setFPS(fps);
                return "FPS set to " + std::to_string(fps);
            }),
        rtu("SetRTUAnalogOutputState", "Sets the RTU analog output state (0 = disable, 1 = enable)", integer,
            "SetRTUAnalogOutputState: ", setAnalogOutputState),
        rtu("GetRTUAnalogOutputState", "Gets the RTU analog output state", none, "GetRTUAnalogOutputState: ",
            [](RouteCall& call) {
                return "RTU Analog Output State: " + enabledText(call.device<IORTU>().getAnalogOutputState());
            }),
        rtu("SetRTUAnalogOutputType", "Sets the RTU analog output type (0 = voltage, 1 = current)", integer,
            "SetRTUAnalogOutputType: ", setAnalogOutputType),
        rtu("GetRTUAnalogOutputType", "Gets the RTU analog output type", none, "GetRTUAnalogOutputType: ",
            [](RouteCall& call) {
                return std::string("RTU Analog Output Type: ") +
                       (call.device<IORTU>().getAnalogOutputType() ? "voltage" : "current");
            }),
        rtu("SetRTUAnalogOutputVoltage", "Sets the RTU analog output Voltage", integer, "SetRTUAnalogOutputVoltage: ",
            [](RouteCall& call) {
                const unsigned voltage = call.u32(0);
                call.device<IORTU>().setAnalogOutputVoltage(voltage);
                return "Analog output voltage set to " + signedText(voltage);
            }),
        rtu("GetRTUAnalogOutputVoltage", "Gets the RTU analog output Voltage", none, "GetRTUAnalogOutputVoltage: ",
            [](RouteCall& call) {
                return "RTU Analog Output Voltage: " + std::to_string(call.device<IORTU>().getAnalogOutputVoltage());
            }),
        rtu("SetRTUAnalogOutputCurrent", "Sets the RTU analog output current", integer, "SetRTUAnalogOutputCurrent: ",
            [](RouteCall& call) {
                const unsigned current = call.u32(0);
                call.device<IORTU>().setAnalogOutputCurrent(current);
                return "Analog output current set to " + signedText(current);
            }),
        rtu("GetRTUAnalogOutputCurrent", "Gets the RTU analog output current", none, "GetRTUAnalogOutputCurrent: ",
            [](RouteCall& call) {
                return "RTU Analog Output current: " + std::to_string(call.device<IORTU>().getAnalogOutputCurrent());
            }),
        rtu("SetRTUStatusLED", "Sets the status LED", integer, "SetStatusLED: ",
            [](RouteCall& call) {
                const unsigned pattern = call.u32(0);
                call.device<IORTU>().setStatusLED(pattern);
                return "Status LED set to " + std::to_string(pattern);
            }),
        rtu("SetRTUDeviceState", "Sets the device state", integer, "SetDeviceState: ", setDeviceState),
        rtu("GetRTUDeviceState", "Gets the device state", none, "GetDeviceState: ",
            [](RouteCall& call) {
                return "Device state: " + std::to_string(static_cast<uint32_t>(call.device<IORTU>().getDeviceState()));
            }),
        // Only 0 is the imx296 timing; the unit runs every other mode as the imx567.
        rtu("SetRTUImager", "Sets the Image sensor type", integer, "SetImager: ",
            [](RouteCall& call) {
                const unsigned mode = call.u32(0);
                call.device<IORTU>().setImageSensor(static_cast<utils::IORTUCameraMode>(mode));
                return std::string("Imager set to ") + (mode == 0 ? "'imx296'" : "'imx567'");
            }),
        rtu("SetRTUExposureProhibitedTime", "Sets the exposure prohibited time", integer, "SetExposureProhibitedTime: ",
            [](RouteCall& call) {
                const unsigned time = call.u32(0);
                call.device<IORTU>().setExposureProhibitedTime(time);
                return "Exposure prohibited time set to " + std::to_string(time) + " microseconds";
            }),
        rtu("GetRTUExposureProhibitedTime", "Gets the exposure prohibited time", none, "GetExposureProhibitedTime: ",
            [](RouteCall& call) {
                return "Exposure prohibited time: " + std::to_string(call.device<IORTU>().getExposureProhibitedTime()) +
                       " microseconds";
            }),
        rtu("SetRTUExposureOffset", "Sets the exposure offset", integer, "SetExposureOffset: ",
            [](RouteCall& call) {
                const unsigned offset = call.u32(0);
                call.device<IORTU>().setExposureOffset(offset);
                return "Exposure offset set to " + signedText(offset) + " microseconds";
            }),
        rtu("GetRTUExposureOffset", "Gets the exposure offset", none, "GetExposureOffset: ",
            [](RouteCall& call) {
                return "Exposure offset: " + signedText(call.device<IORTU>().getExposureOffset()) + " microseconds";
            }),
        rtu("SetRTUAcquisitionEnable", "Sets the acquisition enable", integer, "SetAcquisitionEnable: ",
            [](RouteCall& call) {
                const bool enable = call.u32(0) != 0;
                call.device<IORTU>().enableAcquisition(enable);
                return "Acquisition " + enabledText(enable);
            }),
        rtu("RTUTriggerHeartbeat", "Triggers the heartbeat", none, "TriggerHeartbeat: ",
            [](RouteCall& call) {
                call.device<IORTU>().triggerHeartbeat();
                return std::string("Heartbeat triggered.");
            }),
        rtu("RTUGetInternalTemperature", "Gets the current internal temperature from RTU unit", none,
            "InternalTemperature: ",
            [](RouteCall& call) { return std::to_string(call.device<IORTU>().getInternalTemperature()); }),
    };
}

} // namespace k52app
