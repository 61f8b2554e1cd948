#include "core/route/families.h"
#include "utils/base/exceptions.h"
#include "utils/base/strings.h"
#include "utils/io/iov4l2.h"

#include <cstdint>
#include <string>

namespace k52app {

namespace {

using utils::IOV4L2;

// A refusal of the V4L2 family travels as the library's runtime error, so clients see it as
// ErrorRuntimeError with the reason directly followed by "Invalid arguments.".
[[noreturn]] void invalidArguments(RouteCall& call, const std::string& reason)
{
    call.note(reason);
    throw utils::UtilsRuntimeError("Invalid arguments.");
}

std::string controlName(const utils::IOV4L2Control& control)
{
    return reinterpret_cast<const char*>(control.query.name);
}

RouteReply cropCapabilities(RouteCall& call)
{
    const v4l2_cropcap capabilities = call.device<IOV4L2>().getCropCapabilities();
    return call.ok("Crop Capabilities - Bounds: " + std::to_string(capabilities.bounds.width) + "x" +
                   std::to_string(capabilities.bounds.height) +
                   ", Default: " + std::to_string(capabilities.defrect.width) + "x" +
                   std::to_string(capabilities.defrect.height));
}

RouteReply setCrop(RouteCall& call)
{
    utils::IOV4L2Crop crop;
    std::string text;
    // An incomplete rectangle is no rectangle: the device's default applies, and the note
    // stays in the reply even when the device then fails.
    if (call.size() < 4) {
        call.note("No arguments provided, setting to default crop.");
    } else {
        const auto value = [&call](size_t i) { return static_cast<int32_t>(call.i64(i)); };
        crop.rect.left = value(0);
        crop.rect.top = value(1);
        crop.rect.width = static_cast<uint32_t>(value(2));
        crop.rect.height = static_cast<uint32_t>(value(3));
        text = "Set crop to left=" + std::to_string(value(0)) + ", top=" + std::to_string(value(1)) +
               ", width=" + std::to_string(value(2)) + ", height=" + std::to_string(value(3));
    }
    call.device<IOV4L2>().setCropCapabilities(&crop);
    return call.ok(text);
}

RouteReply format(RouteCall& call)
{
    const v4l2_pix_format current = call.device<IOV4L2>().getFormat();
    return call.ok("Current format: " + IOV4L2::fourccToString(current.pixelformat) +
                   ", Resolution: " + std::to_string(current.width) + "x" + std::to_string(current.height));
}

RouteReply setFormat(RouteCall& call)
{
    if (call.size() != 2)
        invalidArguments(call, "Invalid number of arguments, need fourcc and index.");
    const auto fourcc = static_cast<uint32_t>(call.u64(0));
    const auto index = static_cast<uint32_t>(call.u64(1));
    call.device<IOV4L2>().setFormat(fourcc, index);
    return call.ok("Set format to " + IOV4L2::fourccToString(fourcc) + " with index " + std::to_string(index));
}

RouteReply control(RouteCall& call)
{
    if (call.size() != 1)
        invalidArguments(call, "Invalid number of arguments, need only ID.");
    const auto id = call.i64(0);
    IOV4L2& device = call.device<IOV4L2>();
    const int32_t value = device.getCtrl(static_cast<uint32_t>(id));
    const std::string name = controlName(device.getControls().at(static_cast<uint32_t>(id)));
    return call.ok("control_id=" + std::to_string(id) + " '" + name + "' is " + std::to_string(value));
}

RouteReply setControl(RouteCall& call)
{
    if (call.size() < 2)
        invalidArguments(call, "Invalid number of arguments, need ID and value.");
    const auto id = call.i64(0);
    const auto value = call.i64(1);
    IOV4L2& device = call.device<IOV4L2>();
    const auto controls = device.getControls();
    const utils::IOV4L2Control& control = controls.at(static_cast<uint32_t>(id));
    if (value < control.query.minimum || value > control.query.maximum)
        invalidArguments(call, "Invalid value range.");
    device.setCtrl(static_cast<uint32_t>(id), static_cast<int32_t>(value));
    return call.ok("control_id=" + std::to_string(id) + " '" + controlName(control) + "' set to " +
                   std::to_string(value));
}

utils::SpinnerArgumentMetaData number(std::string name, std::string description, std::string defaultValue = "",
                                      int64_t count = 1)
{
    return utils::numericalArgument(std::move(name), std::move(description), 0, 4294967295.0,
                                    std::move(defaultValue), count);
}

} // namespace

std::vector<Route> v4l2Routes(const RouteServices&)
{
    const auto v4l2 = std::vector{K52ResourceGroups::V4L2};
    // No default for the control routes: no control has id 0, so a missing id is reported
    // rather than looked up.
    const auto controlId = number("control_id", "posetive 32-bit integer");
    return {
        {"GetV4L2CropCapabilities", "Gets the current crop capabilities", {}, v4l2,
         "GetV4L2CropCapabilities: ", "Error", Converts::deviceErrors, {}, cropCapabilities},
        {"SetV4L2CropCapabilities", "Sets the V4L2 crop capabilities",
         {number("bounds",
                 "Nummerical 4 posetive integers which define the crop bounds left, top, width, height "
                 "respectively.",
                 "0", 4)},
         v4l2, "SetV4L2Crop: ", "Error", Converts::deviceErrors, {}, setCrop},
        {"GetV4L2Format", "Gets the current V4L2 format", {}, v4l2, "GetV4L2Format: ", "Error",
         Converts::deviceErrors, {}, format},
        {"SetV4L2Format", "Sets the format and resolution",
         {number("format", "posetive integer which is a valid fourcc", "0"),
          number("resolution_index", "posetive integer resolution index", "0")},
         v4l2, "SetV4L2Format: ", "Error", Converts::deviceErrors, {}, setFormat},
        {"GetV4L2Ctrl", "Gets the current V4L2 control value", {controlId}, v4l2, "GetV4L2Ctrl: ",
         "Error", Converts::deviceErrorsPlural, {}, control},
        {"SetV4L2Ctrl", "Sets the V4L2 control value",
         {controlId, number("value", "posetive 32-bit integer")}, v4l2, "SetV4L2Ctrl: ", "Error",
         Converts::deviceErrorsPlural, {}, setControl},
    };
}

} // namespace k52app
