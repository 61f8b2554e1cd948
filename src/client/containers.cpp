#include "client/containers.h"
#include "client/wire.h"

#include "utils/base/crc.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>

namespace k52client {

namespace {

constexpr uint32_t containerMagic = 0x0510FFFF;

// A read-only mapping of a whole file, released on scope exit.
class ReadOnlyMapping {
public:
    explicit ReadOnlyMapping(const std::string& path)
    {
        int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
        if (fd < 0)
            throw std::runtime_error("cannot open " + path + ": " + std::strerror(errno));
        struct stat info {};
        if (::fstat(fd, &info) == 0 && info.st_size > 0) {
            size_ = static_cast<size_t>(info.st_size);
            void* address = ::mmap(nullptr, size_, PROT_READ, MAP_SHARED, fd, 0);
            data_ = address == MAP_FAILED ? nullptr : static_cast<const uint8_t*>(address);
        }
        int error = errno;
        ::close(fd);
        if (size_ > 0 && !data_)
            throw std::runtime_error("cannot map " + path + ": " + std::strerror(error));
    }
    ~ReadOnlyMapping()
    {
        if (data_)
            ::munmap(const_cast<uint8_t*>(data_), size_);
    }
    ReadOnlyMapping(const ReadOnlyMapping&) = delete;
    ReadOnlyMapping& operator=(const ReadOnlyMapping&) = delete;

    const uint8_t* data() const { return data_; }
    size_t size() const { return size_; }

private:
    const uint8_t* data_ = nullptr;
    size_t size_ = 0;
};

} // namespace

ContainerReport inspectContainer(const std::string& path)
{
    ReadOnlyMapping file(path);
    ContainerReport report;
    report.path = path;
    report.fileSize = file.size();
    if (file.size() < 12) {
        report.problems.push_back("file too small for a container (" +
                                  std::to_string(file.size()) + " bytes)");
        return report;
    }
    const uint8_t* bytes = file.data();
    report.identifier = wordAt(bytes, 0);
    report.size = wordAt(bytes, 4);
    if (report.identifier != containerMagic)
        report.problems.push_back("identifier is not 0x0510ffff");
    // After a frame snapshot the general container's size word covers only its used part,
    // and the checksum follows that part.
    if (report.size < 12 || report.size > file.size()) {
        report.problems.push_back("size word " + std::to_string(report.size) + " but file has " +
                                  std::to_string(file.size()) + " bytes");
        return report;
    }
    report.storedChecksum = wordAt(bytes, report.size - 4);
    report.computedChecksum = utils::CRCSum32(bytes, report.size - 4, 0xFFFFFFFF);
    if (report.storedChecksum != report.computedChecksum)
        report.problems.push_back("checksum mismatch");
    for (uint64_t offset = 8; offset + 8 <= report.size - 4;) {
        uint32_t size = wordAt(bytes, offset + 4);
        report.subContainers.push_back({offset, wordAt(bytes, offset), size});
        if (size < 8 || offset + size > report.size - 4) {
            report.problems.push_back("sub-container at " + std::to_string(offset) +
                                      " overruns the container");
            break;
        }
        offset += size;
    }
    return report;
}

} // namespace k52client
