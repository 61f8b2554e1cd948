#include "core/route/families.h"
#include "utils/io/iosmartsensor.h"

#include <cstdint>
#include <limits>
#include <vector>

namespace k52app {

namespace {

// Switching the gyro off always sends rate 0 with a 10 ms latency, whatever was asked.
constexpr float disabledRateHz = 0.0f;
constexpr uint32_t disabledLatencyMs = 10;

// A negative or huge timeout has no unsigned value; clamp instead of leaving it undefined.
uint32_t toLatencyMs(float timeout)
{
    constexpr float largest = static_cast<float>(std::numeric_limits<uint32_t>::max());
    if (!(timeout > 0.0f))
        return 0;
    return timeout >= largest ? std::numeric_limits<uint32_t>::max() : static_cast<uint32_t>(timeout);
}

RouteReply setGyro(RouteCall& call)
{
    const int enable = call.i32(0);
    const int sampleRate = call.i32(1);
    const float timeout = call.f32(2);
    auto& sensor = call.device<utils::IOSmartSensor>();
    if (enable != 0)
        sensor.enableVirtualSensor(utils::IOSmartSensor::gyroscope, static_cast<float>(sampleRate),
                                   toLatencyMs(timeout));
    else
        sensor.enableVirtualSensor(utils::IOSmartSensor::gyroscope, disabledRateHz, disabledLatencyMs);
    return call.ok("Gyro configuration set.");
}

} // namespace

std::vector<Route> smartSensorRoutes(const RouteServices&)
{
    return {
        {"SmartSensorSetGyro",
         "Sets the gyro configuration",
         {utils::numericalArgument("gyro", "The gyro configuration(0-disable 1-enable).", 0, 1),
          utils::numericalArgument("sample_rate", "The sample rate of the gyro.", 0, 1000),
          utils::numericalArgument("timeout", "The timeout of the gyro.", 0, 10000)},
         {K52ResourceGroups::SMART_SENSOR},
         "SmartSensorSetGyro: ",
         "Error",
         Converts::deviceErrors,
         {},
         setGyro},
    };
}

} // namespace k52app
