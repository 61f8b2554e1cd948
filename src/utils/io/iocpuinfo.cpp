#include "utils/io/iocpuinfo.h"

#include "utils/base/exceptions.h"
#include "utils/platform/filedescriptor.h"
#include "utils/platform/kernel.h"

#include <fcntl.h>

#include <cerrno>
#include <cstring>
#include <sstream>

namespace utils {

namespace {

constexpr const char* cpuInfoPath = "/proc/cpuinfo";

std::string readCpuInfo()
{
    auto& k = platform::kernel();
    FileDescriptor fd(k.open(cpuInfoPath, O_RDONLY));
    if (!fd)
        throw IOError(std::string("Unable to open '") + cpuInfoPath + "': " + std::strerror(errno));
    std::string text;
    char chunk[4096];
    for (;;) {
        ssize_t n = k.read(fd.get(), chunk, sizeof chunk);
        if (n < 0)
            throw IOError(std::string("Unable to read '") + cpuInfoPath + "': " +
                          std::strerror(errno));
        if (n == 0)
            return text;
        text.append(chunk, static_cast<size_t>(n));
    }
}

std::string trim(const std::string& text)
{
    auto first = text.find_first_not_of(" \t");
    if (first == std::string::npos)
        return {};
    auto last = text.find_last_not_of(" \t\r");
    return text.substr(first, last - first + 1);
}

} // namespace

IOCpuInfo::IOCpuInfo() : hardware_("unknown"), serial_("unknown")
{
    std::istringstream lines(readCpuInfo());
    for (std::string line; std::getline(lines, line);) {
        auto colon = line.find(':');
        if (colon == std::string::npos)
            continue;
        std::string key = trim(line.substr(0, colon));
        std::string value = trim(line.substr(colon + 1));
        if (key == "Hardware" && !value.empty())
            hardware_ = value;
        else if (key == "Serial" && !value.empty())
            serial_ = value;
    }
}

} // namespace utils
