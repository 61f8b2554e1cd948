#include "core/commandrouter.h"

namespace k52app {

void K52CommandRouter::registerV4L2Commands() {}

} // namespace k52app
