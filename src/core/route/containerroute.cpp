#include "core/commandrouter.h"

namespace k52app {

void K52CommandRouter::registerContainerCommands() {}

} // namespace k52app
