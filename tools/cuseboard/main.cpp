// k52-cuse-board NODE...
//
// Serves the listed device nodes of the emulated board (e.g. /dev/k52rtu /dev/imx0) as real
// character devices of the same names through CUSE, until SIGINT or SIGTERM. Needs root (or
// write access to /dev/cuse) and the kernel's cuse module. Prints "ready" on standard output
// once every node exists.
#include "cusenode.h"

#include "utils/platform/kernel.h"

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <exception>
#include <iostream>
#include <list>

int main(int argc, char** argv)
{
    if (argc < 2) {
        std::cerr << "usage: k52-cuse-board NODE... (e.g. /dev/k52rtu /dev/imx0)\n";
        return 2;
    }
    // Blocked here and so in every thread started below: only sigwait() sees them.
    sigset_t stopSignals;
    sigemptyset(&stopSignals);
    for (int signal : {SIGINT, SIGTERM, SIGHUP})
        sigaddset(&stopSignals, signal);
    pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);
    cuseboard::installWakeUpSignal();

    try {
        utils::platform::selectPlatform("emulated");
        auto& board = utils::platform::kernel();
        std::list<cuseboard::CuseNode> nodes;
        for (int i = 1; i < argc; ++i) {
            const std::string path = argv[i];
            const int fd = board.open(path, O_RDWR);
            if (fd < 0) {
                std::cerr << "k52-cuse-board: the emulated board has no device " << path << "\n";
                return 1;
            }
            board.close(fd);
            nodes.emplace_back(board, path);
        }
        // CUSE creates the nodes asynchronously, once the kernel has seen the session's init.
        for (const auto& node : nodes) {
            for (int tries = 0; access(node.path().c_str(), F_OK) != 0; ++tries) {
                if (tries == 500) {
                    std::cerr << "k52-cuse-board: " << node.path() << " did not appear\n";
                    return 1;
                }
                usleep(10'000);
            }
        }
        std::cout << "ready" << std::endl;
        int signal = 0;
        sigwait(&stopSignals, &signal);
    } catch (const std::exception& error) {
        std::cerr << "k52-cuse-board: " << error.what() << "\n";
        return 1;
    }
    return 0;
}
