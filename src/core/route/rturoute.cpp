#include "core/commandrouter.h"
#include "core/route/deviceroute.h"
#include "core/k52resourcemanager.h"
#include "core/route/sysfsvalue.h"
#include "utils/base/exceptions.h"
#include "utils/base/strings.h"
#include "utils/io/iortu.h"

#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

namespace k52app {

namespace {

using Arguments = std::vector<std::string>;
using utils::IORTU;
using PinConfig = utils::rtu_pin_config_t;

// What one RTU route does with the unit: the text that follows the route's prefix.
using RTUAction = std::function<std::string(const IORTU&, const Arguments&)>;

// Clients send signed 32-bit numbers; the unit takes the same 32 bits as unsigned, so -1
// arrives as 4294967295.
unsigned unsignedArgument(const Arguments& arguments, size_t position)
{
    return static_cast<unsigned>(std::stoi(arguments.at(position)));
}

// Offsets and the analog output's set values are signed quantities carried in 32 bits.
std::string signedText(unsigned value) { return std::to_string(static_cast<int32_t>(value)); }

std::string enabledText(bool enabled) { return enabled ? "enabled" : "disabled"; }

PinConfig pinConfigFromArguments(const Arguments& arguments)
{
    PinConfig config;
    config.setPin(unsignedArgument(arguments, 0));
    config[PinConfig::type].value = unsignedArgument(arguments, 1);
    config[PinConfig::func].value = unsignedArgument(arguments, 2);
    config[PinConfig::config].value = unsignedArgument(arguments, 3);
    config[PinConfig::invert].value = unsignedArgument(arguments, 4);
    config[PinConfig::onDelayTime].value = unsignedArgument(arguments, 5);
    config[PinConfig::offDelayTime].value = unsignedArgument(arguments, 6);
    config[PinConfig::pulseTime].value = unsignedArgument(arguments, 7);
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

std::string setPinConfig(const IORTU& rtu, const Arguments& arguments)
{
    PinConfig config = pinConfigFromArguments(arguments);
    rtu.setIOConfig(config);
    return describePinConfig(config, " Configuration set to type=", " invert=");
}

std::string getPinConfig(const IORTU& rtu, const Arguments& arguments)
{
    PinConfig config;
    config.setPin(unsignedArgument(arguments, 0));
    rtu.getIOConfig(config);
    return describePinConfig(config, " Configuration value=", " inverted=");
}

std::string describeRevision(const IORTU& rtu, const Arguments&)
{
    const utils::IORTURevision revision = rtu.getRevision();
    return "Revision: " + std::to_string(revision.revisionMajor) + "." +
           std::to_string(revision.revisionMinor) + " Week: " + std::to_string(revision.week) +
           " Year: " + std::to_string(revision.year) + " Num: " + std::to_string(revision.number) +
           " Patch: " + std::to_string(revision.patch);
}

std::string setTriggerMode(const IORTU& rtu, const Arguments& arguments)
{
    const unsigned mode = unsignedArgument(arguments, 0);
    if (mode > 1)
        throw utils::UtilsRuntimeError("Invalid trigger mode. Must be 0 (manual) or 1 (continuous).");
    rtu.setAutoTrigger(static_cast<utils::IORTUTriggerMode>(mode));
    return "Trigger mode set to " + std::to_string(mode);
}

std::string setDeviceState(const IORTU& rtu, const Arguments& arguments)
{
    const unsigned state = unsignedArgument(arguments, 0);
    // Not a reply: a state outside the unit's six is a caller's bug and goes to the worker.
    if (state - 1 > 5)
        throw utils::UtilsOutOfRangeError("Device state out of range [1, 6]");
    rtu.setDeviceState(static_cast<utils::IORTUState>(state));
    return "Device state set to " + std::to_string(state);
}

std::string setAnalogOutputState(const IORTU& rtu, const Arguments& arguments)
{
    const bool enable = unsignedArgument(arguments, 0) != 0;
    rtu.setAnalogOutputState(enable);
    writeActiveLowLine(analogOutputEnableLinePath, enable);
    return "Analog output " + enabledText(enable);
}

// The line goes first so that a failed write leaves the unit untouched. The reply names the
// opposite of what the description says; clients of this route rely on that.
std::string setAnalogOutputType(const IORTU& rtu, const Arguments& arguments)
{
    const bool current = unsignedArgument(arguments, 0) != 0;
    writeActiveLowLine(analogOutputTypeLinePath, current);
    rtu.setAnalogOutputType(current);
    return current ? "voltage" : "current";
}

} // namespace

void K52CommandRouter::registerRTUCommands()
{
    // Every RTU route holds the RTU group for its whole run and answers after its prefix.
    auto route = [this](std::string prefix, RTUAction action) -> RouteHandler {
        return deviceRoute<IORTU>(resources_, K52ResourceGroups::RTU, &K52ResourceManager::rtu,
                                  RouteReplyBuilder("Error", std::move(prefix)), std::move(action));
    };
    const utils::SpinnerMetaData none;
    const utils::SpinnerMetaData integer{{utils::IntegerArgumentMetaData}};
    const utils::SpinnerMetaData pinConfig{{
        utils::numericalArgument("pin", "the desiered io pin", 0, 5, "0"),
        utils::numericalArgument("type", "the desiered IO type configuration: 0-npn 1-pnp 2-pupu", 0, 2, "0"),
        utils::numericalArgument("function", "the desiered IO function configuration: 0-Out 1-OutIll 2-In 3-InTrigIm "
                    "4-InQuadrA 5-InQuadrB", 0, 5, "0"),
        utils::numericalArgument("mode", "the desiered IO mode configuration: 0-NO 1-NC", 0, 1, "0"),
        utils::numericalArgument("invert", "the desiered IO invert configuration: 0-NO 1-INV", 0, 1, "0"),
        utils::numericalArgument("on_delay_time", "the delay to turn the io on", 0, 4294967295.0, "0"),
        utils::numericalArgument("off_delay_time", "the delay to turn the io off", 0, 4294967295.0, "0"),
        utils::numericalArgument("pulse_time", "the io pulse time", 0, 4294967295.0, "0"),
    }};
    const utils::SpinnerMetaData pin{{utils::numericalArgument("pin", "the desiered io pin", 0, 5, "0")}};

    registerRoutes({
        {"GetRTUStatus", "Gets the status of the unit", none,
         route("GetRTUStatus: ",
               [](const IORTU& rtu, const Arguments&) {
                   return "Device State: " + std::to_string(rtu.getState());
               })},
        {"GetRTURevision", "Gets the revision of the unit's driver", none,
         route("GetRTURevision: ", describeRevision)},
        {"SetRTUExposureTime", "Sets the RTU exposure time", integer,
         route("SetRTUExposureTime: ",
               [](const IORTU& rtu, const Arguments& arguments) {
                   const unsigned time = unsignedArgument(arguments, 0);
                   rtu.setExposureTime(time);
                   return "Exposure time set to " + std::to_string(time);
               })},
        {"GetRTUFPS", "Gets the RTU configured FPS", none,
         route("GetRTUFPS: ",
               [](const IORTU& rtu, const Arguments&) {
                   return "RTU FPS: " + std::to_string(rtu.getFPS());
               })},
        {"SetRTUIOConfig", "Sets the RTU config", pinConfig, route("SetRTUIOConfig: ", setPinConfig)},
        {"GetRTUIOConfig", "Gets the current configuration", pin,
         route("GetRTUIOConfig: ", getPinConfig)},
        // Declared with one argument, but it takes the pin and then the value.
        {"SetRTUIOValue", "Sets the RTU IO value", integer,
         route("SetRTUIOValue: ",
               [](const IORTU& rtu, const Arguments& arguments) {
                   const unsigned pin = unsignedArgument(arguments, 0);
                   const unsigned value = unsignedArgument(arguments, 1);
                   rtu.setIOValue(pin, value);
                   return "IO Value set to " + std::to_string(value) + " on pin " +
                          std::to_string(pin);
               })},
        {"GetRTUIOValue", "Gets the IO value", integer,
         route("GetRTUIOValue: ",
               [](const IORTU& rtu, const Arguments& arguments) {
                   const unsigned pin = unsignedArgument(arguments, 0);
                   return "IO Value is " + std::to_string(rtu.getIOValue(pin)) + " on pin " +
                          std::to_string(pin);
               })},
        {"RTUManualTrigger", "Triggers the RTU manually", none,
         route("ManualTrigger: ",
               [](const IORTU& rtu, const Arguments&) {
                   rtu.manualTrigger();
                   return std::string("Manual trigger fired.");
               })},
        {"SetRTUTriggerMode", "Sets the trigger mode of the RTU", integer,
         route("SetTriggerMode: ", setTriggerMode)},
        {"SetRTUFPS", "Sets the FPS of the RTU", integer,
         route("SetFPS: ",
               [](const IORTU& rtu, const Arguments& arguments) {
                   const unsigned fps = unsignedArgument(arguments, 0);
                   rtu.setFPS(fps);
                   return "FPS set to " + std::to_string(fps);
               })},
        {"SetRTUAnalogOutputState", "Sets the RTU analog output state (0 = disable, 1 = enable)",
         integer, route("SetRTUAnalogOutputState: ", setAnalogOutputState)},
        {"GetRTUAnalogOutputState", "Gets the RTU analog output state", none,
         route("GetRTUAnalogOutputState: ",
               [](const IORTU& rtu, const Arguments&) {
                   return "RTU Analog Output State: " + enabledText(rtu.getAnalogOutputState());
               })},
        {"SetRTUAnalogOutputType", "Sets the RTU analog output type (0 = voltage, 1 = current)",
         integer, route("SetRTUAnalogOutputType: ", setAnalogOutputType)},
        {"GetRTUAnalogOutputType", "Gets the RTU analog output type", none,
         route("GetRTUAnalogOutputType: ",
               [](const IORTU& rtu, const Arguments&) {
                   return std::string("RTU Analog Output Type: ") +
                          (rtu.getAnalogOutputType() ? "voltage" : "current");
               })},
        {"SetRTUAnalogOutputVoltage", "Sets the RTU analog output Voltage", integer,
         route("SetRTUAnalogOutputVoltage: ",
               [](const IORTU& rtu, const Arguments& arguments) {
                   const unsigned voltage = unsignedArgument(arguments, 0);
                   rtu.setAnalogOutputVoltage(voltage);
                   return "Analog output voltage set to " + signedText(voltage);
               })},
        {"GetRTUAnalogOutputVoltage", "Gets the RTU analog output Voltage", none,
         route("GetRTUAnalogOutputVoltage: ",
               [](const IORTU& rtu, const Arguments&) {
                   return "RTU Analog Output Voltage: " +
                          std::to_string(rtu.getAnalogOutputVoltage());
               })},
        {"SetRTUAnalogOutputCurrent", "Sets the RTU analog output current", integer,
         route("SetRTUAnalogOutputCurrent: ",
               [](const IORTU& rtu, const Arguments& arguments) {
                   const unsigned current = unsignedArgument(arguments, 0);
                   rtu.setAnalogOutputCurrent(current);
                   return "Analog output current set to " + signedText(current);
               })},
        {"GetRTUAnalogOutputCurrent", "Gets the RTU analog output current", none,
         route("GetRTUAnalogOutputCurrent: ",
               [](const IORTU& rtu, const Arguments&) {
                   return "RTU Analog Output current: " +
                          std::to_string(rtu.getAnalogOutputCurrent());
               })},
        {"SetRTUStatusLED", "Sets the status LED", integer,
         route("SetStatusLED: ",
               [](const IORTU& rtu, const Arguments& arguments) {
                   const unsigned pattern = unsignedArgument(arguments, 0);
                   rtu.setStatusLED(pattern);
                   return "Status LED set to " + std::to_string(pattern);
               })},
        {"SetRTUDeviceState", "Sets the device state", integer,
         route("SetDeviceState: ", setDeviceState)},
        {"GetRTUDeviceState", "Gets the device state", none,
         route("GetDeviceState: ",
               [](const IORTU& rtu, const Arguments&) {
                   return "Device state: " +
                          std::to_string(static_cast<uint32_t>(rtu.getDeviceState()));
               })},
        // Only 0 is the imx296 timing; the unit runs every other mode as the imx567.
        {"SetRTUImager", "Sets the Image sensor type", integer,
         route("SetImager: ",
               [](const IORTU& rtu, const Arguments& arguments) {
                   const unsigned mode = unsignedArgument(arguments, 0);
                   rtu.setImageSensor(static_cast<utils::IORTUCameraMode>(mode));
                   return std::string("Imager set to ") + (mode == 0 ? "'imx296'" : "'imx567'");
               })},
        {"SetRTUExposureProhibitedTime", "Sets the exposure prohibited time", integer,
         route("SetExposureProhibitedTime: ",
               [](const IORTU& rtu, const Arguments& arguments) {
                   const unsigned time = unsignedArgument(arguments, 0);
                   rtu.setExposureProhibitedTime(time);
                   return "Exposure prohibited time set to " + std::to_string(time) +
                          " microseconds";
               })},
        {"GetRTUExposureProhibitedTime", "Gets the exposure prohibited time", none,
         route("GetExposureProhibitedTime: ",
               [](const IORTU& rtu, const Arguments&) {
                   return "Exposure prohibited time: " +
                          std::to_string(rtu.getExposureProhibitedTime()) + " microseconds";
               })},
        {"SetRTUExposureOffset", "Sets the exposure offset", integer,
         route("SetExposureOffset: ",
               [](const IORTU& rtu, const Arguments& arguments) {
                   const unsigned offset = unsignedArgument(arguments, 0);
                   rtu.setExposureOffset(offset);
                   return "Exposure offset set to " + signedText(offset) + " microseconds";
               })},
        {"GetRTUExposureOffset", "Gets the exposure offset", none,
         route("GetExposureOffset: ",
               [](const IORTU& rtu, const Arguments&) {
                   return "Exposure offset: " + signedText(rtu.getExposureOffset()) +
                          " microseconds";
               })},
        {"SetRTUAcquisitionEnable", "Sets the acquisition enable", integer,
         route("SetAcquisitionEnable: ",
               [](const IORTU& rtu, const Arguments& arguments) {
                   const bool enable = unsignedArgument(arguments, 0) != 0;
                   rtu.enableAcquisition(enable);
                   return "Acquisition " + enabledText(enable);
               })},
        {"RTUTriggerHeartbeat", "Triggers the heartbeat", none,
         route("TriggerHeartbeat: ",
               [](const IORTU& rtu, const Arguments&) {
                   rtu.triggerHeartbeat();
                   return std::string("Heartbeat triggered.");
               })},
        {"RTUGetInternalTemperature", "Gets the current internal temperature from RTU unit", none,
         route("InternalTemperature: ",
               [](const IORTU& rtu, const Arguments&) {
                   return std::to_string(rtu.getInternalTemperature());
               })},
    });
}

} // namespace k52app
