#include "support/routerharness.h"
#include "utils/base/exceptions.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <future>
#include <regex>

namespace {

using k52test::Exchange;
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
        {"GetIlluMode", "OK", "GetIlluMode: Mode: 0"},
        {"GetIlluSegments", "OK", "GetIlluSegments: Segments: 15"},

        // Set routes confirm with their prefix alone.
        {"SetIlluMode 65535", "OK", "SetIlluMode: "},
        {"GetIlluMode", "OK", "GetIlluMode: Mode: 65535"},
        {"GetIlluStatus", "OK", "GetIlluStatus: Current Status: 2"}, // strobe
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
        {"SetIlluMode", "OK", "SetIlluMode: "},
        {"GetIlluMode", "OK", "GetIlluMode: Mode: 0"},
        {"GetIlluWhiteBrightness extra words", "OK", "GetIlluWhiteBrightness: Brightness: 40"},
    });
}

TEST(IlluminationRoutes, TemperaturesAreDecimalNumbers)
{
    k52test::RouterHarness h;
    for (const char* which : {"Internal", "External"}) {
        std::string route = std::string("GetIllu") + which + "Temperature";
        auto [status, message] = h.run(route);
        EXPECT_EQ(status, "OK");
        EXPECT_TRUE(std::regex_match(message, std::regex(route + ": " + which +
                                                         " Temperature: -?[0-9]+(\\.[0-9]+)?")))
            << message;
    }
}

// Failures append the exception's word to the starting "OK".
TEST(IlluminationRoutes, ValuesTheModuleRefusesReadOKRuntimeError)
{
    k52test::RouterHarness h;
    for (const char* command : {"SetIlluSegments 16", "SetIlluWhiteBrightness 101", "SetIlluRedBrightness 200",
                                "SetIlluGreenBrightness 101", "SetIlluBlueBrightness 101", "SetIlluMode 65536",
                                "SetIlluMode -1"}) {
        SCOPED_TRACE(command);
        auto [status, message] = h.run(command);
        std::string route = std::string(command).substr(0, std::string(command).find(' '));
        EXPECT_EQ(status, "OKRuntimeError");
        EXPECT_THAT(message, StartsWith(route + ": Illumination '/dev/k52illum'"));
    }
    expectExchanges(h, {{"GetIlluSegments", "OK", "GetIlluSegments: Segments: 15"}});
}

TEST(IlluminationRoutes, DeviceErrorsReadOKIOException)
{
    k52test::RouterHarness h;
    h.board().faults().inject("/dev/k52illum", Fault::ioError);
    int routes = 0;
    for (const auto& [name, route] : h.router->routes()) {
        if (name.find("Illu") == std::string::npos)
            continue;
        ++routes;
        SCOPED_TRACE(name);
        auto [status, message] = h.run(name);
        EXPECT_EQ(status, "OKIOException");
        EXPECT_THAT(message, StartsWith(name + ": "));
        EXPECT_THAT(message, HasSubstr("/dev/k52illum"));
    }
    EXPECT_EQ(routes, 17);
}

TEST(IlluminationRoutes, ArgumentErrorsLeaveTheHandler)
{
    k52test::RouterHarness h;
    EXPECT_THROW(h.run("SetIlluMode strobe"), utils::UtilsRuntimeError) << "refused by dispatch";
    EXPECT_THROW(h.run("SetIlluMode 99999999999"), std::out_of_range) << "stoi";
    EXPECT_THROW(h.run("SetIlluSegments 99999999999999999999999"), std::out_of_range) << "stoul";
    // The group is free again after the exception went through.
    std::unique_lock lock(h.resources->getMutex(k52app::K52ResourceGroups::ILLUMINATION), std::try_to_lock);
    EXPECT_TRUE(lock.owns_lock());
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
    });
    auto [status, message] = h.run("GetAFFrequency");
    EXPECT_EQ(status, "OK");
    EXPECT_TRUE(std::regex_match(message, std::regex("GetAFFrequency: Current frequency: [0-9]+"))) << message;
}

// Only SetAFPosition starts from "Error"; the other autofocus routes start from "OK".
TEST(AutoFocusRoutes, FailureStatusesFollowTheStartingWord)
{
    struct Case {
        const char* command;
        const char* status;
    };
    {
        k52test::RouterHarness h;
        for (const Case& c : {Case{"SetAFPosition 4096", "ErrorRuntimeError"},
                              Case{"SetAFLEDMode 2", "OKRuntimeError"},
                              Case{"SetAFLEDState 5", "OKRuntimeError"}}) {
            SCOPED_TRACE(c.command);
            auto [status, message] = h.run(c.command);
            EXPECT_EQ(status, c.status);
            EXPECT_THAT(message, HasSubstr("AutoFocus '/dev/k52af'"));
        }
    }
    k52test::RouterHarness h;
    h.board().faults().inject("/dev/k52af", Fault::ioError);
    int routes = 0;
    for (const auto& [name, route] : h.router->routes()) {
        if (name.find("AF") == std::string::npos)
            continue;
        ++routes;
        SCOPED_TRACE(name);
        auto [status, message] = h.run(name + " 0");
        EXPECT_EQ(status, name == "SetAFPosition" ? "ErrorIOException" : "OKIOException");
        EXPECT_THAT(message, StartsWith(name + ": "));
        EXPECT_THAT(message, HasSubstr("/dev/k52af"));
    }
    EXPECT_EQ(routes, 8);
}

TEST(AutoFocusRoutes, MissingArgumentLeavesTheHandlerAndFreesTheGroup)
{
    k52test::RouterHarness h;
    for (const char* command : {"SetAFPosition", "SetAFLEDMode", "SetAFLEDState"}) {
        SCOPED_TRACE(command);
        EXPECT_THROW(h.run(command), std::out_of_range);
        std::unique_lock lock(h.resources->getMutex(k52app::K52ResourceGroups::AUTOFOCUS), std::try_to_lock);
        EXPECT_TRUE(lock.owns_lock());
    }
    EXPECT_THROW(h.run("SetAFPosition -"), utils::UtilsRuntimeError);
}

TEST(IlluminationAndAutoFocusRoutes, WaitForTheirGroup)
{
    k52test::RouterHarness h;
    struct Case {
        const char* command;
        k52app::K52ResourceGroups group;
    };
    for (const Case& c : {Case{"GetIlluMode", k52app::K52ResourceGroups::ILLUMINATION},
                          Case{"GetAFPosition", k52app::K52ResourceGroups::AUTOFOCUS}}) {
        SCOPED_TRACE(c.command);
        std::unique_lock held(h.resources->getMutex(c.group));
        auto reply = std::async(std::launch::async, [&] { return h.run(c.command); });
        EXPECT_EQ(reply.wait_for(std::chrono::milliseconds(100)), std::future_status::timeout);
        held.unlock();
        EXPECT_EQ(reply.get().first, "OK");
    }
}

} // namespace
