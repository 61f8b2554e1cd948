// The configuration file parser over arbitrary file contents.
#include "k52app/configparser.h"

#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

namespace {

std::string scratchFile()
{
    const char* tmp = std::getenv("TMPDIR");
    return std::string(tmp ? tmp : "/tmp") + "/k52fuzz-config-" + std::to_string(::getpid()) + ".conf";
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static const std::string path = scratchFile();
    if (std::FILE* file = std::fopen(path.c_str(), "wb")) {
        std::fwrite(data, 1, size, file);
        std::fclose(file);
    } else {
        std::abort();
    }
    const char* argv[] = {"k52app", "--config", path.c_str()};
    try {
        k52app::ConfigParser parser(3, argv);
        for (const auto& [key, value] : parser.values) {
            // Keys and values come without white space; a blank would mean the file's lines
            // were split wrongly.
            if (key.find_first_of(" \t") != std::string::npos ||
                value.find_first_of(" \t") != std::string::npos)
                std::abort();
        }
    } catch (const k52app::ConfigParserException&) {
    }
    return 0;
}
