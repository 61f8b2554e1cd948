#include "support/board.h"
#include "support/bytes.h"
#include "support/routerharness.h"
#include "support/throws.h"
#include "utils/base/exceptions.h"
#include "utils/io/ioautofocus.h"
#include "utils/io/ioillumination.h"
#include "utils/platform/emulated/autofocusmodel.h"
#include "utils/platform/emulated/illuminationmodel.h"
#include "utils/regmap/registeraccess.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fcntl.h>

#include <functional>
#include <regex>
#include <stdexcept>

namespace {

using k52test::expectExchanges;

using utils::IOAutoFocus;
using utils::IOIllumination;
using namespace utils::platform;
using namespace utils::platform::emulated;

constexpr const char* illuminationPath = "/dev/k52illum";
constexpr const char* autofocusPath = "/dev/k52af";

TEST(IlluminationAndAutoFocusRoutes, RepliesAndModuleState)
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
    for (const char* which : {"Internal", "External"}) {
        const std::string route = std::string("GetIllu") + which + "Temperature";
        EXPECT_TRUE(std::regex_match(h.run(route).second,
                                     std::regex(route + ": " + which + " Temperature: -?[0-9]+(\\.[0-9]+)?")));
    }
    // Not replies: the mode is parsed as a signed int, the others take the unsigned range.
    EXPECT_THROW(h.run("SetIlluMode 99999999999"), std::out_of_range);
    EXPECT_THROW(h.run("SetIlluSegments 99999999999999999999999"), std::out_of_range);
    EXPECT_THROW(h.run("SetAFPosition"), std::out_of_range);
}

// Every route of both families maps a device error onto its own starting word.
TEST(IlluminationAndAutoFocusRoutes, DeviceErrorsAppendIOExceptionToTheStartingWord)
{
    for (const auto& [family, path, count] : {std::tuple{"Illu", illuminationPath, 17}, std::tuple{"AF", autofocusPath, 8}}) {
        k52test::RouterHarness h;
        h.board().faults().inject(path, Fault::ioError);
        int routes = 0;
        for (const auto& [name, route] : h.router->routes()) {
            if (name.find(family) == std::string::npos)
                continue;
            ++routes;
            auto [status, message] = h.run(name + " 0");
            EXPECT_EQ(status, name == "SetAFPosition" ? "ErrorIOException" : "OKIOException") << name;
            EXPECT_THAT(message, testing::AllOf(testing::StartsWith(name + ": "), testing::HasSubstr(path)));
        }
        EXPECT_EQ(routes, count);
    }
}

// The modules alone: what the routes cannot show.
class ModuleTest : public ::testing::Test {
protected:
    void SetUp() override { attachIllumination(*board_); attachAutoFocus(*board_); illumination_.open(); autofocus_.open(); }

    // A register as another process sees it: the little-endian word at its address.
    uint32_t rawRegister(const char* path, uint32_t address)
    {
        k52_register_access request{address, 4, {}};
        int fd = kernel().open(path, O_RDWR);
        EXPECT_EQ(kernel().ioctl(fd, K52_REGISTER_READ, &request), 0);
        kernel().close(fd);
        return k52test::word(request.data, 0);
    }

    k52test::InstalledBoard board_; // first: the devices close through it
    IOIllumination illumination_{illuminationPath};
    IOAutoFocus autofocus_{autofocusPath};
};

// The routes' tests pin ranges and read-back; here the register each setting lands in.
TEST_F(ModuleTest, SettingsLandInTheirRegistersAndTheSweepRunsInTheBackground)
{
    struct Case { std::function<void()> set; const char* path; uint32_t address, value; };
    const Case cases[] = {
        {[&] { illumination_.setMode(0x1234); }, illuminationPath, 0x14, 0x1234},
        {[&] { illumination_.setSegments(9); }, illuminationPath, 0x18, 9},
        {[&] { illumination_.setWhiteBrightness(21); }, illuminationPath, 0x20, 21},
        {[&] { illumination_.setRedBrightness(22); }, illuminationPath, 0x24, 22},
        {[&] { illumination_.setGreenBrightness(23); }, illuminationPath, 0x28, 23},
        {[&] { illumination_.setBlueBrightness(24); }, illuminationPath, 0x2C, 24},
        {[&] { autofocus_.setPosition(2048); }, autofocusPath, 0x0C, 2048},
        {[&] { autofocus_.setLEDMode(1); }, autofocusPath, 0x14, 1},
        {[&] { autofocus_.setLEDState(1); }, autofocusPath, 0x18, 1},
        {[&] { autofocus_.reset(); }, autofocusPath, 0x18, 0},
    };
    for (const Case& c : cases) {
        c.set();
        EXPECT_EQ(rawRegister(c.path, c.address), c.value) << c.path << " " << c.address;
    }
    autofocus_.sweepFrequency();
    EXPECT_EQ(rawRegister(autofocusPath, 0x04) & 0x1, 0x1u) << "busy while sweeping";
    autofocus_.setPosition(100); // waits for the sweep to finish first
    EXPECT_EQ(rawRegister(autofocusPath, 0x04) & 0x5, 0x4u) << "idle, SWEEP_VALID";
}

// I/O errors on every route are the routes' test's; here what the modules say about the rest.
TEST_F(ModuleTest, InjectedFaultsBecomeIOErrors)
{
    struct Case { const char* path; Fault fault; std::function<void()> call; const char* text; };
    const Case cases[] = {
        {illuminationPath, Fault::openFails, [] { IOIllumination(illuminationPath).open(); }, "Unable to open '/dev/k52illum'"},
        {autofocusPath, Fault::timeout, [&] { autofocus_.reset(); }, "Timed out"},
        {"", Fault::none, [] { IOAutoFocus(autofocusPath).getPosition(); }, "not open"},
    };
    for (const auto& c : cases) {
        board_->faults().inject(c.path, c.fault);
        EXPECT_THAT(c.call, k52test::throwsWith<utils::IOError>(c.text)) << c.text;
        board_->faults().clear(c.path);
    }
}

} // namespace
