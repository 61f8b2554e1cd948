#include "k52app/terminatehandler.h"

#include "core/core.h"
#include "utils/log/logrecord.h"

#include <csignal>

k52app::Core* g_core = nullptr;

void terminateHandler(int signal)
{
    if (signal == SIGINT)
        K52_LOG(crit) << "k52app" << ": --SIGINT received--";
    else if (signal == SIGTERM)
        K52_LOG(crit) << "k52app" << ": --SIGTERM received--";
    if (g_core)
        g_core->terminate();
}
