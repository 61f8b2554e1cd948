#include "core/commandrouter.h"
#include "core/route/families.h"

namespace k52app {

// Families still registering through the router's members; each goes when its file
// defines the table function itself.
std::vector<Route> rtuRoutes(const RouteServices& services)
{
    services.router.registerRTUCommands();
    return {};
}

std::vector<Route> autoFocusRoutes(const RouteServices& services)
{
    services.router.registerAutoFocusCommands();
    return {};
}

std::vector<Route> illuminationRoutes(const RouteServices& services)
{
    services.router.registerIlluminationCommands();
    return {};
}

std::vector<Route> i2cRoutes(const RouteServices& services)
{
    services.router.registerI2CCommands();
    return {};
}

std::vector<Route> i2cRtuRoutes(const RouteServices& services)
{
    services.router.registerI2CRTUCommands();
    return {};
}

std::vector<Route> smartSensorRoutes(const RouteServices& services)
{
    services.router.registerSmartSensorCommands();
    return {};
}

std::vector<Route> tofRoutes(const RouteServices& services)
{
    services.router.registerToFCommands();
    return {};
}

} // namespace k52app
