#include "utils/base/exceptions.h"
#include "utils/io/ioautofocus.h"
#include "utils/io/ioillumination.h"
#include "utils/io/registeraccess.h"
#include "utils/platform/emulated/autofocusmodel.h"
#include "utils/platform/emulated/board.h"
#include "utils/platform/emulated/illuminationmodel.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fcntl.h>

#include <functional>
#include <thread>

namespace {

using utils::IOAutoFocus;
using utils::IOIllumination;
using namespace utils::platform;
using namespace utils::platform::emulated;
using namespace std::chrono_literals;

constexpr const char* illuminationPath = "/dev/k52illum";
constexpr const char* autofocusPath = "/dev/k52af";

class ModuleTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        board_ = std::make_shared<EmulatedBoard>();
        attachIllumination(*board_);
        attachAutoFocus(*board_);
        installKernel(board_);
        illumination_.open();
        autofocus_.open();
    }
    void TearDown() override { installKernel(nullptr); }

    // A register as another process sees it: four little-endian bytes at its address.
    std::array<uint8_t, 4> rawRegister(const char* path, uint32_t address)
    {
        k52_register_access request{address, 4, {}};
        int fd = kernel().open(path, O_RDWR);
        EXPECT_EQ(kernel().ioctl(fd, K52_REGISTER_READ, &request), 0);
        kernel().close(fd);
        return {request.data[0], request.data[1], request.data[2], request.data[3]};
    }

    template <typename Call>
    void expectIOError(Call call, const char* text)
    {
        EXPECT_THAT(call, testing::ThrowsMessage<utils::IOError>(testing::HasSubstr(text)));
    }

    std::shared_ptr<EmulatedBoard> board_;
    IOIllumination illumination_{illuminationPath};
    IOAutoFocus autofocus_{autofocusPath};
};

struct Setting {
    const char* name;
    void (IOIllumination::*set)(unsigned);
    unsigned (IOIllumination::*get)() const;
    unsigned max;
};

const Setting illuminationSettings[] = {
    {"mode", &IOIllumination::setMode, &IOIllumination::getMode, 65535},
    {"segments", &IOIllumination::setSegments, &IOIllumination::getSegments, 15},
    {"white", &IOIllumination::setWhiteBrightness, &IOIllumination::getWhiteBrightness, 100},
    {"red", &IOIllumination::setRedBrightness, &IOIllumination::getRedBrightness, 100},
    {"green", &IOIllumination::setGreenBrightness, &IOIllumination::getGreenBrightness, 100},
    {"blue", &IOIllumination::setBlueBrightness, &IOIllumination::getBlueBrightness, 100},
};

TEST_F(ModuleTest, IlluminationSettingsRoundTripAndRejectValuesBeyondTheirRange)
{
    for (const auto& s : illuminationSettings) {
        for (unsigned value : {0u, 1u, s.max}) {
            (illumination_.*s.set)(value);
            EXPECT_EQ((illumination_.*s.get)(), value) << s.name;
        }
        (illumination_.*s.set)(s.max / 2);
        EXPECT_THROW((illumination_.*s.set)(s.max + 1), utils::UtilsRuntimeError) << s.name;
        EXPECT_EQ((illumination_.*s.get)(), s.max / 2) << s.name << " changed by a refused value";
    }
}

TEST_F(ModuleTest, IlluminationRegistersSitAtTheirDocumentedAddresses)
{
    illumination_.setWhiteBrightness(42);
    illumination_.setMode(0x1234);
    illumination_.setSegments(0b1010);
    EXPECT_EQ(rawRegister(illuminationPath, 0x20), (std::array<uint8_t, 4>{42, 0, 0, 0}));
    EXPECT_EQ(rawRegister(illuminationPath, 0x14), (std::array<uint8_t, 4>{0x34, 0x12, 0, 0}));
    EXPECT_EQ(rawRegister(illuminationPath, 0x18), (std::array<uint8_t, 4>{0x0a, 0, 0, 0}));
    EXPECT_EQ(illumination_.getSerialNumber(), 52013377u);
}

TEST_F(ModuleTest, IlluminationStatusFollowsTheLight)
{
    struct Case {
        const char* name;
        unsigned enable, segments, white, mode;
        unsigned status;
    };
    const Case cases[] = {
        {"off", 0, 15, 50, 0, 0},
        {"on", 1, 15, 50, 0, IOIllumination::Status::lit},
        {"enable is any non-zero value", 0xFFFFFFFF, 1, 50, 0, IOIllumination::Status::lit},
        {"no segment", 1, 0, 50, 0, 0},
        {"dark channels", 1, 15, 0, 0, 0},
        {"strobe", 1, 15, 50, 65535,
         IOIllumination::Status::lit | IOIllumination::Status::strobe},
    };
    for (const auto& c : cases) {
        illumination_.setEnable(c.enable);
        illumination_.setSegments(c.segments);
        illumination_.setWhiteBrightness(c.white);
        illumination_.setMode(c.mode);
        EXPECT_EQ(illumination_.getStatus(), c.status) << c.name;
    }
}

TEST_F(ModuleTest, TheLightWarmsTheModule)
{
    const float internal = illumination_.getInternalTemperature();
    const float external = illumination_.getExternalTemperature();
    for (float celsius : {internal, external}) {
        EXPECT_GT(celsius, 15.0f);
        EXPECT_LT(celsius, 40.0f);
    }
    illumination_.setSegments(15);
    for (auto channel : {&IOIllumination::setWhiteBrightness, &IOIllumination::setRedBrightness,
                         &IOIllumination::setGreenBrightness, &IOIllumination::setBlueBrightness})
        (illumination_.*channel)(100);
    illumination_.setEnable(1);
    std::this_thread::sleep_for(300ms);
    float warmer = illumination_.getInternalTemperature();
    EXPECT_GT(warmer, internal + 0.3f);
    EXPECT_GT(warmer - internal, illumination_.getExternalTemperature() - external)
        << "the housing warms less than the LED driver";
}

TEST_F(ModuleTest, AutoFocusMovesAndResetHomesTheLensAndClearsTheLED)
{
    EXPECT_EQ(autofocus_.getPositionMax(), 4095u);
    for (unsigned position : {4095u, 0u, 1u, 2048u}) {
        autofocus_.setPosition(position);
        EXPECT_EQ(autofocus_.getPosition(), position);
    }
    EXPECT_THROW(autofocus_.setPosition(4096), utils::UtilsRuntimeError);
    EXPECT_EQ(rawRegister(autofocusPath, 0x0C), (std::array<uint8_t, 4>{0x00, 0x08, 0, 0}));

    autofocus_.setLEDMode(1);
    autofocus_.setLEDState(1);
    autofocus_.reset();
    EXPECT_EQ(autofocus_.getPosition(), 0u);
    EXPECT_EQ(rawRegister(autofocusPath, 0x14)[0], 0);
    EXPECT_EQ(rawRegister(autofocusPath, 0x18)[0], 0);
    EXPECT_THROW(autofocus_.setLEDMode(2), utils::UtilsRuntimeError);
    EXPECT_THROW(autofocus_.setLEDState(2), utils::UtilsRuntimeError);
}

TEST_F(ModuleTest, AutoFocusLEDGoesDarkDuringCaptureOnlyInMode1)
{
    constexpr uint8_t ledOn = 0x2;
    struct Case {
        unsigned mode, state;
        bool acquiring;
        bool lit;
    };
    const Case cases[] = {
        {0, 1, false, true}, {0, 1, true, true},  {1, 1, false, true},
        {1, 1, true, false}, {0, 0, false, false}, {1, 0, true, false},
    };
    for (const auto& c : cases) {
        autofocus_.setLEDMode(c.mode);
        autofocus_.setLEDState(c.state);
        board_->sensorBus().setAcquisition(c.acquiring);
        EXPECT_EQ((rawRegister(autofocusPath, 0x04)[0] & ledOn) != 0, c.lit)
            << "mode " << c.mode << " state " << c.state << " acquiring " << c.acquiring;
    }
}

TEST_F(ModuleTest, AutoFocusSweepRunsInTheBackgroundAndFindsTheResonance)
{
    EXPECT_EQ(autofocus_.getFrequency(), 1200u) << "factory value before any sweep";
    autofocus_.sweepFrequency();
    EXPECT_EQ(rawRegister(autofocusPath, 0x04)[0] & 0x1, 0x1) << "busy while sweeping";
    autofocus_.setPosition(100); // waits for the sweep to finish first
    unsigned found = autofocus_.getFrequency();
    EXPECT_GE(found, 1165u);
    EXPECT_LE(found, 1205u);
    EXPECT_EQ(rawRegister(autofocusPath, 0x04)[0] & 0x4, 0x4) << "SWEEP_VALID";
}

TEST_F(ModuleTest, InjectedFaultsBecomeIOErrors)
{
    struct Case {
        const char* name;
        const char* path;
        Fault fault;
        std::function<void()> call;
        const char* text;
    };
    const Case cases[] = {
        {"illumination open", illuminationPath, Fault::openFails,
         [] { IOIllumination(illuminationPath).open(); }, "Unable to open '/dev/k52illum'"},
        {"illumination io", illuminationPath, Fault::ioError,
         [&] { illumination_.getStatus(); }, "Input/output error"},
        {"illumination timeout", illuminationPath, Fault::timeout,
         [&] { illumination_.setEnable(1); }, "timed out"},
        {"autofocus open", autofocusPath, Fault::openFails,
         [] { IOAutoFocus(autofocusPath).open(); }, "Unable to open '/dev/k52af'"},
        {"autofocus io", autofocusPath, Fault::ioError, [&] { autofocus_.setLEDState(1); },
         "Input/output error"},
        {"autofocus timeout", autofocusPath, Fault::timeout, [&] { autofocus_.reset(); },
         "Timed out"},
        {"not open", "", Fault::none, [] { IOAutoFocus(autofocusPath).getPosition(); },
         "not open"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        board_->faults().inject(c.path, c.fault);
        expectIOError(c.call, c.text);
        board_->faults().clear(c.path);
    }
}

} // namespace
