#include "utils/platform/emulated/autofocusmodel.h"
#include "utils/platform/emulated/board.h"
#include "utils/platform/emulated/gpiochip.h"
#include "utils/platform/emulated/i2cbus.h"
#include "utils/platform/emulated/illuminationmodel.h"
#include "utils/platform/emulated/imxmodel.h"
#include "utils/platform/emulated/rtumodel.h"
#include "utils/platform/emulated/smartsensormodel.h"
#include "utils/platform/emulated/textfile.h"
#include "utils/platform/emulated/tofmodel.h"
#include "utils/platform/emulated/v4l2sensor.h"

#include <sstream>

namespace utils::platform {

namespace {

using emulated::EmulatedBoard;
using emulated::FaultInjector;

// "emulated-fault-<fault>=<path>,<path>..." injects <fault> into each listed device node.
void injectConfiguredFaults(EmulatedBoard& board,
                            const std::map<std::string, std::string>& configuration)
{
    const std::string prefix = "emulated-fault-";
    for (const auto& [key, value] : configuration) {
        if (key.rfind(prefix, 0) != 0)
            continue;
        auto fault = FaultInjector::parse(key.substr(prefix.size()));
        std::istringstream paths(value);
        for (std::string path; std::getline(paths, path, ',');) {
            if (!path.empty())
                board.faults().inject(path, fault);
        }
    }
}

} // namespace

// The emulated board as a developer machine gets it: every device node the daemon opens.
std::shared_ptr<Kernel> makeEmulatedKernel(const std::map<std::string, std::string>& configuration)
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
    // The buses first: the RTU and the smart sensor put themselves on them.
    attachI2CBuses(*board);
    attachRTU(*board);
    attachIMX(*board);
    attachV4L2Sensor(*board);
    attachAutoFocus(*board);
    attachIllumination(*board);
    attachToF(*board);
    attachSmartSensor(*board);
    attachGPIOChip(*board, configuration);
    injectConfiguredFaults(*board, configuration);
    return board;
}

} // namespace utils::platform
