#include "core/middleware/capture.h"

namespace k52app {

Capture::Capture(K52ResourceManager& resources) : resources_(&resources) {}

void Capture::streamStop() { streaming_.store(0); }

} // namespace k52app
