#include "core/commandrouter.h"

namespace k52app {

void K52CommandRouter::registerAutoFocusCommands() {}

} // namespace k52app
