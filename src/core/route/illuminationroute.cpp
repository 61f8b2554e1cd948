#include "core/commandrouter.h"

namespace k52app {

void K52CommandRouter::registerIlluminationCommands() {}

} // namespace k52app
