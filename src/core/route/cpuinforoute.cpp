#include "core/commandrouter.h"

namespace k52app {

void K52CommandRouter::registerCpuInfoCommands() {}

} // namespace k52app
