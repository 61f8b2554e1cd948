#include "core/route/families.h"
#include "utils/io/ioillumination.h"

#include <functional>
#include <sstream>
#include <string>
#include <vector>

namespace k52app {

namespace {

using utils::IOIllumination;
using Body = std::function<RouteReply(RouteCall&)>;

template <typename Value>
Body reads(std::string label, Value (IOIllumination::*get)() const)
{
    return [label = std::move(label), get](RouteCall& call) {
        std::ostringstream text;
        text << label << (call.device<IOIllumination>().*get)();
        return call.ok(text.str());
    };
}

// A set route confirms with its prefix alone. Ranges are the module's to check. The mode is
// read as a signed number, so "-1" reaches the module as 4294967295; the others take the full
// unsigned range, and the worker reports the parser's own text ("stoul") beyond it.
Body writes(void (IOIllumination::*set)(unsigned), bool signedValue = false)
{
    return [set, signedValue](RouteCall& call) {
        const unsigned value = signedValue ? call.u32(0) : static_cast<unsigned>(call.u64(0));
        (call.device<IOIllumination>().*set)(value);
        return call.ok("");
    };
}

// These routes start from "OK", so their failures read "OKIOException" and "OKRuntimeError";
// clients match on these words.
Route route(std::string name, std::string help, std::vector<utils::SpinnerArgumentMetaData> arguments, Body body)
{
    std::string prefix = name + ": ";
    return {std::move(name), std::move(help), std::move(arguments), {K52ResourceGroups::ILLUMINATION},
            std::move(prefix), "OK", Converts::deviceErrors, {}, std::move(body)};
}

} // namespace

std::vector<Route> illuminationRoutes(const RouteServices&)
{
    const auto brightness = utils::numericalArgument("brightness", "brightness of the channel", 0, 100, "0");
    using M = IOIllumination;

    return {
        route("GetIlluStatus", "Gets the current status of the Illumination module", {},
              reads("Current Status: ", &M::getStatus)),
        route("GetIlluSerialNumber", "Gets the serial number of the Illumination module", {},
              reads("Serial Number: ", &M::getSerialNumber)),
        route("GetIlluInternalTemperature", "Gets the internal temperature of the Illumination module",
              {}, reads("Internal Temperature: ", &M::getInternalTemperature)),
        route("GetIlluExternalTemperature", "Gets the external temperature of the Illumination module",
              {}, reads("External Temperature: ", &M::getExternalTemperature)),
        route("SetIlluMode", "Sets the mode of the Illumination module",
              {utils::numericalArgument("mode", "the desired illumination mode (0 = Continuous, 65535 = Strobe mode)", 0, 65535, "0")},
              writes(&M::setMode, true)),
        route("GetIlluMode", "Gets the mode of the Illumination module", {},
              reads("Mode: ", &M::getMode)),
        route("GetIlluSegments", "Gets the segments of the Illumination module", {},
              reads("Segments: ", &M::getSegments)),
        route("SetIlluSegments", "Sets the segments of the Illumination module",
              {utils::numericalArgument("segments", "the desired 4-bit segments mode", 0, 15, "0")},
              writes(&M::setSegments)),
        route("SetIlluEnable", "Sets the enable state of the Illumination module",
              {utils::numericalArgument("state", "state mode, 0 is disable", 0, 4294967295.0, "0")},
              writes(&M::setEnable)),
        route("SetIlluWhiteBrightness", "Sets the brightness of the white channel of the Illumination module",
              {brightness}, writes(&M::setWhiteBrightness)),
        route("GetIlluWhiteBrightness", "Gets the brightness of the white channel of the Illumination module",
              {}, reads("Brightness: ", &M::getWhiteBrightness)),
        route("SetIlluRedBrightness", "Sets the brightness of the red channel of the Illumination module",
              {brightness}, writes(&M::setRedBrightness)),
        route("GetIlluRedBrightness", "Gets the brightness of the red channel of the Illumination module",
              {}, reads("Brightness: ", &M::getRedBrightness)),
        route("SetIlluGreenBrightness", "Sets the brightness of the green channel of the Illumination module",
              {brightness}, writes(&M::setGreenBrightness)),
        route("GetIlluGreenBrightness", "Gets the brightness of the green channel of the Illumination module",
              {}, reads("Brightness: ", &M::getGreenBrightness)),
        route("SetIlluBlueBrightness", "Sets the brightness of the Blue channel of the Illumination module",
              {brightness}, writes(&M::setBlueBrightness)),
        route("GetIlluBlueBrightness", "Gets the brightness of the Blue channel of the Illumination module",
              {}, reads("Brightness: ", &M::getBlueBrightness)),
    };
}

} // namespace k52app
