#include "support/board.h"
#include "support/throws.h"
#include "utils/base/exceptions.h"
#include "utils/io/ioautofocus.h"
#include "utils/io/ioillumination.h"
#include "utils/io/registeraccess.h"
#include "utils/platform/emulated/autofocusmodel.h"
#include "utils/platform/emulated/board.h"
#include "utils/platform/emulated/illuminationmodel.h"

#include <gtest/gtest.h>

#include <fcntl.h>

#include <functional>

namespace {

using utils::IOAutoFocus;
using utils::IOIllumination;
using namespace utils::platform;
using namespace utils::platform::emulated;

constexpr const char* illuminationPath = "/dev/k52illum";
constexpr const char* autofocusPath = "/dev/k52af";

class ModuleTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        attachIllumination(*board_);
        attachAutoFocus(*board_);
        illumination_.open();
        autofocus_.open();
    }

    // A register as another process sees it: four little-endian bytes at its address.
    std::array<uint8_t, 4> rawRegister(const char* path, uint32_t address)
    {
        k52_register_access request{address, 4, {}};
        int fd = kernel().open(path, O_RDWR);
        EXPECT_EQ(kernel().ioctl(fd, K52_REGISTER_READ, &request), 0);
        kernel().close(fd);
        return {request.data[0], request.data[1], request.data[2], request.data[3]};
    }

    k52test::InstalledBoard board_; // first: the devices close through it
    IOIllumination illumination_{illuminationPath};
    IOAutoFocus autofocus_{autofocusPath};
};

TEST_F(ModuleTest, IlluminationSettingsKeepTheirRangeAndRegister)
{
    struct Setting {
        void (IOIllumination::*set)(unsigned);
        unsigned (IOIllumination::*get)() const;
        unsigned max;
        uint32_t address;
    };
    const Setting settings[] = {
        {&IOIllumination::setMode, &IOIllumination::getMode, 65535, 0x14},
        {&IOIllumination::setSegments, &IOIllumination::getSegments, 15, 0x18},
        {&IOIllumination::setWhiteBrightness, &IOIllumination::getWhiteBrightness, 100, 0x20},
        {&IOIllumination::setRedBrightness, &IOIllumination::getRedBrightness, 100, 0x24},
        {&IOIllumination::setGreenBrightness, &IOIllumination::getGreenBrightness, 100, 0x28},
        {&IOIllumination::setBlueBrightness, &IOIllumination::getBlueBrightness, 100, 0x2C},
    };
    for (const auto& s : settings) {
        SCOPED_TRACE(s.address);
        (illumination_.*s.set)(0);
        (illumination_.*s.set)(s.max);
        EXPECT_EQ((illumination_.*s.get)(), s.max);
        EXPECT_EQ(rawRegister(illuminationPath, s.address),
                  (std::array<uint8_t, 4>{uint8_t(s.max), uint8_t(s.max >> 8), 0, 0}));
        EXPECT_THROW((illumination_.*s.set)(s.max + 1), utils::UtilsRuntimeError);
        EXPECT_EQ((illumination_.*s.get)(), s.max) << "changed by a refused value";
    }
}

// Lit needs a non-zero enable, a segment and a bright channel (the routes' test covers strobe).
TEST_F(ModuleTest, IlluminationStatusFollowsTheLight)
{
    struct Case {
        unsigned enable, segments, white;
        bool lit;
    };
    for (const Case& c : {Case{0xFFFFFFFF, 1, 50, true}, Case{0, 15, 50, false}, Case{1, 0, 50, false},
                          Case{1, 15, 0, false}}) {
        illumination_.setEnable(c.enable);
        illumination_.setSegments(c.segments);
        illumination_.setWhiteBrightness(c.white);
        EXPECT_EQ(illumination_.getStatus(), c.lit ? IOIllumination::Status::lit : 0u)
            << c.enable << " " << c.segments << " " << c.white;
    }
}

TEST_F(ModuleTest, AutoFocusPositionResetAndLED)
{
    autofocus_.setPosition(2048);
    EXPECT_EQ(rawRegister(autofocusPath, 0x0C), (std::array<uint8_t, 4>{0x00, 0x08, 0, 0}));
    autofocus_.setLEDMode(1);
    autofocus_.setLEDState(1);
    autofocus_.reset();
    EXPECT_EQ(autofocus_.getPosition(), 0u);
    EXPECT_EQ(rawRegister(autofocusPath, 0x14)[0], 0);
    EXPECT_EQ(rawRegister(autofocusPath, 0x18)[0], 0);

    // Mode 1 darkens the LED while the sensor acquires; mode 0 leaves it alone.
    constexpr uint8_t ledOn = 0x2;
    struct Case {
        unsigned mode, state;
        bool acquiring, lit;
    };
    for (const Case& c : {Case{0, 1, true, true}, Case{1, 1, false, true}, Case{1, 1, true, false},
                          Case{0, 0, false, false}}) {
        autofocus_.setLEDMode(c.mode);
        autofocus_.setLEDState(c.state);
        board_->sensorBus().setAcquisition(c.acquiring);
        EXPECT_EQ((rawRegister(autofocusPath, 0x04)[0] & ledOn) != 0, c.lit)
            << "mode " << c.mode << " state " << c.state << " acquiring " << c.acquiring;
    }
}

TEST_F(ModuleTest, AutoFocusSweepRunsInTheBackground)
{
    autofocus_.sweepFrequency();
    EXPECT_EQ(rawRegister(autofocusPath, 0x04)[0] & 0x1, 0x1) << "busy while sweeping";
    autofocus_.setPosition(100); // waits for the sweep to finish first
    EXPECT_EQ(rawRegister(autofocusPath, 0x04)[0] & 0x5, 0x4) << "idle, SWEEP_VALID";
}

TEST_F(ModuleTest, InjectedFaultsBecomeIOErrors)
{
    struct Case {
        const char* path;
        Fault fault;
        std::function<void()> call;
        const char* text;
    };
    // I/O errors on every route are the routes' test's; here what the modules say about them.
    const Case cases[] = {
        {illuminationPath, Fault::openFails, [] { IOIllumination(illuminationPath).open(); },
         "Unable to open '/dev/k52illum'"},
        {illuminationPath, Fault::timeout, [&] { illumination_.setEnable(1); }, "timed out"},
        {autofocusPath, Fault::openFails, [] { IOAutoFocus(autofocusPath).open(); },
         "Unable to open '/dev/k52af'"},
        {autofocusPath, Fault::timeout, [&] { autofocus_.reset(); }, "Timed out"},
        {"", Fault::none, [] { IOAutoFocus(autofocusPath).getPosition(); }, "not open"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.text);
        board_->faults().inject(c.path, c.fault);
        EXPECT_THAT(c.call, k52test::throwsWith<utils::IOError>(c.text));
        board_->faults().clear(c.path);
    }
}

} // namespace
