#include "core/route/families.h"
#include "utils/io/ioautofocus.h"

#include <functional>
#include <string>
#include <vector>

namespace k52app {

namespace {

using utils::IOAutoFocus;
// The success text after the route prefix.
using Text = std::function<std::string(RouteCall&)>;

Text reads(std::string label, unsigned (IOAutoFocus::*get)() const)
{
    return [label = std::move(label), get](RouteCall& call) {
        return label + std::to_string((call.device<IOAutoFocus>().*get)());
    };
}

// Ranges are the module's to check; the reply echoes the value as given.
Text writes(void (IOAutoFocus::*set)(unsigned), std::string confirmation)
{
    return [set, confirmation = std::move(confirmation)](RouteCall& call) {
        const int value = call.i32(0);
        (call.device<IOAutoFocus>().*set)(static_cast<unsigned>(value));
        return confirmation + std::to_string(value);
    };
}

Text runs(void (IOAutoFocus::*command)(), std::string confirmation)
{
    return [command, confirmation = std::move(confirmation)](RouteCall& call) {
        (call.device<IOAutoFocus>().*command)();
        return confirmation;
    };
}

// Only "SetAFPosition" starts from "Error"; the others start from "OK", so their failures
// read "OKIOException" and "OKRuntimeError". Clients match on these words.
Route route(std::string status, std::string name, std::string help,
            std::vector<utils::SpinnerArgumentMetaData> arguments, Text text)
{
    std::string prefix = name + ": ";
    return {std::move(name), std::move(help), std::move(arguments), {K52ResourceGroups::AUTOFOCUS},
            std::move(prefix), std::move(status), Converts::deviceErrors, {},
            [text = std::move(text)](RouteCall& call) { return call.ok(text(call)); }};
}

} // namespace

std::vector<Route> autoFocusRoutes(const RouteServices&)
{
    using M = IOAutoFocus;
    return {
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
    };
}

} // namespace k52app
