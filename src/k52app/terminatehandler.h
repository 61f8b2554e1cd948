#pragma once

namespace k52app {
class Core;
}

// The running core, for the signal handler; set once the core is fully built.
extern k52app::Core* g_core;

// The SIGINT/SIGTERM handler: logs the signal and stops the core.
void terminateHandler(int signal);
