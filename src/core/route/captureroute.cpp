#include "core/commandrouter.h"

namespace k52app {

void K52CommandRouter::registerCaptureCommands() {}

} // namespace k52app
