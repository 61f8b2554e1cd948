#include "support/routerharness.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <map>
#include <mutex>
#include <regex>
#include <vector>

namespace {

using k52test::expectExchanges;

using testing::HasSubstr;
using utils::platform::emulated::Fault;

constexpr const char* tofPath = "/dev/k52tof";

TEST(ToFRoutes, RepliesAndStateAcrossSettings)
{
    k52test::RouterHarness h;
    const char* asleep = "ToF '/dev/k52tof' is asleep: set the power mode to WAKEUP.";
    expectExchanges(h, {
        {"ToFGetStatus", "OK", "ToF is enabled"},
        {"ToFGetPowerMode", "OK", "Power mode: WAKEUP"},
        {"ToFGetRangingMode", "OK", "Ranging mode: CONTINUOUS"},
        // Calibration settings the sensor cannot report start from their documented values.
        {"ToFGetReflectance", "OK", "Reflectance: 50"},
        {"ToFGetNumberOfSamples", "OK", "Number of samples: 10"},
        {"ToFGetObjectDistance", "OK", "Object distance: 1000"},

        // Frequency limits follow the resolution.
        {"ToFSetFrequency 60", "OK", "Frequency set successfully"},
        {"ToFSetFrequency 61", "Error", "Frequency out of range for 4x4 resolution"},
        {"ToFSetResolution 3", "OK", "Resolution set successfully to 8x8"}, // any index but 0
        {"ToFGetResolution", "OK", "Resolution: 8x8"},
        {"ToFSetFrequency 16", "Error", "Frequency out of range for 8x8 resolution"},
        {"ToFSetFrequency 15", "OK", "Frequency set successfully"},
        {"ToFSetResolution", "OK", "Resolution set successfully to 4x4"}, // default 0
        {"ToFSetFrequency", "OK", "Frequency set successfully"},          // default 1
        {"ToFGetFrequency", "OK", "Frequency: 1"},

        {"ToFSetRangingMode 3", "OK", "Ranging mode set successfully to AUTONOMOUS"},
        {"ToFGetRangingMode", "OK", "Ranging mode: AUTONOMOUS"},
        {"ToFSetRangingMode 2", "Error", nullptr}, // the sensor knows no mode 2
        {"ToFSetIntegrationTime 2500", "OK", "Integration time set successfully to 2500 microseconds"},
        {"ToFGetIntegrationTime", "OK", "Integration time: 2500 microseconds"},

        // A refused calibration value is not remembered.
        {"ToFSetReflectance 70", "OK", "Reflectance set successfully to 70"},
        {"ToFSetReflectance 101", "Error", nullptr},
        {"ToFGetReflectance", "OK", "Reflectance: 70"},
        {"ToFSetNumberOfSamples 20", "OK", "Number of samples set successfully to 20"},
        {"ToFGetNumberOfSamples", "OK", "Number of samples: 20"},
        // The register takes the low byte (20); clients read back the number they gave.
        {"ToFSetNumberOfSamples 276", "OK", "Number of samples set successfully to 276"},
        {"ToFGetNumberOfSamples", "OK", "Number of samples: 276"},
        {"ToFSetObjectDistance 600", "OK", "Object distance set successfully to 600"},
        {"ToFGetObjectDistance", "OK", "Object distance: 600"},
        {"ToFSetMeasurementCount 5", "OK", "Loop count set successfully to 5"},

        {"ToFSetPowerMode 0", "OK", "Power mode set successfully"},
        {"ToFGetPowerMode", "OK", "Power mode: SLEEP"},
        {"ToFGetDistanceMatrix", "Error", asleep},
        {"ToFPerformXTalkCalibration", "Error", asleep},
        {"ToFSetPowerMode 1", "OK", "Power mode set successfully"},
        {"ToFPerformXTalkCalibration", "OK", "Cross-talk calibration performed successfully"},

        // Numbers beyond the parser's range become the parser's own error text.
        {"ToFSetFrequency 99999999999", "Error", "stoi"},
        {"ToFSetObjectDistance 999999999999999999999", "Error", "stoul"},
    });
}

// One line: each distance right-aligned in four columns and a tab, every row closed by
// "\t.:.\t", the whole closed by "\t\t".
TEST(ToFRoutes, DistanceMatrixShapeFollowsResolution)
{
    k52test::RouterHarness h;
    for (const auto& [resolution, side] : {std::pair{"ToFSetResolution 0", 4}, std::pair{"ToFSetResolution 1", 8}}) {
        SCOPED_TRACE(resolution);
        ASSERT_EQ(h.run(resolution).first, "OK");
        auto [status, matrix] = h.run("ToFGetDistanceMatrix");
        ASSERT_EQ(status, "OK") << matrix;
        const std::string field = "(?: {3}[0-9]| {2}[0-9]{2}| [0-9]{3}|[0-9]{4})\\t";
        const std::string row = "(?:" + field + "){" + std::to_string(side) + "}\\t\\.:\\.\\t";
        EXPECT_TRUE(std::regex_match(matrix, std::regex("(?:" + row + "){" + std::to_string(side) + "}\\t\\t")))
            << "'" << matrix << "'";
    }
}

TEST(ToFRoutes, DeviceErrorsBecomeErrorWithTheirText)
{
    k52test::RouterHarness h;
    h.board().faults().inject(tofPath, Fault::ioError);
    // What the driver keeps beside the sensor still answers; everything else reaches it.
    const std::map<std::string, std::string> unaffected = {
        {"ToFGetStatus", "ToF is enabled"},
        {"ToFGetReflectance", "Reflectance: 50"},
        {"ToFGetNumberOfSamples", "Number of samples: 10"},
        {"ToFGetObjectDistance", "Object distance: 1000"},
        {"ToFSetMeasurementCount", "Loop count set successfully to 1"},
    };
    for (const auto& [name, route] : h.router->routes()) {
        if (name.rfind("ToF", 0) != 0)
            continue;
        SCOPED_TRACE(name);
        auto [status, message] = h.run(name);
        auto it = unaffected.find(name);
        if (it != unaffected.end()) {
            EXPECT_EQ(status, "OK");
            EXPECT_EQ(message, it->second);
        } else {
            EXPECT_EQ(status, "Error");
            EXPECT_THAT(message, HasSubstr(tofPath)) << "device errors name the sensor";
        }
    }
}

TEST(ToFRoutes, SensorThatDidNotComeUpAnswersErrorEverywhere)
{
    k52test::RouterHarness h(k52test::EmulatedConfig::Overrides{{"emulated-fault-open", tofPath}});
    int tofRoutes = 0;
    for (const auto& [name, route] : h.router->routes()) {
        if (name.rfind("ToF", 0) != 0)
            continue;
        ++tofRoutes;
        expectExchanges(h, {{name.c_str(), "Error", "ToF '/dev/k52tof' is not initialized."}});
    }
    EXPECT_EQ(tofRoutes, 20);
}

// The sensor serialises its own access: holding every group must not stop the routes.
TEST(ToFRoutes, TakeNoGroupLock)
{
    k52test::RouterHarness h;
    std::vector<std::unique_lock<std::mutex>> held;
    for (uint32_t group = 0; group < 14; ++group)
        held.emplace_back(h.resources->getMutex(static_cast<k52app::K52ResourceGroups>(group)));
    expectExchanges(h, {{"ToFSetReflectance 7", "OK", nullptr}, {"ToFGetDistanceMatrix", "OK", nullptr}});
}

} // namespace
