#include "core/commandrouter.h"

#include "core/k52resourcemanager.h"
#include "utils/base/exceptions.h"
#include "utils/base/strings.h"

#include <algorithm>
#include <atomic>
#include <cmath>
#include <exception>
#include <iomanip>
#include <memory>
#include <sstream>

namespace k52app {

namespace {

using utils::IOToF;
using Arguments = std::vector<std::string>;

// The ToF routes answer without a route prefix and report every failure as plain "Error".
const RouteReplyBuilder tofReply("Error", "");

// What the routes keep next to the sensor: whether it came up at start, and the settings the
// sensor cannot report back. Routes may run on several workers at once, hence the atomics.
struct ToFState {
    explicit ToFState(IOToF& device) : sensor(device), enabled(cameUp(device)) {}

    static bool cameUp(const IOToF& device)
    {
        try {
            device.throwIfDead();
            return true;
        } catch (const utils::UtilsException&) {
            return false;
        }
    }

    IOToF& sensor;
    const bool enabled;
    std::atomic<unsigned long> reflectance{50};
    std::atomic<unsigned long> samples{10};
    std::atomic<unsigned long> objectDistance{1000};
    std::atomic<unsigned long> measurementCount{1};
};

using ToFBody = std::function<RouteReply(ToFState&, const Arguments&)>;

// Every ToF route first checks that the sensor is alive; any failure, including an argument
// that does not parse, becomes ("Error", its text).
RouteHandler tofRoute(std::shared_ptr<ToFState> state, ToFBody body)
{
    return [state = std::move(state), body = std::move(body)](const Arguments& arguments) -> RouteReply {
        try {
            state->sensor.throwIfDead();
            return body(*state, arguments);
        } catch (const std::exception& e) {
            return tofReply.refuse(e.what());
        }
    };
}

int intArgument(const Arguments& arguments) { return std::stoi(arguments.at(0)); }
unsigned long unsignedArgument(const Arguments& arguments) { return std::stoul(arguments.at(0)); }

std::string resolutionName(IOToF::Resolution resolution)
{
    switch (resolution) {
    case IOToF::RESOLUTION_4X4:
        return "4x4";
    case IOToF::RESOLUTION_8X8:
        return "8x8";
    }
    return "Unknown";
}

std::string rangingModeName(IOToF::RangingMode mode)
{
    switch (mode) {
    case IOToF::CONTINUOUS:
        return "CONTINUOUS";
    case IOToF::AUTONOMOUS:
        return "AUTONOMOUS";
    }
    return "Unknown";
}

RouteReply setFrequency(ToFState& tof, const Arguments& arguments)
{
    IOToF::Resolution resolution;
    tof.sensor.get_resolution(&resolution);
    int hertz = intArgument(arguments);
    if (resolution == IOToF::RESOLUTION_4X4 && (hertz < 1 || hertz > 60))
        return tofReply.refuse("Frequency out of range for 4x4 resolution");
    if (resolution == IOToF::RESOLUTION_8X8 && (hertz < 1 || hertz > 15))
        return tofReply.refuse("Frequency out of range for 8x8 resolution");
    tof.sensor.set_frequency(static_cast<unsigned char>(hertz));
    return tofReply.ok("Frequency set successfully");
}

// One line: each distance right-aligned in four columns and followed by a tab, every row
// closed by "\t.:.\t", the whole closed by "\t\t".
RouteReply distanceMatrix(ToFState& tof, const Arguments&)
{
    tof.sensor.shot();
    IOToF::Resolution resolution;
    tof.sensor.get_resolution(&resolution);
    const unsigned zones = resolution;
    const unsigned side = std::max(1u, static_cast<unsigned>(std::sqrt(static_cast<double>(zones))));
    const std::vector<uint16_t> distances = tof.sensor.results();

    std::ostringstream text;
    for (unsigned zone = 0; zone < zones; ++zone) {
        text << std::setw(4) << distances.at(zone) << '\t';
        if ((zone + 1) % side == 0)
            text << "\t.:.\t";
    }
    text << "\t\t";
    return tofReply.ok(text.str());
}

// A calibration setting the sensor takes but cannot report: set it, then remember it.
template <typename Narrow>
ToFBody storeCalibration(void (IOToF::*set)(Narrow), std::atomic<unsigned long> ToFState::*stored,
                         std::string confirmation)
{
    return [set, stored, confirmation = std::move(confirmation)](ToFState& tof, const Arguments& arguments) {
        unsigned long value = unsignedArgument(arguments);
        (tof.sensor.*set)(static_cast<Narrow>(value));
        (tof.*stored) = value;
        return tofReply.ok(confirmation + std::to_string(value));
    };
}

ToFBody reportStored(std::atomic<unsigned long> ToFState::*stored, std::string label)
{
    return [stored, label = std::move(label)](ToFState& tof, const Arguments&) {
        return tofReply.ok(label + std::to_string((tof.*stored).load()));
    };
}

} // namespace

void K52CommandRouter::registerToFCommands()
{
    auto tof = std::make_shared<ToFState>(resources_.tof());
    auto route = [&tof](std::string name, std::string description,
                        std::vector<utils::SpinnerArgumentMetaData> arguments, ToFBody body) {
        return RouteEntry{std::move(name), std::move(description), {std::move(arguments)},
                          tofRoute(tof, std::move(body))};
    };

    registerRoutes({
        route("ToFGetStatus", "Gets the status of the unit.", {},
              [](ToFState& tof, const Arguments&) {
                  return tofReply.ok(tof.enabled ? "ToF is enabled" : "ToF is disabled");
              }),
        route("ToFSetResolution", "Sets the resolution of the ToF sensor.",
              {utils::numericalArgument("resolution", "Resolution index (0- 4x4, 1- 8x8)", 0, 3, "0")},
              [](ToFState& tof, const Arguments& arguments) {
                  // Any index but 0 selects 8x8, so 2 and 3 do too.
                  auto resolution = intArgument(arguments) == 0 ? IOToF::RESOLUTION_4X4
                                                                : IOToF::RESOLUTION_8X8;
                  tof.sensor.set_resolution(resolution);
                  return tofReply.ok("Resolution set successfully to " + resolutionName(resolution));
              }),
        route("ToFGetResolution", "Gets the resolution of the ToF sensor.", {},
              [](ToFState& tof, const Arguments&) {
                  IOToF::Resolution resolution;
                  tof.sensor.get_resolution(&resolution);
                  return tofReply.ok("Resolution: " + resolutionName(resolution));
              }),
        route("ToFSetFrequency", "Sets the frequency of the ToF sensor.",
              {utils::numericalArgument("frequency", "Frequency value (1-60 for 4x4, 1-15 for 8x8)", 1, 60, "1")},
              setFrequency),
        route("ToFGetFrequency", "Gets the frequency of the ToF sensor.", {},
              [](ToFState& tof, const Arguments&) {
                  unsigned char hertz;
                  tof.sensor.get_frequency(&hertz);
                  return tofReply.ok("Frequency: " + std::to_string(hertz));
              }),
        route("ToFSetPowerMode", "Sets the power mode of the ToF sensor.",
              {utils::numericalArgument("power_mode", "Power mode index (0 - SLEEP, 1 - WAKEUP)", 0, 1, "0")},
              [](ToFState& tof, const Arguments& arguments) {
                  tof.sensor.set_power_mode(static_cast<IOToF::PowerMode>(intArgument(arguments)));
                  return tofReply.ok("Power mode set successfully");
              }),
        route("ToFGetPowerMode", "Gets the power mode of the ToF sensor.", {},
              [](ToFState& tof, const Arguments&) {
                  IOToF::PowerMode mode;
                  tof.sensor.get_power_mode(&mode);
                  return tofReply.ok(std::string("Power mode: ") +
                                     (mode == IOToF::SLEEP ? "SLEEP" : "WAKEUP"));
              }),
        route("ToFSetRangingMode", "Sets the ranging mode of the ToF sensor.",
              {utils::numericalArgument("ranging_mode", "Ranging mode value (1 - CONTINUOUS, 3 - AUTONOMOUS)", 1, 3, "1")},
              [](ToFState& tof, const Arguments& arguments) {
                  int mode = intArgument(arguments);
                  tof.sensor.set_ranging_mode(static_cast<IOToF::RangingMode>(mode));
                  return tofReply.ok(std::string("Ranging mode set successfully to ") +
                                     (mode == IOToF::CONTINUOUS ? "CONTINUOUS" : "AUTONOMOUS"));
              }),
        route("ToFGetRangingMode", "Gets the ranging mode of the ToF sensor.", {},
              [](ToFState& tof, const Arguments&) {
                  IOToF::RangingMode mode;
                  tof.sensor.get_ranging_mode(&mode);
                  return tofReply.ok("Ranging mode: " + rangingModeName(mode));
              }),
        route("ToFSetIntegrationTime", "Sets the integration time of the ToF sensor.",
              {utils::numericalArgument("integration_time", "Integration time value (in microseconds)", 1, 1000000, "1000")},
              [](ToFState& tof, const Arguments& arguments) {
                  unsigned long microseconds = unsignedArgument(arguments);
                  tof.sensor.set_integration_time(static_cast<unsigned>(microseconds));
                  return tofReply.ok("Integration time set successfully to " +
                                     std::to_string(microseconds) + " microseconds");
              }),
        route("ToFGetIntegrationTime", "Gets the integration time of the ToF sensor.", {},
              [](ToFState& tof, const Arguments&) {
                  unsigned int microseconds;
                  tof.sensor.get_integration_time(&microseconds);
                  return tofReply.ok("Integration time: " + std::to_string(microseconds) +
                                     " microseconds");
              }),
        route("ToFSetReflectance", "Sets the reflectance percentage for calibration.",
              {utils::numericalArgument("reflectance", "Reflectance percentage (0-100)", 0, 100, "50")},
              storeCalibration(&IOToF::set_calibration_reflectance_percent, &ToFState::reflectance,
                               "Reflectance set successfully to ")),
        route("ToFGetReflectance", "Gets the reflectance percentage for calibration.", {},
              reportStored(&ToFState::reflectance, "Reflectance: ")),
        route("ToFSetNumberOfSamples", "Sets the number of samples for calibration.",
              {utils::numericalArgument("number_of_samples", "Number of samples (1-255)", 1, 255, "10")},
              storeCalibration(&IOToF::set_calibration_nb_samples, &ToFState::samples,
                               "Number of samples set successfully to ")),
        route("ToFGetNumberOfSamples", "Gets the number of samples for calibration.", {},
              reportStored(&ToFState::samples, "Number of samples: ")),
        route("ToFSetObjectDistance", "Sets the object distance for calibration.",
              {utils::numericalArgument("object_distance", "Object distance (in millimeters)", 1, 10000, "1000")},
              storeCalibration(&IOToF::set_calibration_distance, &ToFState::objectDistance,
                               "Object distance set successfully to ")),
        route("ToFGetObjectDistance", "Gets the object distance for calibration.", {},
              reportStored(&ToFState::objectDistance, "Object distance: ")),
        route("ToFPerformXTalkCalibration", "Performs cross-talk calibration for the ToF sensor.", {},
              [](ToFState& tof, const Arguments&) {
                  tof.sensor.xtalk_calibration();
                  return tofReply.ok("Cross-talk calibration performed successfully");
              }),
        route("ToFSetMeasurementCount", "Sets the number of measurements for the ToF sensor.",
              {utils::numericalArgument("measurement_count", "Number of measurements (1-1000)", 1, 1000, "1")},
              [](ToFState& tof, const Arguments& arguments) {
                  // Kept for clients only: the sensor has no such setting.
                  unsigned long count = unsignedArgument(arguments);
                  tof.measurementCount = count;
                  return tofReply.ok("Loop count set successfully to " + std::to_string(count));
              }),
        route("ToFGetDistanceMatrix", "Gets the distance matrix from the ToF sensor.", {},
              distanceMatrix),
    });
}

} // namespace k52app
