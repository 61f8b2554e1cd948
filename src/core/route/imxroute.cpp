#include "core/route/families.h"
#include "utils/io/ioimx.h"

#include <string>

namespace k52app {

namespace {

using utils::IOIMX;

std::string sensorType(RouteCall& call)
{
    // Only the low byte carries the colour filter; the rest is the sensor's business.
    return (call.device<IOIMX>().getSensorType() & 0xFF) != 0 ? "'monochrome'" : "'color'";
}

std::string setExposure(RouteCall& call)
{
    const auto microseconds = static_cast<unsigned>(call.u64(0));
    call.device<IOIMX>().setExposure(microseconds);
    return "Exposure set to " + std::to_string(microseconds) + " us";
}

std::string setTriggerMode(RouteCall& call)
{
    // The register holds one byte; the reply names what the sensor was given.
    const auto mode = static_cast<unsigned char>(call.u64(0));
    call.device<IOIMX>().setTriggerMode(mode);
    return "Trigger Mode set to " + std::to_string(mode);
}

std::string setHalfScanMode(RouteCall& call)
{
    const int mode = call.i32(0);
    // Clients read which mode was asked for even when the sensor refuses it.
    call.note("hscanmode=" + std::to_string(mode) + ";");
    // Not checked here: the sensor refuses modes it does not know.
    call.device<IOIMX>().setScanMode(static_cast<utils::_hscan_modes_t>(mode));
    return "";
}

std::string roiOffset(RouteCall& call)
{
    const auto [x, y] = call.device<IOIMX>().getROIXYOffset();
    return "ROI Offset = (" + std::to_string(x) + "," + std::to_string(y) + ")";
}

std::string setROIOffset(RouteCall& call)
{
    const int x = call.i32(0);
    const int y = call.i32(1);
    call.device<IOIMX>().setROIXYOffset(x, y);
    return "ROI Offset set to (" + std::to_string(x) + "," + std::to_string(y) + ")";
}

// Every IMX route holds the sensor's group and answers after "<name>: ". Setters name what is
// missing before touching the sensor, so a bare "SetIMXExposure" never reaches the device.
Route imx(std::string name, std::string help, bool takesValue, MissingArguments missing,
          std::string (*text)(RouteCall&))
{
    std::string prefix = name + ": ";
    return {std::move(name),
            std::move(help),
            takesValue ? std::vector{utils::IntegerArgumentMetaData} : std::vector<utils::SpinnerArgumentMetaData>{},
            {K52ResourceGroups::IMX},
            std::move(prefix),
            "Error",
            Converts::deviceErrors,
            std::move(missing),
            [text](RouteCall& call) { return call.ok(text(call)); }};
}

} // namespace

std::vector<Route> imxRoutes(const RouteServices&)
{
    return {
        imx("GetIMXSensorType", "Returns the IMX sensor type", false, {}, sensorType),
        imx("GetIMXExposure", "Returns the IMX exposure", false, {},
            [](RouteCall& call) {
                return "Exposure = " + std::to_string(call.device<IOIMX>().getExposure()) + " us";
            }),
        imx("SetIMXExposure", "Sets the IMX exposure", true, {1, "No exposure value provided."},
            setExposure),
        imx("GetIMXTriggerMode", "Returns the IMX trigger mode", false, {},
            [](RouteCall& call) {
                return "Trigger Mode = " + std::to_string(call.device<IOIMX>().getTriggerMode());
            }),
        imx("SetIMXTriggerMode", "Sets the IMX trigger mode", true,
            {1, "No trigger mode value provided."}, setTriggerMode),
        imx("GetIMXHalfScanMode", "Returns the IMX half-scan mode", false, {},
            [](RouteCall& call) {
                return "Half-Scan Mode = " + std::to_string(call.device<IOIMX>().getHalfScanMode());
            }),
        imx("SetIMXHalfScanMode", "Sets the IMX half-scan mode", true,
            {1, "No half-scan mode value provided."}, setHalfScanMode),
        imx("GetIMXROIOffset", "Returns the IMX ROI", false, {}, roiOffset),
        // Described as one integer, as clients know it, but it takes x and then y.
        imx("SetIMXROIOffset", "Sets the IMX ROI Offset", true,
            {2, "No ROI x,y offset values provided."}, setROIOffset),
    };
}

} // namespace k52app
