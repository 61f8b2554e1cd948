#include "utils/io/sysfsvalue.h"

#include "utils/base/exceptions.h"
#include "utils/platform/filedescriptor.h"
#include "utils/platform/kernel.h"

#include <fcntl.h>

namespace utils {

void writeSysfsValue(const std::string& path, unsigned value)
{
    auto& kernel = platform::kernel();
    FileDescriptor file(kernel.open(path, O_WRONLY));
    if (!file)
        throw IOError("Failed to open " + path + " for writing");
    const std::string text = std::to_string(value);
    // sysfs takes the whole value in one write; a partial write is a failed one.
    if (kernel.write(file.get(), text.data(), text.size()) != static_cast<ssize_t>(text.size()))
        throw IOError("Failed to write to " + path);
}

void writeActiveLowLine(const std::string& path, bool active)
{
    writeSysfsValue(path, active ? 0 : 1);
}

} // namespace utils
