#pragma once

#include "utils/router/commandrouter.h"

#include <string>

namespace k52app {

// The route reference for people writing clients: a Markdown document with one section per
// route, in the router's table order, giving its description, how to send it and each
// argument's type, limits or choices, default and count.
std::string renderRouteReference(const utils::CommandRouter& router);

} // namespace k52app
