#include "core/route/families.h"
#include "utils/io/ioi2crtu.h"
#include "utils/regmap/rturegisters.h"
#include "utils/io/sysfsvalue.h"

#include <functional>
#include <string>
#include <vector>

namespace k52app {

namespace {

using utils::IOI2CRTU;

// The register keeps the low 16 bits; the client sees the number it sent.
std::function<std::string(RouteCall&)> setRegister(IOI2CRTU::Register reg, std::string label)
{
    return [reg, label = std::move(label)](RouteCall& call) {
        const int value = call.i32(0);
        call.device<IOI2CRTU>().writeRTUHalfwordRegister(reg, static_cast<unsigned short>(value));
        return label + std::to_string(value);
    };
}

std::function<std::string(RouteCall&)> showRegister(IOI2CRTU::Register reg, std::string label)
{
    return [reg, label = std::move(label)](RouteCall& call) {
        return label + std::to_string(call.device<IOI2CRTU>().readRTUHalfwordRegister(reg));
    };
}

std::string setAnalogOutputState(RouteCall& call)
{
    const bool enable = call.i32(0) != 0;
    call.device<IOI2CRTU>().writeRTUHalfwordRegister(IOI2CRTU::analogOutputState,
                                                      enable ? IOI2CRTU::analogOutputEnable : 0);
    utils::writeActiveLowLine(utils::rtu_registers::analogOutputEnableLinePath, enable);
    return std::string("Analog output ") + (enable ? "enabled" : "disabled");
}

// The line goes first so that a failed write leaves the register untouched.
std::string setAnalogOutputType(RouteCall& call)
{
    const bool current = call.i32(0) != 0;
    utils::writeActiveLowLine(utils::rtu_registers::analogOutputTypeLinePath, current);
    call.device<IOI2CRTU>().writeRTUHalfwordRegister(IOI2CRTU::analogOutputType, current ? 1 : 0);
    return current ? "current" : "voltage";
}

// Shares the RTU group with the unit's own routes: both reach the same analog output. Each
// route answers after "<name>: ".
Route i2cRtu(std::string name, std::string help, bool takesValue,
                    std::function<std::string(RouteCall&)> text)
{
    std::string prefix = name + ": ";
    return {std::move(name),
            std::move(help),
            takesValue ? std::vector{utils::IntegerArgumentMetaData} : std::vector<utils::SpinnerArgumentMetaData>{},
            {K52ResourceGroups::RTU},
            std::move(prefix),
            "Error",
            Converts::deviceErrors,
            {},
            [text = std::move(text)](RouteCall& call) { return call.ok(text(call)); }};
}

} // namespace

std::vector<Route> i2cRtuRoutes(const RouteServices&)
{
    return {
        i2cRtu("SetI2CRTUAnalogOutputState", "Sets the RTU analog output state (0 = disable, 1 = enable)", true,
               setAnalogOutputState),
        i2cRtu("GetI2CRTUAnalogOutputState", "Gets the RTU analog output state", false,
               [](RouteCall& call) {
                   // The unit sets only the enable flag, but any bit means enabled.
                   const bool enabled =
                       call.device<IOI2CRTU>().readRTUHalfwordRegister(IOI2CRTU::analogOutputState) != 0;
                   return std::string("RTU Analog Output State: ") + (enabled ? "enabled" : "disabled");
               }),
        i2cRtu("SetI2CRTUAnalogOutputType", "Sets the RTU analog output type (0 = voltage, 1 = current)", true,
               setAnalogOutputType),
        i2cRtu("GetI2CRTUAnalogOutputType", "Gets the RTU analog output type", false,
               [](RouteCall& call) {
                   const bool current =
                       call.device<IOI2CRTU>().readRTUHalfwordRegister(IOI2CRTU::analogOutputType) != 0;
                   return std::string("RTU Analog Output Type: ") + (current ? "current" : "voltage");
               }),
        i2cRtu("SetI2CRTUAnalogOutputVoltage", "Sets the RTU analog output Voltage", true,
               setRegister(IOI2CRTU::analogOutputVoltage, "Analog output voltage set to ")),
        i2cRtu("GetI2CRTUAnalogOutputVoltage", "Gets the RTU analog output Voltage", false,
               showRegister(IOI2CRTU::analogOutputVoltage, "RTU Analog Output Voltage: ")),
        i2cRtu("SetI2CRTUAnalogOutputCurrent", "Sets the RTU analog output current", true,
               setRegister(IOI2CRTU::analogOutputCurrent, "Analog output current set to ")),
        i2cRtu("GetI2CRTUAnalogOutputCurrent", "Gets the RTU analog output current", false,
               showRegister(IOI2CRTU::analogOutputCurrent, "RTU Analog Output current: ")),
        i2cRtu("SetI2CRTUAnalogOutputPWMPeriod", "Sets the RTU analog output PWMPeriod", true,
               setRegister(IOI2CRTU::analogOutputPWMPeriod, "Analog output PWMPeriod set to ")),
        i2cRtu("GetI2CRTUAnalogOutputPWMPeriod", "Gets the RTU analog output PWMPeriod", false,
               showRegister(IOI2CRTU::analogOutputPWMPeriod, "RTU Analog Output PWM Period: ")),
        i2cRtu("SetI2CRTUAnalogOutputPWMDuty", "Sets the RTU analog output PWMDuty", true,
               setRegister(IOI2CRTU::analogOutputPWMDuty, "Analog output PWMDuty set to ")),
        i2cRtu("GetI2CRTUAnalogOutputPWMDuty", "Gets the RTU analog output PWMDuty", false,
               showRegister(IOI2CRTU::analogOutputPWMDuty, "RTU Analog Output PWMDuty: ")),
    };
}

} // namespace k52app
