#include "core/commandrouter.h"

namespace k52app {

void K52CommandRouter::registerToFCommands() {}

} // namespace k52app
