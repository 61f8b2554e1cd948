#include "core/commandrouter.h"
#include "core/k52resourcemanager.h"
#include "utils/io/ioimx.h"

#include <functional>
#include <mutex>
#include <string>
#include <vector>

namespace k52app {

namespace {

using Arguments = std::vector<std::string>;
using utils::IOIMX;

// What one IMX route does with the sensor: the text that follows the route's prefix. Text
// built before the device call is noted on the reply instead, so that a failure keeps it.
using IMXAction = std::function<std::string(const IOIMX&, const Arguments&, RouteReplyBuilder&)>;

// How many words a route reads, and what it answers when they are not there. Setters check
// before touching the sensor, so a bare "SetIMXExposure" never reaches the device.
struct Required {
    size_t count = 0;
    std::string missingNote;
};

RouteHandler imxRoute(K52ResourceManager* resources, const std::string& name, Required required,
                      IMXAction action)
{
    return [resources, start = RouteReplyBuilder("Error", name + ": "),
            required = std::move(required), action = std::move(action)](const Arguments& arguments) {
        if (arguments.size() < required.count)
            return start.refuse(required.missingNote);
        RouteReplyBuilder reply = start;
        return reply.guard([&] {
            std::lock_guard lock(resources->getMutex(K52ResourceGroups::IMX));
            return reply.ok(action(resources->imx(), arguments, reply));
        });
    };
}

std::string sensorType(const IOIMX& imx, const Arguments&, RouteReplyBuilder&)
{
    // Only the low byte carries the colour filter; the rest is the sensor's business.
    return (imx.getSensorType() & 0xFF) != 0 ? "'monochrome'" : "'color'";
}

std::string setExposure(const IOIMX& imx, const Arguments& arguments, RouteReplyBuilder&)
{
    const auto microseconds = static_cast<unsigned>(std::stoul(arguments.at(0)));
    imx.setExposure(microseconds);
    return "Exposure set to " + std::to_string(microseconds) + " us";
}

std::string setTriggerMode(const IOIMX& imx, const Arguments& arguments, RouteReplyBuilder&)
{
    // The register holds one byte; the reply names what the sensor was given.
    const auto mode = static_cast<unsigned char>(std::stoul(arguments.at(0)));
    imx.setTriggerMode(mode);
    return "Trigger Mode set to " + std::to_string(mode);
}

std::string setHalfScanMode(const IOIMX& imx, const Arguments& arguments, RouteReplyBuilder& reply)
{
    const int mode = std::stoi(arguments.at(0));
    // Clients read which mode was asked for even when the sensor refuses it.
    reply.note("hscanmode=" + std::to_string(mode) + ";");
    // Not checked here: the sensor refuses modes it does not know.
    imx.setScanMode(static_cast<utils::_hscan_modes_t>(mode));
    return "";
}

std::string roiOffset(const IOIMX& imx, const Arguments&, RouteReplyBuilder&)
{
    const auto [x, y] = imx.getROIXYOffset();
    return "ROI Offset = (" + std::to_string(x) + "," + std::to_string(y) + ")";
}

std::string setROIOffset(const IOIMX& imx, const Arguments& arguments, RouteReplyBuilder&)
{
    const int x = std::stoi(arguments.at(0));
    const int y = std::stoi(arguments.at(1));
    imx.setROIXYOffset(x, y);
    return "ROI Offset set to (" + std::to_string(x) + "," + std::to_string(y) + ")";
}

} // namespace

void K52CommandRouter::registerIMXCommands()
{
    K52ResourceManager* resources = &resources_;
    auto route = [resources](const std::string& name, const std::string& description,
                             const utils::SpinnerMetaData& metadata, Required required,
                             IMXAction action) {
        return RouteEntry{name, description, metadata,
                          imxRoute(resources, name, std::move(required), std::move(action))};
    };
    const utils::SpinnerMetaData none;
    const utils::SpinnerMetaData integer{{utils::IntegerArgumentMetaData}};

    registerRoutes({
        route("GetIMXSensorType", "Returns the IMX sensor type", none, {}, sensorType),
        route("GetIMXExposure", "Returns the IMX exposure", none, {},
              [](const IOIMX& imx, const Arguments&, RouteReplyBuilder&) {
                  return "Exposure = " + std::to_string(imx.getExposure()) + " us";
              }),
        route("SetIMXExposure", "Sets the IMX exposure", integer,
              {1, "No exposure value provided."}, setExposure),
        route("GetIMXTriggerMode", "Returns the IMX trigger mode", none, {},
              [](const IOIMX& imx, const Arguments&, RouteReplyBuilder&) {
                  return "Trigger Mode = " + std::to_string(imx.getTriggerMode());
              }),
        route("SetIMXTriggerMode", "Sets the IMX trigger mode", integer,
              {1, "No trigger mode value provided."}, setTriggerMode),
        route("GetIMXHalfScanMode", "Returns the IMX half-scan mode", none, {},
              [](const IOIMX& imx, const Arguments&, RouteReplyBuilder&) {
                  return "Half-Scan Mode = " + std::to_string(imx.getHalfScanMode());
              }),
        route("SetIMXHalfScanMode", "Sets the IMX half-scan mode", integer,
              {1, "No half-scan mode value provided."}, setHalfScanMode),
        route("GetIMXROIOffset", "Returns the IMX ROI", none, {}, roiOffset),
        // Described as one integer, as clients know it, but it takes x and then y.
        route("SetIMXROIOffset", "Sets the IMX ROI Offset", integer,
              {2, "No ROI x,y offset values provided."}, setROIOffset),
    });
}

} // namespace k52app
