#include "core/commandrouter.h"

namespace k52app {

void K52CommandRouter::registerI2CCommands() {}

} // namespace k52app
