#include "core/commandrouter.h"

#include "core/k52resourcemanager.h"
#include "core/middleware/ackreport.h"
#include "k52app/logrecord.h"
#include "utils/base/strings.h"

namespace k52app {

namespace {

using Arguments = std::vector<std::string>;

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

void K52CommandRouter::registerGPIOCommands()
{
    auto monitorButton = [&resources = resources_, &ackReport = ackReport_](const Arguments& arguments) {
        const RouteReplyBuilder reply("Error", "Failed");
        return reply.guard([&]() -> RouteReply {
            utils::IOGPIO& button = resources.button();
            if (std::stoi(arguments.at(0)) == 0) {
                button.close();
                return {"OK", "button monitor disabled."};
            }
            button.open();
            button.setCallback(utils::IOGPIO::Edge::rising, [&ackReport] { announceRisingEdge(ackReport); });
            button.setCallback(utils::IOGPIO::Edge::falling, [&ackReport] { announceFallingEdge(ackReport); });
            return {"OK", "button monitor enabled."};
        });
    };

    registerRoutes({
        {"MonitorButton",
         "Enables the button monitoring",
         {{{"mode", "enable=1, disable=0", utils::SpinnerArgumentType::numerical,
            utils::SpinnerArgumentNumericalLimit{0, 1, 1}, utils::isNumericalString, "", 1}}},
         monitorButton},
    });
}

} // namespace k52app
