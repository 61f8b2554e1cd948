#include "client/containers.h"
#include "utils/platform/filedescriptor.h"
#include "utils/platform/mappedregion.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>

namespace k52client {

namespace {

// A read-only mapping of a whole file; the descriptor is not needed once it is mapped.
utils::MappedRegion mapWholeFile(const std::string& path)
{
    const utils::FileDescriptor fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC), utils::FileDescriptor::Closer::system);
    if (!fd)
        throw std::runtime_error("cannot open " + path + ": " + std::strerror(errno));
    struct stat info {};
    if (::fstat(fd.get(), &info) != 0 || info.st_size == 0)
        return {};
    const auto size = static_cast<size_t>(info.st_size);
    utils::MappedRegion file(::mmap(nullptr, size, PROT_READ, MAP_SHARED, fd.get(), 0), size,
                             utils::MappedRegion::Unmapper::system);
    if (!file)
        throw std::runtime_error("cannot map " + path + ": " + std::strerror(errno));
    return file;
}

} // namespace

ContainerReport inspectContainer(const std::string& path)
{
    const utils::MappedRegion file = mapWholeFile(path);
    return {utils::wire::checkContainer(file.as<const uint8_t>(), file.size()), path, file.size()};
}

} // namespace k52client
