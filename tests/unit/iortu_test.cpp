#include "support/board.h"
#include "support/throws.h"
#include "utils/base/exceptions.h"
#include "utils/io/filedescriptor.h"
#include "utils/io/ioi2crtu.h"
#include "utils/io/iortu.h"
#include "utils/io/iortudataadapter.h"
#include "utils/platform/emulated/board.h"
#include "utils/platform/emulated/rtumodel.h"
#include "utils/platform/kernel.h"

#include <gtest/gtest.h>
#include <tinyxml2.h>

#include <functional>
#include <optional>
#include <thread>

namespace {

using namespace utils::platform::emulated;
using utils::IORTU;
using utils::rtu_pin_config_t;

constexpr const char* enableLine = "/sys/class/gpio/gpio431/value";
constexpr const char* typeLine = "/sys/class/gpio/gpio479/value";

class RTUTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        attachRTU(*board);
        rtu.open();
        i2c.emplace("/dev/i2c-1", 66, O_RDWR);
    }

    std::string readLine(const char* path)
    {
        utils::FileDescriptor fd(utils::platform::kernel().open(path, O_RDONLY));
        char text[16] = {};
        EXPECT_GE(utils::platform::kernel().read(fd.get(), text, sizeof text - 1), 0) << path;
        return text;
    }
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

TEST_F(RTUTest, ValuesTheUnitKeepsOrRefuses)
{
    rtu_pin_config_t badType;
    badType.setPin(2);
    badType[rtu_pin_config_t::type].value = 3;
    rtu_pin_config_t noSuchPin;
    noSuchPin.setPin(6);
    const auto pin2Type = [&] {
        rtu_pin_config_t pin;
        pin.setPin(2);
        rtu.getIOConfig(pin);
        return pin[rtu_pin_config_t::type].value;
    };
    const auto state = [&] { return static_cast<unsigned>(rtu.getDeviceState()); };
    const auto setState = [&](unsigned v) { rtu.setDeviceState(static_cast<utils::IORTUState>(v)); };
    struct Case {
        std::function<void()> set;
        std::function<unsigned()> get; // none where reading back is refused too
        unsigned expected;
        const char* refusal; // in the error's text; none where the value is taken
    };
    const Case cases[] = {
        {[&] { rtu.setAnalogOutputVoltage(70000); }, [&] { return rtu.getAnalogOutputVoltage(); }, 4464,
         nullptr}, // 16 bits kept
        {[&] { setState(6); }, state, 6, nullptr},
        {[&] { setState(0); }, state, 6, "DEVICE_STATE"},
        {[&] { setState(7); }, state, 6, "DEVICE_STATE"},
        {[&] { rtu.setAutoTrigger(static_cast<utils::IORTUTriggerMode>(2)); },
         [&] { return static_cast<unsigned>(rtu.getAutoTrigger()); }, 1, "TRIGGER_MODE"},
        {[&] { rtu.setIOValue(5, 1); }, [&] { return rtu.getIOValue(5); }, 1, nullptr},
        {[&] { rtu.setIOConfig(badType); }, pin2Type, 0, "PIN_CONFIG"},
        {[&] { rtu.setIOValue(6, 1); }, nullptr, 0, "No I/O pin 6 on"},
        {[&] { rtu.getIOConfig(noSuchPin); }, nullptr, 0, "No I/O pin 6 on"},
        {[&] { rtu.getIOValue(1u << 26); }, nullptr, 0, "No I/O pin 67108864"}, // would alias pin 0
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(&c - cases);
        if (c.refusal) {
            EXPECT_THAT(c.set, k52test::throwsWith<utils::IOError>(c.refusal, "/dev/k52rtu"));
        } else {
            c.set();
        }
        if (c.get) {
            EXPECT_EQ(c.get(), c.expected);
        }
    }
}

TEST_F(RTUTest, PinConfigurationIsPerPinAndTriggeringReachesTheSensorBus)
{
    rtu_pin_config_t written;
    written.setPin(3);
    const uint32_t values[] = {2, 1, 3, 1, 1, 0, 1, 1500, 0, 20000};
    for (size_t i = 0; i < rtu_pin_config_t::count; ++i)
        written.entries[i].value = values[i];
    rtu.setIOConfig(written);
    for (unsigned pin : {2u, 3u, 4u}) {
        rtu_pin_config_t read;
        read.setPin(pin);
        rtu.getIOConfig(read);
        for (size_t i = 0; i < rtu_pin_config_t::count; ++i)
            EXPECT_EQ(read.entries[i].value, pin == 3 ? values[i] : 0u) << pin << " entry " << i;
    }

    SensorBus& bus = board->sensorBus();
    rtu.setAutoTrigger(utils::IORTUTriggerMode::manual);
    rtu.enableAcquisition(true);
    rtu.setFPS(0);
    rtu.setExposureTime(4321);
    const uint64_t before = bus.pulses();
    rtu.manualTrigger();
    EXPECT_EQ(bus.trigger(), SensorBus::Trigger::manual);
    EXPECT_TRUE(bus.acquisition());
    EXPECT_EQ(bus.framesPerSecond(), 0u);
    EXPECT_EQ(bus.exposureUs(), 4321u);
    EXPECT_EQ(bus.pulses(), before + 1);
    // What another part of the board sets on the bus is what the unit reports.
    bus.setFramesPerSecond(60);
    bus.setTrigger(SensorBus::Trigger::continuous);
    EXPECT_EQ(rtu.getFPS(), 60u);
    EXPECT_EQ(rtu.getAutoTrigger(), utils::IORTUTriggerMode::continuous);
}

// The analog output's lines are the unit's state too (the routes' tests cover the node and the
// registers); outside the analog output the I2C registers are the unit's, read-only.
TEST_F(RTUTest, AnalogOutputLinesAndI2CRegisters)
{
    writeLine(enableLine, "0"); // active-low
    writeLine(typeLine, "1");
    EXPECT_TRUE(rtu.getAnalogOutputState());
    EXPECT_FALSE(rtu.getAnalogOutputType());
    EXPECT_EQ(i2c->readRTUHalfwordRegister(14), 0x1000);
    EXPECT_EQ(i2c->readRTUHalfwordRegister(15), 0);
    writeLine(enableLine, "on"); // not a number: the line keeps its level
    EXPECT_EQ(readLine(enableLine), "0\n");

    rtu.setDeviceState(utils::IORTUState::warning);
    EXPECT_EQ(i2c->readRTUHalfwordRegister(0), 5);
    EXPECT_EQ(i2c->readRTUHalfwordRegister(2), 2 << 8 | 7);
    EXPECT_THROW(i2c->writeRTUHalfwordRegister(0, 1), utils::IOError);
    EXPECT_THROW(i2c->writeRTUHalfwordRegister(20, 1), utils::IOError);
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

TEST_F(RTUTest, FaultsBecomeIOErrorsAndTheAdapterKeepsItsLastRecord)
{
    for (Fault fault : {Fault::ioError, Fault::timeout}) {
        board->faults().inject("/dev/k52rtu", fault);
        EXPECT_THAT([&] { rtu.getFPS(); },
                    k52test::throwsWith<utils::IOError>("/dev/k52rtu", fault == Fault::ioError
                                                                           ? "Input/output error"
                                                                           : "timed out"));
        board->faults().clear("/dev/k52rtu");
    }

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
    EXPECT_STREQ(element->FirstChildElement("fps")->GetText(), "15");
    EXPECT_STREQ(element->FirstChildElement("exposureOffset")->GetText(), "-7");
    EXPECT_STREQ(element->FirstChildElement("analogOutputType")->GetText(), "current");
    EXPECT_STREQ(element->FirstChildElement("revision")->GetText(), "2.7");

    board->faults().inject("/dev/k52rtu", Fault::ioError);
    EXPECT_THROW(adapter.load(rtu), utils::IOError);
    EXPECT_EQ(adapter.data.framesPerSecond, 15u);

    board->faults().inject("/dev/k52rtu", Fault::openFails);
    IORTU unopened("/dev/k52rtu"); // constructing does not touch the device
    EXPECT_THROW(unopened.open(), utils::IOError);
    EXPECT_THROW(unopened.getState(), utils::IOError);
}

} // namespace
