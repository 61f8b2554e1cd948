#include "support/routerharness.h"
#include "utils/io/ioi2crtu.h"
#include "utils/platform/emulated/textfile.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <vector>

namespace {

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
    std::vector<std::string> lineWrites;
    for (const char* line : {enableLine, typeLine})
        h.board().attach(line, std::make_shared<TextFile>("", [&, line](const std::string& text) {
            lineWrites.push_back(std::string(line == enableLine ? "enable=" : "type=") + text);
        }));
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
        {"SetI2CRTUAnalogOutputType -7", "SetI2CRTUAnalogOutputType: current", 15, 1,
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
    // Both lines are active-low.
    EXPECT_EQ(lineWrites, (std::vector<std::string>{"enable=0", "enable=1", "type=0", "type=1"}));
    // Any bit of the state register counts, not only the flag this family writes.
    utils::IOI2CRTU(rtuBus, rtuAddress).writeRTUHalfwordRegister(14, 0x0001);
    expectExchanges(h, {
        {"GetI2CRTUAnalogOutputState", "OK", "GetI2CRTUAnalogOutputState: RTU Analog Output State: enabled"},
        // One analog output behind both families; only their type words differ.
        {"GetRTUAnalogOutputVoltage", "OK", "GetRTUAnalogOutputVoltage: RTU Analog Output Voltage: 4464"},
        {"SetRTUAnalogOutputType 1", "OK", "SetRTUAnalogOutputType: voltage"},
        {"GetI2CRTUAnalogOutputType", "OK", "GetI2CRTUAnalogOutputType: RTU Analog Output Type: current"},
    });
    EXPECT_THROW(h.run("SetI2CRTUAnalogOutputPWMDuty 99999999999"), std::out_of_range);
}

// The state register is written before its line, the type register only after its line; a
// bus failure names the bus after the route's prefix.
TEST(I2CRTURoutes, LineAndBusFailures)
{
    for (const auto& [line, route, reg, registerAfter] :
         {std::tuple{enableLine, "SetI2CRTUAnalogOutputState", 14, 0x1000},
          std::tuple{typeLine, "SetI2CRTUAnalogOutputType", 15, 0}}) {
        for (Fault fault : {Fault::openFails, Fault::ioError}) {
            const std::string message = std::string(route) + ": " +
                (fault == Fault::openFails ? std::string("Failed to open ") + line + " for writing"
                                           : std::string("Failed to write to ") + line);
            SCOPED_TRACE(message);
            RouterHarness h;
            h.board().faults().inject(line, fault);
            expectExchanges(h, {{(std::string(route) + " 1").c_str(), "ErrorIOException", message.c_str()}});
            EXPECT_EQ(rtuRegister(static_cast<uint8_t>(reg)), registerAfter);
        }
    }
    RouterHarness h;
    h.board().faults().inject(rtuBus, Fault::ioError);
    for (const std::string route : {"SetI2CRTUAnalogOutputPWMPeriod", "GetI2CRTUAnalogOutputState"}) {
        SCOPED_TRACE(route);
        auto [status, message] = h.run(route + " 1");
        EXPECT_EQ(status, "ErrorIOException");
        EXPECT_EQ(message.rfind(route + ": ", 0), 0u) << message;
        EXPECT_NE(message.find(rtuBus), std::string::npos) << message;
    }
}

} // namespace
