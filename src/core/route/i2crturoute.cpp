#include "core/commandrouter.h"
#include "core/route/deviceroute.h"
#include "core/k52resourcemanager.h"
#include "core/route/sysfsvalue.h"
#include "utils/io/ioi2crtu.h"

#include <functional>
#include <mutex>
#include <string>
#include <vector>

namespace k52app {

namespace {

using Arguments = std::vector<std::string>;
using utils::IOI2CRTU;

// What one route does with the RTU's registers: the text that follows the route's prefix.
using RegisterAction = std::function<std::string(const IOI2CRTU&, const Arguments&)>;

// The register keeps the low 16 bits; the client sees the number it sent.
RegisterAction setRegister(IOI2CRTU::Register reg, std::string label)
{
    return [reg, label = std::move(label)](const IOI2CRTU& rtu, const Arguments& arguments) {
        const int value = std::stoi(arguments.at(0));
        rtu.writeRTUHalfwordRegister(reg, static_cast<unsigned short>(value));
        return label + std::to_string(value);
    };
}

RegisterAction showRegister(IOI2CRTU::Register reg, std::string label)
{
    return [reg, label = std::move(label)](const IOI2CRTU& rtu, const Arguments&) {
        return label + std::to_string(rtu.readRTUHalfwordRegister(reg));
    };
}

std::string setAnalogOutputState(const IOI2CRTU& rtu, const Arguments& arguments)
{
    const bool enable = std::stoi(arguments.at(0)) != 0;
    rtu.writeRTUHalfwordRegister(IOI2CRTU::analogOutputState,
                                 enable ? IOI2CRTU::analogOutputEnable : 0);
    writeActiveLowLine(analogOutputEnableLinePath, enable);
    return std::string("Analog output ") + (enable ? "enabled" : "disabled");
}

// The line goes first so that a failed write leaves the register untouched.
std::string setAnalogOutputType(const IOI2CRTU& rtu, const Arguments& arguments)
{
    const bool current = std::stoi(arguments.at(0)) != 0;
    writeActiveLowLine(analogOutputTypeLinePath, current);
    rtu.writeRTUHalfwordRegister(IOI2CRTU::analogOutputType, current ? 1 : 0);
    return current ? "current" : "voltage";
}

} // namespace

void K52CommandRouter::registerI2CRTUCommands()
{
    // Shares the RTU group with the unit's own routes: both reach the same analog output.
    auto route = [this](std::string prefix, RegisterAction action) -> RouteHandler {
        return deviceRoute<IOI2CRTU>(resources_, K52ResourceGroups::RTU, &K52ResourceManager::rtuI2C,
                                     RouteReplyBuilder("Error", std::move(prefix)), std::move(action));
    };
    const utils::SpinnerMetaData none;
    const utils::SpinnerMetaData integer{{utils::IntegerArgumentMetaData}};

    registerRoutes({
        {"SetI2CRTUAnalogOutputState", "Sets the RTU analog output state (0 = disable, 1 = enable)",
         integer, route("SetI2CRTUAnalogOutputState: ", setAnalogOutputState)},
        {"GetI2CRTUAnalogOutputState", "Gets the RTU analog output state", none,
         route("GetI2CRTUAnalogOutputState: ",
               [](const IOI2CRTU& rtu, const Arguments&) {
                   // The unit sets only the enable flag, but any bit means enabled.
                   const bool enabled = rtu.readRTUHalfwordRegister(IOI2CRTU::analogOutputState) != 0;
                   return std::string("RTU Analog Output State: ") + (enabled ? "enabled" : "disabled");
               })},
        {"SetI2CRTUAnalogOutputType", "Sets the RTU analog output type (0 = voltage, 1 = current)",
         integer, route("SetI2CRTUAnalogOutputType: ", setAnalogOutputType)},
        {"GetI2CRTUAnalogOutputType", "Gets the RTU analog output type", none,
         route("GetI2CRTUAnalogOutputType: ",
               [](const IOI2CRTU& rtu, const Arguments&) {
                   const bool current = rtu.readRTUHalfwordRegister(IOI2CRTU::analogOutputType) != 0;
                   return std::string("RTU Analog Output Type: ") + (current ? "current" : "voltage");
               })},
        {"SetI2CRTUAnalogOutputVoltage", "Sets the RTU analog output Voltage", integer,
         route("SetI2CRTUAnalogOutputVoltage: ",
               setRegister(IOI2CRTU::analogOutputVoltage, "Analog output voltage set to "))},
        {"GetI2CRTUAnalogOutputVoltage", "Gets the RTU analog output Voltage", none,
         route("GetI2CRTUAnalogOutputVoltage: ",
               showRegister(IOI2CRTU::analogOutputVoltage, "RTU Analog Output Voltage: "))},
        {"SetI2CRTUAnalogOutputCurrent", "Sets the RTU analog output current", integer,
         route("SetI2CRTUAnalogOutputCurrent: ",
               setRegister(IOI2CRTU::analogOutputCurrent, "Analog output current set to "))},
        {"GetI2CRTUAnalogOutputCurrent", "Gets the RTU analog output current", none,
         route("GetI2CRTUAnalogOutputCurrent: ",
               showRegister(IOI2CRTU::analogOutputCurrent, "RTU Analog Output current: "))},
        {"SetI2CRTUAnalogOutputPWMPeriod", "Sets the RTU analog output PWMPeriod", integer,
         route("SetI2CRTUAnalogOutputPWMPeriod: ",
               setRegister(IOI2CRTU::analogOutputPWMPeriod, "Analog output PWMPeriod set to "))},
        {"GetI2CRTUAnalogOutputPWMPeriod", "Gets the RTU analog output PWMPeriod", none,
         route("GetI2CRTUAnalogOutputPWMPeriod: ",
               showRegister(IOI2CRTU::analogOutputPWMPeriod, "RTU Analog Output PWM Period: "))},
        {"SetI2CRTUAnalogOutputPWMDuty", "Sets the RTU analog output PWMDuty", integer,
         route("SetI2CRTUAnalogOutputPWMDuty: ",
               setRegister(IOI2CRTU::analogOutputPWMDuty, "Analog output PWMDuty set to "))},
        {"GetI2CRTUAnalogOutputPWMDuty", "Gets the RTU analog output PWMDuty", none,
         route("GetI2CRTUAnalogOutputPWMDuty: ",
               showRegister(IOI2CRTU::analogOutputPWMDuty, "RTU Analog Output PWMDuty: "))},
    });
}

} // namespace k52app
