#include "core/route/families.h"
#include "utils/io/iocpuinfo.h"

#include <string>

namespace k52app {

std::vector<Route> cpuInfoRoutes(const RouteServices&)
{
    // No group: each call reads the file afresh through its own short-lived reader.
    return {
        // The blank before "Serial" doubles the prefix's own; kept as clients know the reply.
        {"GetCPUInfoChipID", "Gets the chip id", {}, {}, "GetCPUInfoChipID: ", "Error",
         Converts::deviceErrors, {},
         [](RouteCall& call) { return call.ok(" Serial: " + utils::IOCpuInfo().getSerial()); }},
        {"GetCPUInfoHardware", "Gets the hardware value from cpu info", {}, {}, "GetCPUInfoHardware: ",
         "Error", Converts::deviceErrors, {},
         [](RouteCall& call) { return call.ok("Hardware : " + utils::IOCpuInfo().getHardware()); }},
    };
}

} // namespace k52app
