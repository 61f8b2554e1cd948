#include "support/routerharness.h"
#include "utils/base/exceptions.h"
#include "utils/io/ioi2crtu.h"
#include "utils/platform/emulated/textfile.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <vector>

namespace {

using k52test::Exchange;
using k52test::expectExchanges;

using k52test::RouterHarness;
using utils::platform::emulated::Fault;
using utils::platform::emulated::TextFile;

constexpr const char* rtuBus = "/dev/i2c-1";
constexpr uint8_t rtuAddress = 66;
constexpr const char* enableLine = "/sys/class/gpio/gpio431/value";
constexpr const char* typeLine = "/sys/class/gpio/gpio479/value";

// The RTU's register as a second client on the bus sees it.
unsigned short rtuRegister(uint8_t reg)
{
    return utils::IOI2CRTU(rtuBus, rtuAddress).readRTUHalfwordRegister(reg);
}

// Each setter's reply, the register it wrote as another bus client reads it, and the getter.
TEST(I2CRTURoutes, SettersWriteTheirRegistersAndGettersReadThem)
{
    RouterHarness h;
    struct Case {
        const char* set;
        const char* setReply;
        uint8_t reg;
        unsigned short value;
        const char* get;
        const char* getReply;
    };
    const Case cases[] = {
        {"SetI2CRTUAnalogOutputState 1", "SetI2CRTUAnalogOutputState: Analog output enabled", 14,
         0x1000, "GetI2CRTUAnalogOutputState", "GetI2CRTUAnalogOutputState: RTU Analog Output State: enabled"},
        {"SetI2CRTUAnalogOutputState 0", "SetI2CRTUAnalogOutputState: Analog output disabled", 14, 0,
         "GetI2CRTUAnalogOutputState", "GetI2CRTUAnalogOutputState: RTU Analog Output State: disabled"},
        {"SetI2CRTUAnalogOutputType 1", "SetI2CRTUAnalogOutputType: current", 15, 1,
         "GetI2CRTUAnalogOutputType", "GetI2CRTUAnalogOutputType: RTU Analog Output Type: current"},
        {"SetI2CRTUAnalogOutputType 0", "SetI2CRTUAnalogOutputType: voltage", 15, 0,
         "GetI2CRTUAnalogOutputType", "GetI2CRTUAnalogOutputType: RTU Analog Output Type: voltage"},
        {"SetI2CRTUAnalogOutputVoltage 70000",
         "SetI2CRTUAnalogOutputVoltage: Analog output voltage set to 70000", 16, 4464,
         "GetI2CRTUAnalogOutputVoltage", "GetI2CRTUAnalogOutputVoltage: RTU Analog Output Voltage: 4464"},
        {"SetI2CRTUAnalogOutputCurrent -1", "SetI2CRTUAnalogOutputCurrent: Analog output current set to -1",
         17, 65535, "GetI2CRTUAnalogOutputCurrent",
         "GetI2CRTUAnalogOutputCurrent: RTU Analog Output current: 65535"},
        {"SetI2CRTUAnalogOutputPWMDuty 33 9", "SetI2CRTUAnalogOutputPWMDuty: Analog output PWMDuty set to 33",
         18, 33, "GetI2CRTUAnalogOutputPWMDuty", "GetI2CRTUAnalogOutputPWMDuty: RTU Analog Output PWMDuty: 33"},
        {"SetI2CRTUAnalogOutputPWMPeriod 1000",
         "SetI2CRTUAnalogOutputPWMPeriod: Analog output PWMPeriod set to 1000", 19, 1000,
         "GetI2CRTUAnalogOutputPWMPeriod",
         "GetI2CRTUAnalogOutputPWMPeriod: RTU Analog Output PWM Period: 1000"},
    };
    for (const auto& c : cases) {
        expectExchanges(h, {{c.set, "OK", c.setReply}});
        EXPECT_EQ(rtuRegister(c.reg), c.value) << c.set;
        expectExchanges(h, {{c.get, "OK", c.getReply}});
    }
    // Any bit of the state register counts, not only the flag this family writes.
    utils::IOI2CRTU(rtuBus, rtuAddress).writeRTUHalfwordRegister(14, 0x0001);
    expectExchanges(h, {{"GetI2CRTUAnalogOutputState", "OK",
                         "GetI2CRTUAnalogOutputState: RTU Analog Output State: enabled"}});
}

// Both families drive one analog output; only their type words differ.
TEST(I2CRTURoutes, StateIsSharedWithTheUnitsOwnRoutes)
{
    RouterHarness h;
    expectExchanges(h, {
        {"SetI2CRTUAnalogOutputVoltage 3300", "OK", "SetI2CRTUAnalogOutputVoltage: Analog output voltage set to 3300"},
        {"GetRTUAnalogOutputVoltage", "OK", "GetRTUAnalogOutputVoltage: RTU Analog Output Voltage: 3300"},
        {"SetRTUAnalogOutputCurrent 800", "OK", "SetRTUAnalogOutputCurrent: Analog output current set to 800"},
        {"GetI2CRTUAnalogOutputCurrent", "OK", "GetI2CRTUAnalogOutputCurrent: RTU Analog Output current: 800"},
        {"SetI2CRTUAnalogOutputState 1", "OK", "SetI2CRTUAnalogOutputState: Analog output enabled"},
        {"GetRTUAnalogOutputState", "OK", "GetRTUAnalogOutputState: RTU Analog Output State: enabled"},
        {"SetI2CRTUAnalogOutputType 1", "OK", "SetI2CRTUAnalogOutputType: current"},
        {"GetRTUAnalogOutputType", "OK", "GetRTUAnalogOutputType: RTU Analog Output Type: voltage"},
        {"SetRTUAnalogOutputState 0", "OK", "SetRTUAnalogOutputState: Analog output disabled"},
        {"GetI2CRTUAnalogOutputState", "OK", "GetI2CRTUAnalogOutputState: RTU Analog Output State: disabled"},
    });
}

TEST(I2CRTURoutes, StateAndTypeWriteTheirActiveLowLines)
{
    RouterHarness h;
    std::vector<std::string> enableWrites;
    std::vector<std::string> typeWrites;
    h.board().attach(enableLine, std::make_shared<TextFile>(
                                     "", [&](const std::string& text) { enableWrites.push_back(text); }));
    h.board().attach(typeLine, std::make_shared<TextFile>(
                                   "", [&](const std::string& text) { typeWrites.push_back(text); }));
    for (const char* command : {"SetI2CRTUAnalogOutputState 1", "SetI2CRTUAnalogOutputState 0",
                                "SetI2CRTUAnalogOutputType 1", "SetI2CRTUAnalogOutputType 0",
                                "SetI2CRTUAnalogOutputType -7"})
        EXPECT_EQ(h.run(command).first, "OK") << command;
    EXPECT_EQ(enableWrites, (std::vector<std::string>{"0", "1"}));
    EXPECT_EQ(typeWrites, (std::vector<std::string>{"0", "1", "0"}));
}

// The state register is written before its line, the type register only after its line.
TEST(I2CRTURoutes, LineFailuresAndWhatTheRegistersKeep)
{
    struct Case {
        const char* line;
        const char* route;
        uint8_t reg;
        unsigned short registerAfter;
    };
    const Case cases[] = {
        {enableLine, "SetI2CRTUAnalogOutputState", 14, 0x1000},
        {typeLine, "SetI2CRTUAnalogOutputType", 15, 0},
    };
    for (const auto& c : cases) {
        for (Fault fault : {Fault::openFails, Fault::ioError}) {
            const std::string message = std::string(c.route) + ": " +
                (fault == Fault::openFails ? std::string("Failed to open ") + c.line + " for writing"
                                           : std::string("Failed to write to ") + c.line);
            SCOPED_TRACE(message);
            RouterHarness h;
            h.board().faults().inject(c.line, fault);
            expectExchanges(h, {{(std::string(c.route) + " 1").c_str(), "ErrorIOException", message.c_str()}});
            EXPECT_EQ(rtuRegister(c.reg), c.registerAfter);
        }
    }
}

TEST(I2CRTURoutes, BusFailuresBecomeIOExceptionRepliesAfterThePrefix)
{
    RouterHarness h;
    h.board().faults().inject(rtuBus, Fault::ioError);
    for (const std::string quantity : {"State", "Type", "Voltage", "Current", "PWMPeriod", "PWMDuty"}) {
        for (const std::string& route : {"SetI2CRTUAnalogOutput" + quantity, "GetI2CRTUAnalogOutput" + quantity}) {
            SCOPED_TRACE(route);
            auto [status, message] = h.run(route[0] == 'S' ? route + " 1" : route);
            EXPECT_EQ(status, "ErrorIOException");
            EXPECT_EQ(message.rfind(route + ": ", 0), 0u) << message;
            EXPECT_NE(message.find(rtuBus), std::string::npos) << message; // the driver's text
        }
    }
}

TEST(I2CRTURoutes, MissingAndMalformedArgumentsLeaveTheHandler)
{
    RouterHarness h;
    EXPECT_THROW(h.run("SetI2CRTUAnalogOutputVoltage"), std::out_of_range);
    EXPECT_THROW(h.run("SetI2CRTUAnalogOutputState"), std::out_of_range);
    EXPECT_THROW(h.run("SetI2CRTUAnalogOutputPWMDuty 99999999999"), std::out_of_range);
    EXPECT_THROW(h.run("SetI2CRTUAnalogOutputType current"), utils::UtilsRuntimeError);

    auto& rtuGroup = h.resources->getMutex(k52app::K52ResourceGroups::RTU);
    ASSERT_TRUE(rtuGroup.try_lock());
    rtuGroup.unlock();
}

} // namespace
