#include "support/board.h"
#include "support/throws.h"
#include "utils/base/exceptions.h"
#include "utils/io/ioi2crtu.h"
#include "utils/io/iortu.h"
#include "utils/io/iortudataadapter.h"
#include "utils/io/ioimx.h"
#include "utils/platform/emulated/imxmodel.h"
#include "utils/platform/emulated/rtumodel.h"
#include "utils/platform/filedescriptor.h"

#include <gtest/gtest.h>
#include <tinyxml2.h>

#include <functional>
#include <optional>
#include <thread>
#include <tuple>

namespace {

using namespace utils::platform::emulated;
using utils::IORTU;
using utils::rtu_pin_config_t;

constexpr const char* enableLine = "/sys/class/gpio/gpio431/value";
constexpr const char* typeLine = "/sys/class/gpio/gpio479/value";

class RTUTest : public ::testing::Test {
protected:
    void SetUp() override { attachRTU(*board); rtu.open(); i2c.emplace("/dev/i2c-1", 66, O_RDWR); }
    void writeLine(const char* path, const std::string& text)
    {
        utils::FileDescriptor fd(utils::platform::kernel().open(path, O_WRONLY));
        ASSERT_EQ(utils::platform::kernel().write(fd.get(), text.data(), text.size()),
                  static_cast<ssize_t>(text.size()));
    }

    k52test::InstalledBoard board; // first: the devices close through it
    IORTU rtu{"/dev/k52rtu"};
    std::optional<utils::IOI2CRTU> i2c;
};

// Refusals name the register or pin, and leave the unit's value as it was.
TEST_F(RTUTest, RefusedValuesNameTheirRegister)
{
    rtu_pin_config_t badType;
    badType.setPin(2);
    badType[rtu_pin_config_t::type].value = 3;
    rtu_pin_config_t noSuchPin;
    noSuchPin.setPin(6);
    rtu.setDeviceState(utils::IORTUState::warning);
    rtu.setIOValue(5, 1); // the last pin
    const std::pair<std::function<void()>, const char*> cases[] = {
        {[&] { rtu.setDeviceState(static_cast<utils::IORTUState>(0)); }, "DEVICE_STATE"},
        {[&] { rtu.setDeviceState(static_cast<utils::IORTUState>(7)); }, "DEVICE_STATE"},
        {[&] { rtu.setAutoTrigger(static_cast<utils::IORTUTriggerMode>(2)); }, "TRIGGER_MODE"},
        {[&] { rtu.setIOConfig(badType); }, "PIN_CONFIG"},
        {[&] { rtu.setIOValue(6, 1); }, "No I/O pin 6 on"},
        {[&] { rtu.getIOConfig(noSuchPin); }, "No I/O pin 6 on"},
        {[&] { rtu.getIOValue(1u << 26); }, "No I/O pin 67108864"}, // would alias pin 0
    };
    for (const auto& [call, text] : cases)
        EXPECT_THAT(call, k52test::throwsWith<utils::IOError>(text, "/dev/k52rtu"));
    badType.setPin(2);
    rtu.getIOConfig(badType);
    EXPECT_EQ(std::tuple(rtu.getDeviceState(), rtu.getAutoTrigger(), rtu.getIOValue(5), badType[rtu_pin_config_t::type].value),
              std::tuple(utils::IORTUState::warning, utils::IORTUTriggerMode::continuous, 1u, 0u));
}

// The unit and the image sensor drive the one sensor bus; the image sensor's routes' tests pin
// its ranges, replies and the status record's refresh.
TEST_F(RTUTest, TheUnitAndTheImageSensorShareTheSensorBus)
{
    attachIMX(*board);
    utils::IOIMX imx("/dev/imx0", O_RDWR);
    SensorBus& bus = board->sensorBus();
    rtu.setAutoTrigger(utils::IORTUTriggerMode::manual);
    rtu.enableAcquisition(true);
    rtu.setFPS(0);
    imx.setExposure(10'000'000);
    EXPECT_THAT([&] { imx.setExposure(10'000'001); }, k52test::throwsWith<utils::IOError>("EXPOSURE"));
    rtu.setExposureTime(4321);
    imx.setROIXYOffset(1455, 1087);
    const uint64_t before = bus.pulses();
    rtu.manualTrigger();
    EXPECT_EQ(std::tuple(bus.trigger(), bus.acquisition(), bus.framesPerSecond(), bus.pulses(), bus.roiX(), bus.roiY()),
              std::tuple(SensorBus::Trigger::manual, true, 0u, before + 1, 1455, 1087));
    bus.setFramesPerSecond(60);
    bus.setTrigger(SensorBus::Trigger::continuous);
    EXPECT_EQ(std::pair(rtu.getFPS(), rtu.getAutoTrigger()), std::pair(60u, utils::IORTUTriggerMode::continuous));
    EXPECT_EQ(imx.getExposure(), 4321u) << "the unit's exposure is the sensor's";
    board->faults().inject("/dev/imx0", Fault::openFails);
    EXPECT_THROW(utils::IOIMX("/dev/imx0", O_RDWR), utils::IOError); // the constructor opens
}

// A line written by others is the unit's state too (the type line: below); outside the
// analog output the I2C registers are the unit's, read-only.
TEST_F(RTUTest, AnalogOutputLinesAndI2CRegisters)
{
    writeLine(enableLine, "0"); // active-low
    EXPECT_TRUE(rtu.getAnalogOutputState());
    EXPECT_EQ(i2c->readRTUHalfwordRegister(14), 0x1000);
    rtu.setDeviceState(utils::IORTUState::warning);
    EXPECT_EQ(i2c->readRTUHalfwordRegister(0) << 16 | i2c->readRTUHalfwordRegister(2), 5 << 16 | 2 << 8 | 7);
    for (uint8_t reg : {0, 20})
        EXPECT_THROW(i2c->writeRTUHalfwordRegister(reg, 1), utils::IOError) << reg;
    EXPECT_EQ(rtu.getDeviceState(), utils::IORTUState::warning);
}

// The three interfaces are used from different threads (route workers, the heartbeat).
TEST_F(RTUTest, InterfacesMayBeUsedConcurrently)
{
    constexpr int rounds = 200;
    std::thread node([&] {
        for (int i = 0; i < rounds; ++i) {
            rtu.setAnalogOutputState(i % 2);
            rtu.triggerHeartbeat();
        }
    });
    std::thread bus([&] {
        utils::IOI2CRTU other("/dev/i2c-1", 66, O_RDWR);
        for (int i = 0; i < rounds; ++i)
            other.writeRTUHalfwordRegister(16, static_cast<unsigned short>(i));
    });
    for (int i = 0; i < rounds; ++i)
        writeLine(typeLine, i % 2 ? "0" : "1");
    node.join();
    bus.join();
    EXPECT_EQ(rtu.getHeartbeatCount(), static_cast<unsigned>(rounds));
    EXPECT_EQ(rtu.getAnalogOutputVoltage(), rounds - 1u);
    EXPECT_TRUE(rtu.getAnalogOutputType()); // the last line write (0) selected current
}

// Device failures on the routes are checked end to end.
TEST_F(RTUTest, TheAdapterKeepsItsLastRecord)
{
    rtu.setFPS(15);
    rtu.setExposureOffset(static_cast<unsigned>(-7));
    rtu.setAnalogOutputType(true);
    utils::IORTUDataAdapter adapter{};
    adapter.load(rtu);
    tinyxml2::XMLDocument document;
    auto* element = document.NewElement("rtu");
    document.InsertFirstChild(element);
    adapter.toXml(element);
    adapter.toXml(element); // a refresh replaces, it does not add
    EXPECT_EQ(element->FirstChildElement("fps")->NextSiblingElement("fps"), nullptr);
    for (auto [name, text] : {std::pair{"fps", "15"}, {"exposureOffset", "-7"}, {"analogOutputType", "current"}, {"revision", "2.7"}})
        EXPECT_STREQ(element->FirstChildElement(name)->GetText(), text) << name;

    board->faults().inject("/dev/k52rtu", Fault::ioError);
    EXPECT_THROW(adapter.load(rtu), utils::IOError);
    EXPECT_EQ(adapter.data.framesPerSecond, 15u);

    board->faults().inject("/dev/k52rtu", Fault::openFails);
    IORTU unopened("/dev/k52rtu"); // constructing does not touch the device
    EXPECT_THROW(unopened.open(), utils::IOError);
    EXPECT_THROW(unopened.getState(), utils::IOError);
}

} // namespace
