#include "core/commandrouter.h"

#include "core/k52resourcemanager.h"
#include "utils/base/strings.h"

#include <algorithm>
#include <cstdint>
#include <limits>
#include <mutex>

namespace k52app {

namespace {

using Arguments = std::vector<std::string>;

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

} // namespace

void K52CommandRouter::registerSmartSensorCommands()
{
    auto setGyro = [&resources = resources_](const Arguments& arguments) {
        const RouteReplyBuilder reply("Error", "SmartSensorSetGyro: ");
        std::lock_guard lock(resources.getMutex(K52ResourceGroups::SMART_SENSOR));
        int enable = std::stoi(arguments.at(0));
        int sampleRate = std::stoi(arguments.at(1));
        float timeout = std::stof(arguments.at(2));
        return reply.guard([&] {
            auto& sensor = resources.smartSensor();
            if (enable != 0)
                sensor.enableVirtualSensor(utils::IOSmartSensor::gyroscope,
                                           static_cast<float>(sampleRate), toLatencyMs(timeout));
            else
                sensor.enableVirtualSensor(utils::IOSmartSensor::gyroscope, disabledRateHz,
                                           disabledLatencyMs);
            return reply.ok("Gyro configuration set.");
        });
    };

    registerRoutes({
        {"SmartSensorSetGyro",
         "Sets the gyro configuration",
         {{utils::numericalArgument("gyro", "The gyro configuration(0-disable 1-enable).", 0, 1),
           utils::numericalArgument("sample_rate", "The sample rate of the gyro.", 0, 1000),
           utils::numericalArgument("timeout", "The timeout of the gyro.", 0, 10000)}},
         setGyro},
    });
}

} // namespace k52app
