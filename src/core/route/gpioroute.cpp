#include "core/route/families.h"

#include "core/middleware/ackreport.h"
#include "utils/log/logrecord.h"
#include "utils/base/strings.h"

namespace k52app {

namespace {

// The edge handlers run on the GPIO library's event thread. When no client is connected the
// notice cannot be sent; the library drops the exception and keeps watching the line.
void announceRisingEdge(AckReport& ackReport)
{
    K52_LOG(warn) << "Button : Rising Edge Detected !";
    ackReport.sendColoredMessage(AckReport::Orange, "Button : Rising Edge Detected.");
}

void announceFallingEdge(AckReport& ackReport)
{
    K52_LOG(info) << "Button : Falling Edge Detected !";
    ackReport.sendColoredMessage(AckReport::Blue, "Button : Falling Edge Detected.");
}

} // namespace

std::vector<Route> gpioRoutes(const RouteServices& services)
{
    auto monitorButton = [&resources = services.resources, &ackReport = services.ackReport](RouteCall& call) -> RouteReply {
        utils::IOGPIO& button = resources.button();
        if (call.i32(0) == 0) {
            button.close();
            return {"OK", "button monitor disabled."};
        }
        button.open();
        button.setCallback(utils::IOGPIO::Edge::rising, [&ackReport] { announceRisingEdge(ackReport); });
        button.setCallback(utils::IOGPIO::Edge::falling, [&ackReport] { announceFallingEdge(ackReport); });
        return {"OK", "button monitor enabled."};
    };
    // The success replies carry no prefix; only failures start with "Failed".
    return {
        {"MonitorButton", "Enables the button monitoring",
         {utils::numericalArgument("mode", "enable=1, disable=0", 0, 1)}, {}, "Failed", "Error",
         Converts::deviceErrors, {}, monitorButton},
    };
}

} // namespace k52app
