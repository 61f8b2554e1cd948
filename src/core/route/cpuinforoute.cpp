#include "core/commandrouter.h"
#include "utils/io/iocpuinfo.h"

#include <functional>
#include <string>
#include <vector>

namespace k52app {

void K52CommandRouter::registerCpuInfoCommands()
{
    // No group: each call reads the file afresh through its own short-lived reader.
    auto route = [](std::string prefix,
                    std::function<std::string(const utils::IOCpuInfo&)> describe) -> RouteHandler {
        return [reply = RouteReplyBuilder("Error", std::move(prefix)),
                describe = std::move(describe)](const std::vector<std::string>&) {
            return reply.guard([&] { return reply.ok(describe(utils::IOCpuInfo())); });
        };
    };
    const utils::SpinnerMetaData none;

    registerRoutes({
        // The blank before "Serial" doubles the prefix's own; kept as clients know the reply.
        {"GetCPUInfoChipID", "Gets the chip id", none,
         route("GetCPUInfoChipID: ",
               [](const utils::IOCpuInfo& cpu) { return " Serial: " + cpu.getSerial(); })},
        {"GetCPUInfoHardware", "Gets the hardware value from cpu info", none,
         route("GetCPUInfoHardware: ",
               [](const utils::IOCpuInfo& cpu) { return "Hardware : " + cpu.getHardware(); })},
    });
}

} // namespace k52app
