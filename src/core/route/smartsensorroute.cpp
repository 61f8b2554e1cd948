#include "core/commandrouter.h"

namespace k52app {

void K52CommandRouter::registerSmartSensorCommands() {}

} // namespace k52app
