#include "support/routerharness.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <regex>
#include <stdexcept>

namespace {

using k52test::expectExchanges;

using testing::HasSubstr;
using testing::StartsWith;
using utils::platform::emulated::Fault;

TEST(IlluminationRoutes, RepliesAndModuleState)
{
    k52test::RouterHarness h;
    expectExchanges(h, {
        {"GetIlluStatus", "OK", "GetIlluStatus: Current Status: 0"},
        {"GetIlluSerialNumber", "OK", "GetIlluSerialNumber: Serial Number: 52013377"},
        {"GetIlluSegments", "OK", "GetIlluSegments: Segments: 15"},
        // Set routes confirm with their prefix alone.
        {"SetIlluMode 65535", "OK", "SetIlluMode: "},
        {"GetIlluMode", "OK", "GetIlluMode: Mode: 65535"},
        {"SetIlluSegments 5", "OK", "SetIlluSegments: "},
        {"GetIlluSegments", "OK", "GetIlluSegments: Segments: 5"},
        {"SetIlluWhiteBrightness 40", "OK", "SetIlluWhiteBrightness: "},
        {"SetIlluRedBrightness 41", "OK", "SetIlluRedBrightness: "},
        {"SetIlluGreenBrightness 42", "OK", "SetIlluGreenBrightness: "},
        {"SetIlluBlueBrightness 100", "OK", "SetIlluBlueBrightness: "},
        {"GetIlluWhiteBrightness", "OK", "GetIlluWhiteBrightness: Brightness: 40"},
        {"GetIlluRedBrightness", "OK", "GetIlluRedBrightness: Brightness: 41"},
        {"GetIlluGreenBrightness", "OK", "GetIlluGreenBrightness: Brightness: 42"},
        {"GetIlluBlueBrightness", "OK", "GetIlluBlueBrightness: Brightness: 100"},
        {"SetIlluEnable 1", "OK", "SetIlluEnable: "},
        {"GetIlluStatus", "OK", "GetIlluStatus: Current Status: 3"}, // lit, strobe
        {"SetIlluEnable", "OK", "SetIlluEnable: "},                  // default 0: off
        {"GetIlluStatus", "OK", "GetIlluStatus: Current Status: 2"},
        // Values the module refuses append its word to the starting "OK"; "-1" is 4294967295.
        {"SetIlluSegments 16", "OKRuntimeError", nullptr},
        {"SetIlluRedBrightness 101", "OKRuntimeError", nullptr},
        {"SetIlluMode -1", "OKRuntimeError", nullptr},
        {"GetIlluSegments", "OK", "GetIlluSegments: Segments: 5"},
    });
    for (const char* which : {"Internal", "External"}) {
        const std::string route = std::string("GetIllu") + which + "Temperature";
        EXPECT_TRUE(std::regex_match(h.run(route).second,
                                     std::regex(route + ": " + which + " Temperature: -?[0-9]+(\\.[0-9]+)?")));
    }
    // Not replies: the mode is parsed as a signed int, the others take the unsigned range.
    EXPECT_THROW(h.run("SetIlluMode 99999999999"), std::out_of_range);
    EXPECT_THROW(h.run("SetIlluSegments 99999999999999999999999"), std::out_of_range);
}

TEST(AutoFocusRoutes, RepliesAndModuleState)
{
    k52test::RouterHarness h;
    expectExchanges(h, {
        {"GetAFPositionMax", "OK", "GetAFPositionMax: Max position: 4095"},
        {"SetAFPosition 1000", "OK", "SetAFPosition: AF position set to 1000"},
        {"GetAFPosition", "OK", "GetAFPosition: Current position: 1000"},
        {"SetAFLEDMode 1", "OK", "SetAFLEDMode: LED mode set to 1"},
        {"SetAFLEDState 1", "OK", "SetAFLEDState: LED state set to 1"},
        {"GetAFFrequency", "OK", "GetAFFrequency: Current frequency: 1200"}, // factory value
        {"ResetAF", "OK", "ResetAF: AF module reset successfully."},
        {"GetAFPosition", "OK", "GetAFPosition: Current position: 0"},
        {"SweepAF", "OK", "SweepAF: Frequency sweep initiated."},
        // Only SetAFPosition starts from "Error".
        {"SetAFPosition 4096", "ErrorRuntimeError", nullptr},
        {"SetAFLEDMode 2", "OKRuntimeError", nullptr},
    });
    EXPECT_THROW(h.run("SetAFPosition"), std::out_of_range);
}

// Every route of both families maps a device error onto its own starting word.
TEST(IlluminationAndAutoFocusRoutes, DeviceErrorsAppendIOExceptionToTheStartingWord)
{
    for (const auto& [family, path, count] : {std::tuple{"Illu", "/dev/k52illum", 17}, std::tuple{"AF", "/dev/k52af", 8}}) {
        k52test::RouterHarness h;
        h.board().faults().inject(path, Fault::ioError);
        int routes = 0;
        for (const auto& [name, route] : h.router->routes()) {
            if (name.find(family) == std::string::npos)
                continue;
            ++routes;
            SCOPED_TRACE(name);
            auto [status, message] = h.run(name + " 0");
            EXPECT_EQ(status, name == "SetAFPosition" ? "ErrorIOException" : "OKIOException");
            EXPECT_THAT(message, StartsWith(name + ": "));
            EXPECT_THAT(message, HasSubstr(path));
        }
        EXPECT_EQ(routes, count);
    }
}

} // namespace
