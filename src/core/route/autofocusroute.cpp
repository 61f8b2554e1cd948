#include "core/commandrouter.h"
#include "core/route/deviceroute.h"

#include "core/k52resourcemanager.h"
#include "utils/base/strings.h"

#include <mutex>
#include <string>

namespace k52app {

namespace {

using utils::IOAutoFocus;
using Arguments = std::vector<std::string>;
// The success text after the route prefix.
using AutoFocusBody = DeviceRouteBody<IOAutoFocus>;

AutoFocusBody reads(std::string label, unsigned (IOAutoFocus::*get)() const)
{
    return [label = std::move(label), get](IOAutoFocus& module, const Arguments&) {
        return label + std::to_string((module.*get)());
    };
}

// Ranges are the module's to check; the reply echoes the value as given.
AutoFocusBody writes(void (IOAutoFocus::*set)(unsigned), std::string confirmation)
{
    return [set, confirmation = std::move(confirmation)](IOAutoFocus& module, const Arguments& arguments) {
        int value = std::stoi(arguments.at(0));
        (module.*set)(static_cast<unsigned>(value));
        return confirmation + std::to_string(value);
    };
}

AutoFocusBody runs(void (IOAutoFocus::*command)(), std::string confirmation)
{
    return [command, confirmation = std::move(confirmation)](IOAutoFocus& module, const Arguments&) {
        (module.*command)();
        return confirmation;
    };
}

} // namespace

void K52CommandRouter::registerAutoFocusCommands()
{
    // Only "SetAFPosition" starts from "Error"; the others start from "OK", so their failures
    // read "OKIOException" and "OKRuntimeError". Clients match on these words.
    auto route = [this](std::string status, std::string name, std::string description,
                        std::vector<utils::SpinnerArgumentMetaData> arguments, AutoFocusBody body) {
        RouteHandler handler =
            deviceRoute<IOAutoFocus>(resources_, K52ResourceGroups::AUTOFOCUS, &K52ResourceManager::autoFocus,
                                     RouteReplyBuilder(std::move(status), name + ": "), std::move(body));
        return RouteEntry{std::move(name), std::move(description), {std::move(arguments)},
                          std::move(handler)};
    };
    using M = IOAutoFocus;

    registerRoutes({
        route("Error", "SetAFPosition", "Sets the position of the AF module",
              {utils::numericalArgument("position", "the desiered autofocus position", 0, 65535)},
              writes(&M::setPosition, "AF position set to ")),
        route("OK", "GetAFPosition", "Gets the current position of the AF module", {},
              reads("Current position: ", &M::getPosition)),
        route("OK", "GetAFPositionMax", "Gets the max position of the AF module", {},
              reads("Max position: ", &M::getPositionMax)),
        route("OK", "SetAFLEDMode", "Sets the LED mode of the AF module",
              {utils::numericalArgument("mode", "the desired LED mode (0 = always active, 1 = off at capture)", 0, 1)},
              writes(&M::setLEDMode, "LED mode set to ")),
        route("OK", "SetAFLEDState", "Sets the LED state of the AF module",
              {utils::numericalArgument("state", "the desired LED state (0 = off, 1 = on)", 0, 1)},
              writes(&M::setLEDState, "LED state set to ")),
        route("OK", "ResetAF", "Resets the AF module", {},
              runs(&M::reset, "AF module reset successfully.")),
        route("OK", "SweepAF", "Performs a frequency sweep on the AF module", {},
              runs(&M::sweepFrequency, "Frequency sweep initiated.")),
        route("OK", "GetAFFrequency", "Gets the current frequency of the AF module", {},
              reads("Current frequency: ", &M::getFrequency)),
    });
}

} // namespace k52app
