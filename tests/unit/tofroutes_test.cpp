#include "support/routerharness.h"
#include "utils/base/exceptions.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <map>
#include <regex>
#include <sstream>
#include <thread>

namespace {

using k52test::Exchange;
using k52test::expectExchanges;

using testing::HasSubstr;
using utils::platform::emulated::Fault;

constexpr const char* tofPath = "/dev/k52tof";

// A 4-wide right-aligned distance and a tab, `side` times per row, each row closed by
// "\t.:.\t", the line closed by "\t\t".
std::regex matrixPattern(int side)
{
    const std::string field = "(?: {3}[0-9]| {2}[0-9]{2}| [0-9]{3}|[0-9]{4})\\t";
    const std::string row = "(?:" + field + "){" + std::to_string(side) + "}\\t\\.:\\.\\t";
    return std::regex("^(?:" + row + "){" + std::to_string(side) + "}\\t\\t$");
}

std::vector<int> matrixDistances(const std::string& matrix)
{
    std::istringstream words(matrix);
    std::vector<int> distances;
    for (std::string word; words >> word;)
        if (word != ".:.")
            distances.push_back(std::stoi(word));
    return distances;
}

TEST(ToFRoutes, RepliesAndStateAcrossSettings)
{
    k52test::RouterHarness h;
    expectExchanges(h, {
        {"ToFGetStatus", "OK", "ToF is enabled"},
        {"ToFGetResolution", "OK", "Resolution: 4x4"},
        {"ToFGetFrequency", "OK", "Frequency: 15"},
        {"ToFGetPowerMode", "OK", "Power mode: WAKEUP"},
        {"ToFGetRangingMode", "OK", "Ranging mode: CONTINUOUS"},
        {"ToFGetIntegrationTime", "OK", "Integration time: 5000 microseconds"},
        // Calibration settings the sensor cannot report start from their documented values.
        {"ToFGetReflectance", "OK", "Reflectance: 50"},
        {"ToFGetNumberOfSamples", "OK", "Number of samples: 10"},
        {"ToFGetObjectDistance", "OK", "Object distance: 1000"},

        // Frequency limits follow the resolution.
        {"ToFSetFrequency 60", "OK", "Frequency set successfully"},
        {"ToFGetFrequency", "OK", "Frequency: 60"},
        {"ToFSetFrequency 61", "Error", "Frequency out of range for 4x4 resolution"},
        {"ToFSetFrequency -5", "Error", "Frequency out of range for 4x4 resolution"},
        {"ToFSetResolution 3", "OK", "Resolution set successfully to 8x8"},
        {"ToFGetResolution", "OK", "Resolution: 8x8"},
        {"ToFGetFrequency", "OK", "Frequency: 15"},
        {"ToFSetFrequency 16", "Error", "Frequency out of range for 8x8 resolution"},
        {"ToFSetFrequency 15", "OK", "Frequency set successfully"},
        {"ToFSetResolution", "OK", "Resolution set successfully to 4x4"}, // default 0
        {"ToFSetFrequency", "OK", "Frequency set successfully"},          // default 1
        {"ToFGetFrequency", "OK", "Frequency: 1"},

        {"ToFSetRangingMode 3", "OK", "Ranging mode set successfully to AUTONOMOUS"},
        {"ToFGetRangingMode", "OK", "Ranging mode: AUTONOMOUS"},
        {"ToFSetRangingMode 2", "Error", nullptr}, // the sensor knows no mode 2
        {"ToFGetRangingMode", "OK", "Ranging mode: AUTONOMOUS"},
        {"ToFSetRangingMode 1", "OK", "Ranging mode set successfully to CONTINUOUS"},

        {"ToFSetIntegrationTime 2500", "OK", "Integration time set successfully to 2500 microseconds"},
        {"ToFGetIntegrationTime", "OK", "Integration time: 2500 microseconds"},
        {"ToFSetIntegrationTime 1000001", "Error", nullptr},

        // A refused calibration value is not remembered.
        {"ToFSetReflectance 70", "OK", "Reflectance set successfully to 70"},
        {"ToFSetReflectance 101", "Error", nullptr},
        {"ToFGetReflectance", "OK", "Reflectance: 70"},
        {"ToFSetNumberOfSamples 20", "OK", "Number of samples set successfully to 20"},
        {"ToFSetNumberOfSamples 0", "Error", nullptr},
        {"ToFGetNumberOfSamples", "OK", "Number of samples: 20"},
        {"ToFSetObjectDistance 600", "OK", "Object distance set successfully to 600"},
        {"ToFGetObjectDistance", "OK", "Object distance: 600"},
        {"ToFSetMeasurementCount 5", "OK", "Loop count set successfully to 5"},

        {"ToFSetPowerMode 0", "OK", "Power mode set successfully"},
        {"ToFGetPowerMode", "OK", "Power mode: SLEEP"},
        {"ToFGetDistanceMatrix", "Error", "ToF '/dev/k52tof' is asleep: set the power mode to WAKEUP."},
        {"ToFPerformXTalkCalibration", "Error", "ToF '/dev/k52tof' is asleep: set the power mode to WAKEUP."},
        {"ToFSetPowerMode 1", "OK", "Power mode set successfully"},
        {"ToFGetPowerMode", "OK", "Power mode: WAKEUP"},
        {"ToFPerformXTalkCalibration", "OK", "Cross-talk calibration performed successfully"},

        // Extra words are ignored.
        {"ToFGetStatus now please", "OK", "ToF is enabled"},
        {"ToFSetFrequency 10 20", "OK", "Frequency set successfully"},
    });
}

TEST(ToFRoutes, ArgumentsThatDoNotParse)
{
    k52test::RouterHarness h;
    // Words that are no number never reach the handler.
    for (const char* command : {"ToFSetFrequency ten", "ToFSetResolution 1.5", "ToFSetReflectance 0x10"}) {
        SCOPED_TRACE(command);
        EXPECT_THROW(h.run(command), utils::UtilsRuntimeError);
    }
    // Numbers beyond the parser's range become the parser's own error text.
    expectExchanges(h, {
        {"ToFSetFrequency 99999999999", "Error", "stoi"},
        {"ToFSetResolution -99999999999", "Error", "stoi"},
        {"ToFSetObjectDistance 999999999999999999999", "Error", "stoul"},
    });
}

TEST(ToFRoutes, DistanceMatrixShapeFollowsResolution)
{
    k52test::RouterHarness h;
    for (const auto& [resolution, side] : {std::pair{"ToFSetResolution 0", 4}, std::pair{"ToFSetResolution 1", 8}}) {
        SCOPED_TRACE(resolution);
        ASSERT_EQ(h.run(resolution).first, "OK");
        auto [status, matrix] = h.run("ToFGetDistanceMatrix");
        ASSERT_EQ(status, "OK") << matrix;
        EXPECT_TRUE(std::regex_match(matrix, matrixPattern(side))) << "'" << matrix << "'";
        EXPECT_EQ(matrix.find('\n'), std::string::npos) << "one line";
        auto distances = matrixDistances(matrix);
        ASSERT_EQ(distances.size(), static_cast<size_t>(side * side));
        // The emulated room: nothing nearer than the box, nothing beyond the wall.
        for (int d : distances) {
            EXPECT_GE(d, 200);
            EXPECT_LE(d, 2200);
        }
    }
}

TEST(ToFRoutes, DeviceErrorsBecomeErrorWithTheirText)
{
    k52test::RouterHarness h;
    h.board().faults().inject(tofPath, Fault::ioError);
    // What lives beside the sensor still answers; everything else reaches the device.
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
    h.board().faults().clear(tofPath);
    expectExchanges(h, {{"ToFGetResolution", "OK", "Resolution: 4x4"}});
}

TEST(ToFRoutes, SensorThatDidNotComeUpAnswersErrorEverywhere)
{
    k52test::RouterHarness h(k52test::EmulatedConfig::Overrides{{"emulated-fault-open", tofPath}});
    const std::string dead = "ToF '/dev/k52tof' is not initialized.";
    int tofRoutes = 0;
    for (const auto& [name, route] : h.router->routes()) {
        if (name.rfind("ToF", 0) != 0)
            continue;
        ++tofRoutes;
        SCOPED_TRACE(name);
        auto [status, message] = h.run(name);
        EXPECT_EQ(status, "Error");
        EXPECT_EQ(message, dead);
    }
    EXPECT_EQ(tofRoutes, 20);
}

TEST(ToFRoutes, RunConcurrentlyWithoutAGroupLock)
{
    k52test::RouterHarness h;
    // The routes take no group mutex: holding every group must not stop them.
    std::vector<std::unique_lock<std::mutex>> held;
    for (uint32_t group = 0; group < 14; ++group)
        held.emplace_back(h.resources->getMutex(static_cast<k52app::K52ResourceGroups>(group)));

    std::thread measuring([&] {
        for (int i = 0; i < 3; ++i)
            EXPECT_EQ(h.run("ToFGetDistanceMatrix").first, "OK");
    });
    for (int i = 1; i <= 50; ++i) {
        EXPECT_EQ(h.run("ToFSetReflectance " + std::to_string(i)).first, "OK");
        EXPECT_EQ(h.run("ToFGetReflectance").second, "Reflectance: " + std::to_string(i));
    }
    measuring.join();
}

} // namespace
