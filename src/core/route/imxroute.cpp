#include "core/commandrouter.h"

namespace k52app {

void K52CommandRouter::registerIMXCommands() {}

} // namespace k52app
