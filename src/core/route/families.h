#pragma once

#include "core/route/route.h"

#include <vector>

namespace k52app {

// Each family's table, one source file each in this directory.
std::vector<Route> containerRoutes(const RouteServices& services);
std::vector<Route> staticFrameRoutes(const RouteServices& services);
std::vector<Route> v4l2Routes(const RouteServices& services);
std::vector<Route> imxRoutes(const RouteServices& services);
std::vector<Route> rtuRoutes(const RouteServices& services);
std::vector<Route> autoFocusRoutes(const RouteServices& services);
std::vector<Route> illuminationRoutes(const RouteServices& services);
std::vector<Route> i2cRoutes(const RouteServices& services);
std::vector<Route> i2cRtuRoutes(const RouteServices& services);
std::vector<Route> smartSensorRoutes(const RouteServices& services);
std::vector<Route> tofRoutes(const RouteServices& services);
std::vector<Route> cpuInfoRoutes(const RouteServices& services);
std::vector<Route> gpioRoutes(const RouteServices& services);
std::vector<Route> captureRoutes(const RouteServices& services);

} // namespace k52app
