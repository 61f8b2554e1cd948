#include "core/route/families.h"
#include "utils/io/iotof.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <functional>
#include <iomanip>
#include <sstream>
#include <string>
#include <vector>

namespace k52app {

namespace {

using utils::IOToF;
using ToFBody = std::function<RouteReply(RouteCall&, IOToF&)>;

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

RouteReply setFrequency(RouteCall& call, IOToF& sensor)
{
    IOToF::Resolution resolution;
    sensor.get_resolution(&resolution);
    const int hertz = call.i32(0);
    if (resolution == IOToF::RESOLUTION_4X4 && (hertz < 1 || hertz > 60))
        return call.refuse("Frequency out of range for 4x4 resolution");
    if (resolution == IOToF::RESOLUTION_8X8 && (hertz < 1 || hertz > 15))
        return call.refuse("Frequency out of range for 8x8 resolution");
    sensor.set_frequency(static_cast<unsigned char>(hertz));
    return call.ok("Frequency set successfully");
}

// One line: each distance right-aligned in four columns and followed by a tab, every row
// closed by "\t.:.\t", the whole closed by "\t\t".
RouteReply distanceMatrix(RouteCall& call, IOToF& sensor)
{
    sensor.shot();
    IOToF::Resolution resolution;
    sensor.get_resolution(&resolution);
    const unsigned zones = resolution;
    const unsigned side = std::max(1u, static_cast<unsigned>(std::sqrt(static_cast<double>(zones))));
    const std::vector<uint16_t> distances = sensor.results();

    std::ostringstream text;
    for (unsigned zone = 0; zone < zones; ++zone) {
        text << std::setw(4) << distances.at(zone) << '\t';
        if ((zone + 1) % side == 0)
            text << "\t.:.\t";
    }
    text << "\t\t";
    return call.ok(text.str());
}

// A calibration setting the sensor takes but cannot report back; the driver remembers it.
// The reply echoes the number as parsed.
ToFBody setCalibration(void (IOToF::*set)(unsigned long), std::string confirmation)
{
    return [set, confirmation = std::move(confirmation)](RouteCall& call, IOToF& sensor) {
        const unsigned long value = call.u64(0);
        (sensor.*set)(value);
        return call.ok(confirmation + std::to_string(value));
    };
}

ToFBody reportCalibration(unsigned long (IOToF::*get)() const, std::string label)
{
    return [get, label = std::move(label)](RouteCall& call, IOToF& sensor) {
        return call.ok(label + std::to_string((sensor.*get)()));
    };
}

// The sensor takes no group lock: it serialises its own access. Every ToF route answers
// without a prefix, first checks that the sensor came up, and reports every failure,
// including an argument that does not parse, as ("Error", its text).
Route route(IOToF& sensor, std::string name, std::string help,
            std::vector<utils::SpinnerArgumentMetaData> arguments, ToFBody body)
{
    return {std::move(name), std::move(help), std::move(arguments), {}, "", "Error", Converts::everything, {},
            [&sensor, body = std::move(body)](RouteCall& call) {
                sensor.throwIfDead();
                return body(call, sensor);
            }};
}

} // namespace

std::vector<Route> tofRoutes(const RouteServices& services)
{
    IOToF& tof = services.resources.tof();
    return {
        route(tof, "ToFGetStatus", "Gets the status of the unit.", {},
              [](RouteCall& call, IOToF& sensor) {
                  return call.ok(sensor.cameUp() ? "ToF is enabled" : "ToF is disabled");
              }),
        route(tof, "ToFSetResolution", "Sets the resolution of the ToF sensor.",
              {utils::numericalArgument("resolution", "Resolution index (0- 4x4, 1- 8x8)", 0, 3, "0")},
              [](RouteCall& call, IOToF& sensor) {
                  // Any index but 0 selects 8x8, so 2 and 3 do too.
                  const auto resolution = call.i32(0) == 0 ? IOToF::RESOLUTION_4X4 : IOToF::RESOLUTION_8X8;
                  sensor.set_resolution(resolution);
                  return call.ok("Resolution set successfully to " + resolutionName(resolution));
              }),
        route(tof, "ToFGetResolution", "Gets the resolution of the ToF sensor.", {},
              [](RouteCall& call, IOToF& sensor) {
                  IOToF::Resolution resolution;
                  sensor.get_resolution(&resolution);
                  return call.ok("Resolution: " + resolutionName(resolution));
              }),
        route(tof, "ToFSetFrequency", "Sets the frequency of the ToF sensor.",
              {utils::numericalArgument("frequency", "Frequency value (1-60 for 4x4, 1-15 for 8x8)", 1, 60, "1")},
              setFrequency),
        route(tof, "ToFGetFrequency", "Gets the frequency of the ToF sensor.", {},
              [](RouteCall& call, IOToF& sensor) {
                  unsigned char hertz;
                  sensor.get_frequency(&hertz);
                  return call.ok("Frequency: " + std::to_string(hertz));
              }),
        route(tof, "ToFSetPowerMode", "Sets the power mode of the ToF sensor.",
              {utils::numericalArgument("power_mode", "Power mode index (0 - SLEEP, 1 - WAKEUP)", 0, 1, "0")},
              [](RouteCall& call, IOToF& sensor) {
                  sensor.set_power_mode(static_cast<IOToF::PowerMode>(call.i32(0)));
                  return call.ok("Power mode set successfully");
              }),
        route(tof, "ToFGetPowerMode", "Gets the power mode of the ToF sensor.", {},
              [](RouteCall& call, IOToF& sensor) {
                  IOToF::PowerMode mode;
                  sensor.get_power_mode(&mode);
                  return call.ok(std::string("Power mode: ") + (mode == IOToF::SLEEP ? "SLEEP" : "WAKEUP"));
              }),
        route(tof, "ToFSetRangingMode", "Sets the ranging mode of the ToF sensor.",
              {utils::numericalArgument("ranging_mode", "Ranging mode value (1 - CONTINUOUS, 3 - AUTONOMOUS)", 1, 3, "1")},
              [](RouteCall& call, IOToF& sensor) {
                  const int mode = call.i32(0);
                  sensor.set_ranging_mode(static_cast<IOToF::RangingMode>(mode));
                  return call.ok(std::string("Ranging mode set successfully to ") +
                                 (mode == IOToF::CONTINUOUS ? "CONTINUOUS" : "AUTONOMOUS"));
              }),
        route(tof, "ToFGetRangingMode", "Gets the ranging mode of the ToF sensor.", {},
              [](RouteCall& call, IOToF& sensor) {
                  IOToF::RangingMode mode;
                  sensor.get_ranging_mode(&mode);
                  return call.ok("Ranging mode: " + rangingModeName(mode));
              }),
        route(tof, "ToFSetIntegrationTime", "Sets the integration time of the ToF sensor.",
              {utils::numericalArgument("integration_time", "Integration time value (in microseconds)", 1, 1000000, "1000")},
              [](RouteCall& call, IOToF& sensor) {
                  const unsigned long microseconds = call.u64(0);
                  sensor.set_integration_time(static_cast<unsigned>(microseconds));
                  return call.ok("Integration time set successfully to " + std::to_string(microseconds) +
                                 " microseconds");
              }),
        route(tof, "ToFGetIntegrationTime", "Gets the integration time of the ToF sensor.", {},
              [](RouteCall& call, IOToF& sensor) {
                  unsigned int microseconds;
                  sensor.get_integration_time(&microseconds);
                  return call.ok("Integration time: " + std::to_string(microseconds) + " microseconds");
              }),
        route(tof, "ToFSetReflectance", "Sets the reflectance percentage for calibration.",
              {utils::numericalArgument("reflectance", "Reflectance percentage (0-100)", 0, 100, "50")},
              setCalibration(&IOToF::set_calibration_reflectance_percent, "Reflectance set successfully to ")),
        route(tof, "ToFGetReflectance", "Gets the reflectance percentage for calibration.", {},
              reportCalibration(&IOToF::calibration_reflectance_percent, "Reflectance: ")),
        route(tof, "ToFSetNumberOfSamples", "Sets the number of samples for calibration.",
              {utils::numericalArgument("number_of_samples", "Number of samples (1-255)", 1, 255, "10")},
              setCalibration(&IOToF::set_calibration_nb_samples, "Number of samples set successfully to ")),
        route(tof, "ToFGetNumberOfSamples", "Gets the number of samples for calibration.", {},
              reportCalibration(&IOToF::calibration_nb_samples, "Number of samples: ")),
        route(tof, "ToFSetObjectDistance", "Sets the object distance for calibration.",
              {utils::numericalArgument("object_distance", "Object distance (in millimeters)", 1, 10000, "1000")},
              setCalibration(&IOToF::set_calibration_distance, "Object distance set successfully to ")),
        route(tof, "ToFGetObjectDistance", "Gets the object distance for calibration.", {},
              reportCalibration(&IOToF::calibration_distance, "Object distance: ")),
        route(tof, "ToFPerformXTalkCalibration", "Performs cross-talk calibration for the ToF sensor.", {},
              [](RouteCall& call, IOToF& sensor) {
                  sensor.xtalk_calibration();
                  return call.ok("Cross-talk calibration performed successfully");
              }),
        route(tof, "ToFSetMeasurementCount", "Sets the number of measurements for the ToF sensor.",
              {utils::numericalArgument("measurement_count", "Number of measurements (1-1000)", 1, 1000, "1")},
              [](RouteCall& call, IOToF& sensor) {
                  const unsigned long count = call.u64(0);
                  sensor.set_measurement_count(count);
                  return call.ok("Loop count set successfully to " + std::to_string(count));
              }),
        route(tof, "ToFGetDistanceMatrix", "Gets the distance matrix from the ToF sensor.", {}, distanceMatrix),
    };
}

} // namespace k52app
