#include "core/commandrouter.h"
#include "core/k52resourcemanager.h"
#include "utils/base/exceptions.h"
#include "utils/base/strings.h"
#include "utils/io/iov4l2.h"

#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

namespace k52app {

namespace {

using Arguments = std::vector<std::string>;
using utils::IOV4L2;

// A body gets its call's own builder, to note text before the device call.
using V4L2Body = std::function<RouteReply(RouteReplyBuilder&, const Arguments&)>;

// A refusal of the V4L2 family travels as the library's runtime error, so clients see it as
// ErrorRuntimeError with the reason directly followed by "Invalid arguments.".
[[noreturn]] void invalidArguments(RouteReplyBuilder& reply, const std::string& reason)
{
    reply.note(reason);
    throw utils::UtilsRuntimeError("Invalid arguments.");
}

RouteHandler v4l2Route(const std::string& prefix, V4L2Body body)
{
    return [start = RouteReplyBuilder("Error", prefix), body = std::move(body)](const Arguments& arguments) {
        RouteReplyBuilder reply = start;
        return reply.guard([&] { return body(reply, arguments); });
    };
}

// The control routes report device failures as "ErrorIOExceptions": their clients match on
// the trailing s, so it stays.
RouteHandler v4l2ControlRoute(const std::string& prefix, V4L2Body body)
{
    return [start = RouteReplyBuilder("Error", prefix), body = std::move(body)](const Arguments& arguments) {
        RouteReplyBuilder reply = start;
        return reply.guard([&]() -> RouteReply {
            try {
                return body(reply, arguments);
            } catch (const utils::IOError& e) {
                return reply.answer(reply.status() + "IOExceptions", e.what());
            }
        });
    };
}

utils::SpinnerArgumentMetaData numberArgument(const std::string& name, const std::string& description,
                                              const std::string& defaultValue, int64_t count)
{
    return {name,
            description,
            utils::SpinnerArgumentType::numerical,
            utils::SpinnerArgumentNumericalLimit{0, 4294967295.0, 1},
            utils::isNumericalString,
            defaultValue,
            count};
}

// The device and its group's lock, taken after the arguments have been checked.
class LockedV4L2 {
public:
    explicit LockedV4L2(K52ResourceManager& resources)
        : lock_(resources.getMutex(K52ResourceGroups::V4L2)), device_(resources.v4l2())
    {
    }
    IOV4L2* operator->() { return &device_; }

private:
    std::lock_guard<std::mutex> lock_;
    IOV4L2& device_;
};

std::string controlName(const utils::IOV4L2Control& control)
{
    return reinterpret_cast<const char*>(control.query.name);
}

} // namespace

void K52CommandRouter::registerV4L2Commands()
{
    K52ResourceManager* resources = &resources_;
    const utils::SpinnerMetaData none;
    const utils::SpinnerMetaData bounds{{numberArgument(
        "bounds",
        "Nummerical 4 posetive integers which define the crop bounds left, top, width, height "
        "respectively.",
        "0", 4)}};
    const utils::SpinnerMetaData format{{
        numberArgument("format", "posetive integer which is a valid fourcc", "0", 1),
        numberArgument("resolution_index", "posetive integer resolution index", "0", 1),
    }};
    // No default for the control routes: no control has id 0, so a missing id is reported
    // rather than looked up.
    const auto controlId = numberArgument("control_id", "posetive 32-bit integer", "", 1);
    const utils::SpinnerMetaData getControl{{controlId}};
    const utils::SpinnerMetaData setControl{{controlId, numberArgument("value", "posetive 32-bit integer", "", 1)}};

    registerRoutes({
        {"GetV4L2CropCapabilities", "Gets the current crop capabilities", none,
         v4l2Route("GetV4L2CropCapabilities: ",
                   [resources](RouteReplyBuilder& reply, const Arguments&) {
                       const v4l2_cropcap capabilities = LockedV4L2(*resources)->getCropCapabilities();
                       return reply.ok("Crop Capabilities - Bounds: " +
                                       std::to_string(capabilities.bounds.width) + "x" +
                                       std::to_string(capabilities.bounds.height) + ", Default: " +
                                       std::to_string(capabilities.defrect.width) + "x" +
                                       std::to_string(capabilities.defrect.height));
                   })},
        {"SetV4L2CropCapabilities", "Sets the V4L2 crop capabilities", bounds,
         v4l2Route("SetV4L2Crop: ",
                   [resources](RouteReplyBuilder& reply, const Arguments& arguments) {
                       utils::IOV4L2Crop crop;
                       std::string text;
                       // An incomplete rectangle is no rectangle: the device's default applies,
                       // and the note stays in the reply even when the device then fails.
                       if (arguments.size() < 4) {
                           reply.note("No arguments provided, setting to default crop.");
                       } else {
                           const auto value = [&arguments](size_t i) {
                               return static_cast<int32_t>(std::stol(arguments[i]));
                           };
                           crop.rect.left = value(0);
                           crop.rect.top = value(1);
                           crop.rect.width = static_cast<uint32_t>(value(2));
                           crop.rect.height = static_cast<uint32_t>(value(3));
                           text = "Set crop to left=" + std::to_string(value(0)) +
                                  ", top=" + std::to_string(value(1)) +
                                  ", width=" + std::to_string(value(2)) +
                                  ", height=" + std::to_string(value(3));
                       }
                       LockedV4L2(*resources)->setCropCapabilities(&crop);
                       return reply.ok(text);
                   })},
        {"GetV4L2Format", "Gets the current V4L2 format", none,
         v4l2Route("GetV4L2Format: ",
                   [resources](RouteReplyBuilder& reply, const Arguments&) {
                       const v4l2_pix_format current = LockedV4L2(*resources)->getFormat();
                       return reply.ok("Current format: " + IOV4L2::fourccToString(current.pixelformat) +
                                       ", Resolution: " + std::to_string(current.width) + "x" +
                                       std::to_string(current.height));
                   })},
        {"SetV4L2Format", "Sets the format and resolution", format,
         v4l2Route("SetV4L2Format: ",
                   [resources](RouteReplyBuilder& reply, const Arguments& arguments) {
                       if (arguments.size() != 2)
                           invalidArguments(reply, "Invalid number of arguments, need fourcc and index.");
                       const auto fourcc = static_cast<uint32_t>(std::stoul(arguments[0]));
                       const auto index = static_cast<uint32_t>(std::stoul(arguments[1]));
                       LockedV4L2(*resources)->setFormat(fourcc, index);
                       return reply.ok("Set format to " + IOV4L2::fourccToString(fourcc) +
                                       " with index " + std::to_string(index));
                   })},
        {"GetV4L2Ctrl", "Gets the current V4L2 control value", getControl,
         v4l2ControlRoute("GetV4L2Ctrl: ",
                          [resources](RouteReplyBuilder& reply, const Arguments& arguments) {
                              if (arguments.size() != 1)
                                  invalidArguments(reply, "Invalid number of arguments, need only ID.");
                              const long id = std::stol(arguments[0]);
                              LockedV4L2 device(*resources);
                              const int32_t value = device->getCtrl(static_cast<uint32_t>(id));
                              const std::string name =
                                  controlName(device->getControls().at(static_cast<uint32_t>(id)));
                              return reply.ok("control_id=" + std::to_string(id) + " '" + name +
                                              "' is " + std::to_string(value));
                          })},
        {"SetV4L2Ctrl", "Sets the V4L2 control value", setControl,
         v4l2ControlRoute("SetV4L2Ctrl: ",
                          [resources](RouteReplyBuilder& reply, const Arguments& arguments) {
                              if (arguments.size() < 2)
                                  invalidArguments(reply, "Invalid number of arguments, need ID and value.");
                              const long id = std::stol(arguments[0]);
                              const long value = std::stol(arguments[1]);
                              LockedV4L2 device(*resources);
                              const auto controls = device->getControls();
                              const utils::IOV4L2Control& control = controls.at(static_cast<uint32_t>(id));
                              if (value < control.query.minimum || value > control.query.maximum)
                                  invalidArguments(reply, "Invalid value range.");
                              device->setCtrl(static_cast<uint32_t>(id), static_cast<int32_t>(value));
                              return reply.ok("control_id=" + std::to_string(id) + " '" +
                                              controlName(control) + "' set to " + std::to_string(value));
                          })},
    });
}

} // namespace k52app
