#include "core/commandrouter.h"

namespace k52app {

void K52CommandRouter::registerRTUCommands() {}

} // namespace k52app
