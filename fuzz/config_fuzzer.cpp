// The configuration file parser over arbitrary file contents.
#include "utils/config/configparser.h"

#include <sys/mman.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

namespace {

// An in-memory file: the parser opens it by path as it opens any configuration file.
struct ScratchFile {
    ScratchFile() : fd(::memfd_create("k52fuzz.conf", 0)), path("/proc/self/fd/" + std::to_string(fd))
    {
        if (fd < 0)
            std::abort();
    }
    ~ScratchFile() { ::close(fd); }
    void write(const uint8_t* data, size_t size) const
    {
        if (::ftruncate(fd, 0) != 0 || ::pwrite(fd, data, size, 0) != static_cast<ssize_t>(size))
            std::abort();
    }
    int fd;
    std::string path;
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static const ScratchFile file;
    // The command line is parsed once (with a file that names the sensor, so that start-up
    // does not search /dev); each input is then loaded as a configuration file on top of it.
    static const k52app::ConfigParser base = [] {
        const std::string sensor = "image-sensor-path=/dev/imx0\n";
        file.write(reinterpret_cast<const uint8_t*>(sensor.data()), sensor.size());
        const char* argv[] = {"k52app", "--config", file.path.c_str()};
        return k52app::ConfigParser(3, argv);
    }();
    file.write(data, size);
    k52app::ConfigParser parser = base;
    try {
        parser.loadConfigFile(file.path);
        for (const auto& [key, value] : parser.values) {
            // White space is removed from every line; a blank left in a key or value means the
            // file's lines were split wrongly.
            if (key.find_first_of(" \t") != std::string::npos ||
                value.find_first_of(" \t") != std::string::npos)
                std::abort();
        }
    } catch (const k52app::ConfigParserException&) {
    }
    return 0;
}
