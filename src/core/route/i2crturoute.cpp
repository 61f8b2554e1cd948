#include "core/commandrouter.h"

namespace k52app {

void K52CommandRouter::registerI2CRTUCommands() {}

} // namespace k52app
