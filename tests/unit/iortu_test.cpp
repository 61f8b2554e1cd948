#include "utils/base/exceptions.h"
#include "utils/io/filedescriptor.h"
#include "utils/io/ioi2crtu.h"
#include "utils/io/iortu.h"
#include "utils/io/iortudataadapter.h"
#include "utils/platform/emulated/board.h"
#include "utils/platform/emulated/rtumodel.h"
#include "utils/platform/kernel.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <tinyxml2.h>

#include <functional>
#include <thread>
#include <optional>

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
        board = std::make_shared<EmulatedBoard>();
        attachRTU(*board);
        utils::platform::installKernel(board);
        rtu.open();
        i2c.emplace("/dev/i2c-1", 66, O_RDWR);
    }
    void TearDown() override
    {
        i2c.reset();
        rtu.close();
        utils::platform::installKernel(nullptr);
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

    std::shared_ptr<EmulatedBoard> board;
    IORTU rtu{"/dev/k52rtu"};
    std::optional<utils::IOI2CRTU> i2c;
};

TEST_F(RTUTest, EverySettingReadsBackAsTheUnitKeepsIt)
{
    struct Case {
        const char* what;
        std::function<void(const IORTU&, unsigned)> set;
        std::function<unsigned(const IORTU&)> get;
        unsigned value;
        unsigned expected;
    };
    const Case cases[] = {
        {"exposure time", &IORTU::setExposureTime, &IORTU::getExposureTime, 12500, 12500},
        {"prohibited time", &IORTU::setExposureProhibitedTime, &IORTU::getExposureProhibitedTime,
         800, 800},
        {"voltage", &IORTU::setAnalogOutputVoltage, &IORTU::getAnalogOutputVoltage, 5000, 5000},
        {"voltage keeps 16 bits", &IORTU::setAnalogOutputVoltage, &IORTU::getAnalogOutputVoltage,
         70000, 4464},
        {"current", &IORTU::setAnalogOutputCurrent, &IORTU::getAnalogOutputCurrent, 20000, 20000},
        {"status LED", &IORTU::setStatusLED, &IORTU::getStatusLED, 3, 3},
        {"acquisition", [](const IORTU& r, unsigned v) { r.enableAcquisition(v); },
         [](const IORTU& r) -> unsigned { return r.getAcquisitionEnabled(); }, 1, 1},
        {"highest device state",
         [](const IORTU& r, unsigned v) { r.setDeviceState(static_cast<utils::IORTUState>(v)); },
         [](const IORTU& r) { return static_cast<unsigned>(r.getDeviceState()); }, 6, 6},
        {"unchecked camera mode",
         [](const IORTU& r, unsigned v) { r.setImageSensor(static_cast<utils::IORTUCameraMode>(v)); },
         [](const IORTU& r) { return static_cast<unsigned>(r.getImageSensor()); }, 5, 5},
        {"io value", [](const IORTU& r, unsigned v) { r.setIOValue(4, v); },
         [](const IORTU& r) { return r.getIOValue(4); }, 1, 1},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        c.set(rtu, c.value);
        EXPECT_EQ(c.get(rtu), c.expected);
    }
}

TEST_F(RTUTest, RefusedValuesThrowAndChangeNothing)
{
    rtu.setDeviceState(utils::IORTUState::ready);
    rtu_pin_config_t badType;
    badType.setPin(2);
    badType[rtu_pin_config_t::type].value = 3;
    rtu_pin_config_t noSuchPin;
    noSuchPin.setPin(6);

    const std::pair<const char*, std::function<void()>> refused[] = {
        {"device state 0", [&] { rtu.setDeviceState(static_cast<utils::IORTUState>(0)); }},
        {"device state 7", [&] { rtu.setDeviceState(static_cast<utils::IORTUState>(7)); }},
        {"trigger mode 2", [&] { rtu.setAutoTrigger(static_cast<utils::IORTUTriggerMode>(2)); }},
        {"pin type 3", [&] { rtu.setIOConfig(badType); }},
        {"pin 6 config", [&] { rtu.getIOConfig(noSuchPin); }},
        {"pin 6 value", [&] { rtu.setIOValue(6, 1); }},
        {"pin 2^26 value", [&] { rtu.getIOValue(1u << 26); }}, // would alias pin 0's block
    };
    for (const auto& [what, call] : refused) {
        SCOPED_TRACE(what);
        EXPECT_THROW(call(), utils::IOError);
    }
    EXPECT_EQ(rtu.getDeviceState(), utils::IORTUState::ready);
    EXPECT_EQ(rtu.getAutoTrigger(), utils::IORTUTriggerMode::continuous);
    rtu_pin_config_t pin2;
    pin2.setPin(2);
    rtu.getIOConfig(pin2);
    EXPECT_EQ(pin2[rtu_pin_config_t::type].value, 0u);
}

TEST_F(RTUTest, PinConfigurationIsPerPin)
{
    rtu_pin_config_t written;
    written.setPin(3);
    const uint32_t values[] = {2, 1, 3, 1, 1, 0, 1, 1500, 0, 20000};
    for (size_t i = 0; i < rtu_pin_config_t::count; ++i)
        written.entries[i].value = values[i];
    rtu.setIOConfig(written);

    for (unsigned pin : {2u, 3u, 4u}) {
        SCOPED_TRACE(pin);
        rtu_pin_config_t read;
        read.setPin(pin);
        rtu.getIOConfig(read);
        for (size_t i = 0; i < rtu_pin_config_t::count; ++i)
            EXPECT_EQ(read.entries[i].value, pin == 3 ? values[i] : 0u) << "entry " << i;
    }
}

TEST_F(RTUTest, TriggeringReachesTheSensorBus)
{
    SensorBus& bus = board->sensorBus();
    rtu.setAutoTrigger(utils::IORTUTriggerMode::manual);
    rtu.setFPS(0);
    rtu.setExposureTime(4321);
    rtu.enableAcquisition(true);
    const uint64_t before = bus.pulses();
    for (int i = 0; i < 3; ++i)
        rtu.manualTrigger();

    EXPECT_EQ(bus.trigger(), SensorBus::Trigger::manual);
    EXPECT_EQ(bus.framesPerSecond(), 0u);
    EXPECT_EQ(bus.exposureUs(), 4321u);
    EXPECT_TRUE(bus.acquisition());
    EXPECT_EQ(bus.pulses(), before + 3);
    EXPECT_EQ(rtu.getState() & (IORTU::stateAcquiring | IORTU::stateContinuous | IORTU::stateReady),
              IORTU::stateAcquiring | IORTU::stateReady);

    // What another part of the board sets on the bus is what the unit reports.
    bus.setFramesPerSecond(60);
    bus.setTrigger(SensorBus::Trigger::continuous);
    EXPECT_EQ(rtu.getFPS(), 60u);
    EXPECT_EQ(rtu.getAutoTrigger(), utils::IORTUTriggerMode::continuous);
}

// The analog output is one state behind the device node, the I2C registers and the lines.
TEST_F(RTUTest, AnalogOutputIsOneStateOnEveryInterface)
{
    EXPECT_EQ(readLine(enableLine), "1\n"); // active-low: off
    EXPECT_EQ(readLine(typeLine), "1\n");   // active-low: voltage

    rtu.setAnalogOutputState(true);
    rtu.setAnalogOutputType(true);
    rtu.setAnalogOutputVoltage(7000);
    EXPECT_EQ(i2c->readRTUHalfwordRegister(14), 0x1000);
    EXPECT_EQ(i2c->readRTUHalfwordRegister(15), 1);
    EXPECT_EQ(i2c->readRTUHalfwordRegister(16), 7000);
    EXPECT_EQ(readLine(enableLine), "0\n");
    EXPECT_EQ(readLine(typeLine), "0\n");
    EXPECT_TRUE(rtu.getState() & IORTU::stateAnalogOutput);

    i2c->writeRTUHalfwordRegister(14, 0);
    i2c->writeRTUHalfwordRegister(17, 12345);
    i2c->writeRTUHalfwordRegister(18, 40);
    i2c->writeRTUHalfwordRegister(19, 1000);
    EXPECT_FALSE(rtu.getAnalogOutputState());
    EXPECT_EQ(rtu.getAnalogOutputCurrent(), 12345u);
    EXPECT_EQ(readLine(enableLine), "1\n");
    EXPECT_EQ(i2c->readRTUHalfwordRegister(18), 40);
    EXPECT_EQ(i2c->readRTUHalfwordRegister(19), 1000);

    // Any non-zero state register enables the output.
    i2c->writeRTUHalfwordRegister(14, 0x0001);
    EXPECT_TRUE(rtu.getAnalogOutputState());

    writeLine(enableLine, "1\n");
    writeLine(typeLine, "1");
    EXPECT_FALSE(rtu.getAnalogOutputState());
    EXPECT_FALSE(rtu.getAnalogOutputType());
    EXPECT_EQ(i2c->readRTUHalfwordRegister(15), 0);
    writeLine(enableLine, "0");
    EXPECT_EQ(i2c->readRTUHalfwordRegister(14), 0x1000);
    writeLine(enableLine, "on"); // not a number: the line keeps its level
    EXPECT_TRUE(rtu.getAnalogOutputState());
    EXPECT_EQ(readLine(enableLine), "0\n");
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

TEST_F(RTUTest, I2CRegistersOutsideTheAnalogOutputAreReadOnly)
{
    rtu.setDeviceState(utils::IORTUState::warning);
    rtu.triggerHeartbeat();
    EXPECT_EQ(i2c->readRTUHalfwordRegister(0), 5);
    EXPECT_EQ(i2c->readRTUHalfwordRegister(2), 2 << 8 | 7);
    EXPECT_EQ(i2c->readRTUHalfwordRegister(3), 1);
    EXPECT_THROW(i2c->writeRTUHalfwordRegister(0, 1), utils::IOError);
    EXPECT_THROW(i2c->writeRTUHalfwordRegister(20, 1), utils::IOError);
    EXPECT_EQ(rtu.getDeviceState(), utils::IORTUState::warning);
}

TEST_F(RTUTest, FixedRevisionHeartbeatAndDriftingTemperature)
{
    const utils::IORTURevision r = rtu.getRevision();
    EXPECT_EQ((std::vector<uint32_t>{r.revisionMajor, r.revisionMinor, r.week, r.year, r.number,
                                     r.patch}),
              (std::vector<uint32_t>{2, 7, 23, 2024, 1052, 3}));

    EXPECT_FALSE(rtu.getState() & IORTU::stateHeartbeatAlive);
    rtu.triggerHeartbeat();
    rtu.triggerHeartbeat();
    EXPECT_EQ(rtu.getHeartbeatCount(), 2u);
    EXPECT_TRUE(rtu.getState() & IORTU::stateHeartbeatAlive);

    const float celsius = rtu.getInternalTemperature();
    EXPECT_GT(celsius, 30.0f);
    EXPECT_LT(celsius, 50.0f);
    using namespace std::chrono;
    auto at = [](auto t) { return RtuModel::temperatureMilliCelsius(t); };
    EXPECT_LT(std::abs(at(seconds(301)) - at(seconds(300))), 50);      // slow
    EXPECT_GT(std::abs(at(minutes(10)) - at(seconds(0))), 1000);       // but it moves
    EXPECT_NE(at(minutes(20)), at(minutes(25)));
}

TEST_F(RTUTest, InjectedFaultsBecomeIOErrors)
{
    struct Case {
        Fault fault;
        const char* reason;
    };
    for (const Case c : {Case{Fault::ioError, "Input/output error"},
                         Case{Fault::timeout, "timed out"}}) {
        board->faults().inject("/dev/k52rtu", c.fault);
        EXPECT_THAT([&] { rtu.getFPS(); }, testing::ThrowsMessage<utils::IOError>(testing::AllOf(
                                               testing::HasSubstr("/dev/k52rtu"), testing::HasSubstr(c.reason))));
        board->faults().clear("/dev/k52rtu");
        EXPECT_NO_THROW(rtu.getFPS());
    }

    board->faults().inject("/dev/k52rtu", Fault::openFails);
    IORTU unopened("/dev/k52rtu"); // constructing does not touch the device
    EXPECT_THROW(unopened.open(), utils::IOError);
    EXPECT_THROW(unopened.getState(), utils::IOError);
}

TEST_F(RTUTest, DataAdapterRecordsTheUnit)
{
    rtu.setFPS(15);
    rtu.setExposureOffset(static_cast<unsigned>(-7));
    rtu.setAnalogOutputType(true);
    rtu.setIOValue(5, 1);
    utils::IORTUDataAdapter adapter{};
    adapter.load(rtu);
    EXPECT_EQ(adapter.data.framesPerSecond, 15u);
    EXPECT_EQ(adapter.data.exposureOffsetUs, -7);
    EXPECT_EQ(adapter.data.pins[5].value, 1u);

    tinyxml2::XMLDocument document;
    auto* element = document.NewElement("rtu");
    document.InsertFirstChild(element);
    adapter.toXml(element);
    adapter.toXml(element); // a refresh replaces, it does not add
    int fpsElements = 0;
    for (auto* e = element->FirstChildElement("fps"); e; e = e->NextSiblingElement("fps"))
        ++fpsElements;
    EXPECT_EQ(fpsElements, 1);
    EXPECT_STREQ(element->FirstChildElement("fps")->GetText(), "15");
    EXPECT_STREQ(element->FirstChildElement("exposureOffset")->GetText(), "-7");
    EXPECT_STREQ(element->FirstChildElement("analogOutputType")->GetText(), "current");
    EXPECT_STREQ(element->FirstChildElement("revision")->GetText(), "2.7");

    board->faults().inject("/dev/k52rtu", Fault::ioError);
    EXPECT_THROW(adapter.load(rtu), utils::IOError);
    EXPECT_EQ(adapter.data.framesPerSecond, 15u); // a failed reading keeps the last record
}

} // namespace
