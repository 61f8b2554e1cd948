#include "core/commandrouter.h"

namespace k52app {

void K52CommandRouter::registerGPIOCommands() {}

} // namespace k52app
