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
    // Routes are "SetI2CRTU<name> <argument>" and "GetI2CRTU<name>"; the get reply's text
    // follows "RTU Analog Output ".
    struct Case { const char *name, *argument, *setReply; uint8_t reg; unsigned short value; const char* getReply; };
    const Case cases[] = {
        {"AnalogOutputState", "1", "Analog output enabled", 14, 0x1000, "State: enabled"},
        {"AnalogOutputState", "0", "Analog output disabled", 14, 0, "State: disabled"},
        {"AnalogOutputType", "-7", "current", 15, 1, "Type: current"},
        {"AnalogOutputType", "0", "voltage", 15, 0, "Type: voltage"},
        {"AnalogOutputVoltage", "70000", "Analog output voltage set to 70000", 16, 4464, "Voltage: 4464"},
        {"AnalogOutputCurrent", "-1", "Analog output current set to -1", 17, 65535, "current: 65535"},
        {"AnalogOutputPWMDuty", "33 9", "Analog output PWMDuty set to 33", 18, 33, "PWMDuty: 33"},
        {"AnalogOutputPWMPeriod", "1000", "Analog output PWMPeriod set to 1000", 19, 1000, "PWM Period: 1000"},
    };
    for (const auto& c : cases) {
        const std::string set = std::string("SetI2CRTU") + c.name, get = std::string("GetI2CRTU") + c.name;
        const std::string setReply = set + ": " + c.setReply, getReply = get + ": RTU Analog Output " + c.getReply;
        expectExchanges(h, {{(set + " " + c.argument).c_str(), "OK", setReply.c_str()}});
        EXPECT_EQ(rtuRegister(c.reg), c.value) << set;
        expectExchanges(h, {{get.c_str(), "OK", getReply.c_str()}});
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
        // The text of a line that fails on writing is checked with the RTU family.
        const std::string message = std::string(route) + ": Failed to open " + line + " for writing";
        RouterHarness h;
        h.board().faults().inject(line, Fault::openFails);
        expectExchanges(h, {{(std::string(route) + " 1").c_str(), "ErrorIOException", message.c_str()}});
        EXPECT_EQ(rtuRegister(static_cast<uint8_t>(reg)), registerAfter) << route;
    }
    RouterHarness h;
    h.board().faults().inject(rtuBus, Fault::ioError);
    auto [status, message] = h.run("SetI2CRTUAnalogOutputPWMPeriod 1");
    EXPECT_EQ(status, "ErrorIOException");
    EXPECT_EQ(message.rfind("SetI2CRTUAnalogOutputPWMPeriod: ", 0), 0u) << message;
    EXPECT_NE(message.find(rtuBus), std::string::npos) << message;
}

} // namespace
