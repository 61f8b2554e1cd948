#include "core/commandrouter.h"

namespace k52app {

void K52CommandRouter::registerStaticFrameCommands() {}

} // namespace k52app
