#include "utils/platform/emulated/board.h"
#include "utils/platform/emulated/textfile.h"

namespace utils::platform {

// The emulated board as a developer machine gets it: every device node the daemon opens.
std::shared_ptr<Kernel> makeEmulatedKernel()
{
    using namespace emulated;
    auto board = std::make_shared<EmulatedBoard>();
    board->attach("/proc/cpuinfo",
                  std::make_shared<TextFile>("processor\t: 0\n"
                                             "BogoMIPS\t: 48.00\n"
                                             "Features\t: fp asimd evtstrm crc32 cpuid\n"
                                             "CPU implementer\t: 0x41\n"
                                             "CPU part\t: 0xd03\n"
                                             "\n"
                                             "Hardware\t: K52 emulated board\n"
                                             "Revision\t: 0001\n"
                                             "Serial\t\t: 00000000e52a0b1c\n"));
    return board;
}

} // namespace utils::platform
