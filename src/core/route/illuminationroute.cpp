#include "core/commandrouter.h"
#include "core/route/deviceroute.h"

#include "core/k52resourcemanager.h"
#include "utils/base/strings.h"

#include <mutex>
#include <sstream>

namespace k52app {

namespace {

using utils::IOIllumination;
using Arguments = std::vector<std::string>;
// The success text after the route prefix.
using IlluminationBody = DeviceRouteBody<IOIllumination>;

template <typename Value>
IlluminationBody reads(std::string label, Value (IOIllumination::*get)() const)
{
    return [label = std::move(label), get](IOIllumination& module, const Arguments&) {
        std::ostringstream text;
        text << label << (module.*get)();
        return text.str();
    };
}

unsigned parseInt(const std::string& text) { return static_cast<unsigned>(std::stoi(text)); }
unsigned parseUnsigned(const std::string& text) { return static_cast<unsigned>(std::stoul(text)); }

// A set route confirms with its prefix alone. Ranges are the module's to check.
IlluminationBody writes(void (IOIllumination::*set)(unsigned),
                        unsigned (*parse)(const std::string&) = parseUnsigned)
{
    return [set, parse](IOIllumination& module, const Arguments& arguments) {
        (module.*set)(parse(arguments.at(0)));
        return std::string();
    };
}

} // namespace

void K52CommandRouter::registerIlluminationCommands()
{
    auto route = [this](std::string name, std::string description,
                        std::vector<utils::SpinnerArgumentMetaData> arguments, IlluminationBody body) {
        // These routes start from "OK", so their failures read "OKIOException" and
        // "OKRuntimeError"; clients match on these words.
        RouteHandler handler = deviceRoute<IOIllumination>(
            resources_, K52ResourceGroups::ILLUMINATION, &K52ResourceManager::illumination,
            RouteReplyBuilder("OK", name + ": "), std::move(body));
        return RouteEntry{std::move(name), std::move(description), {std::move(arguments)},
                          std::move(handler)};
    };
    const auto brightness = utils::numericalArgument("brightness", "brightness of the channel", 0, 100, "0");
    using M = IOIllumination;

    registerRoutes({
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
              writes(&M::setMode, parseInt)),
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
    });
}

} // namespace k52app
