#include "support/emulatedconfig.h"
#include "utils/platform/filedescriptor.h"

#include <netinet/in.h>
#include <sys/socket.h>

#include <cstdlib>
#include <fstream>
#include <sstream>
#include <stdexcept>

namespace k52test {

uint16_t freePort()
{
    const utils::FileDescriptor fd(::socket(AF_INET, SOCK_STREAM, 0), utils::FileDescriptor::Closer::system);
    sockaddr_in address{AF_INET, 0, {htonl(INADDR_LOOPBACK)}, {}};
    socklen_t size = sizeof address;
    if (!fd || ::bind(fd.get(), reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
        ::getsockname(fd.get(), reinterpret_cast<sockaddr*>(&address), &size) != 0)
        throw std::runtime_error("no free port");
    return ntohs(address.sin_port);
}

namespace {

// The suites run against the emulated board unless K52_TEST_CONFIG names another base file
// (absolute, or relative to the source tree), e.g. the kernel VM's.
std::string baseConfigPath()
{
    const char* chosen = std::getenv("K52_TEST_CONFIG");
    std::string path = chosen && *chosen ? chosen : "etc/k52app-emulated.conf";
    return path[0] == '/' ? path : std::string(K52_SOURCE_DIR) + "/" + path;
}

} // namespace

bool onRealKernel()
{
    static const bool realKernel = [] {
        std::ifstream base(baseConfigPath());
        for (std::string line; std::getline(base, line);)
            if (line.rfind("platform=", 0) == 0)
                return line == "platform=linux";
        return false;
    }();
    return realKernel;
}

EmulatedConfig::EmulatedConfig(const Overrides& overrides) : dir_("k52config")
{
    std::ifstream example(baseConfigPath());
    if (!example)
        throw std::runtime_error("cannot read the base configuration " + baseConfigPath());
    for (std::string line; std::getline(example, line);) {
        if (line.empty() || line[0] == '#')
            continue;
        auto split = line.find('=');
        if (split != std::string::npos)
            values_[line.substr(0, split)] = line.substr(split + 1);
    }
    values_["container-path"] = containerDir();
    values_["static-files"] = std::string(K52_SOURCE_DIR) + "/etc/static-frames";
    values_["smart-sensor-fw-path"] = std::string(K52_SOURCE_DIR) + "/etc/firmware/smartsensor.bin";
    uint16_t control = freePort();
    uint16_t stream = freePort();
    while (stream == control)
        stream = freePort();
    values_["socket-ctrl"] = std::to_string(control);
    values_["socket-stream"] = std::to_string(stream);
    for (const auto& [key, value] : overrides) {
        if (value)
            values_[key] = *value;
        else
            values_.erase(key);
    }
    std::ostringstream text;
    for (const auto& [key, value] : values_)
        text << key << "=" << value << "\n";
    path_ = dir_.writeFile("k52app.conf", text.str());
}

uint16_t EmulatedConfig::port(const char* key) const
{
    auto it = values_.find(key);
    return it == values_.end() ? 0 : static_cast<uint16_t>(std::stoi(it->second));
}

} // namespace k52test
