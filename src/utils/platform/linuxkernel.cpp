#include "utils/platform/linuxkernel.h"

#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <unistd.h>

namespace utils::platform {

int LinuxKernel::open(const std::string& path, int flags, mode_t mode)
{
    return ::open(path.c_str(), flags | O_CLOEXEC, mode);
}

int LinuxKernel::close(int fd) { return ::close(fd); }

ssize_t LinuxKernel::read(int fd, void* buffer, size_t length) { return ::read(fd, buffer, length); }

ssize_t LinuxKernel::write(int fd, const void* buffer, size_t length)
{
    return ::write(fd, buffer, length);
}

ssize_t LinuxKernel::pread(int fd, void* buffer, size_t length, off_t offset)
{
    return ::pread(fd, buffer, length, offset);
}

ssize_t LinuxKernel::pwrite(int fd, const void* buffer, size_t length, off_t offset)
{
    return ::pwrite(fd, buffer, length, offset);
}

int LinuxKernel::ioctl(int fd, unsigned long request, void* argument)
{
    return ::ioctl(fd, request, argument);
}

void* LinuxKernel::mmap(void* address, size_t length, int protection, int flags, int fd,
                        off_t offset)
{
    return ::mmap(address, length, protection, flags, fd, offset);
}

int LinuxKernel::munmap(void* address, size_t length) { return ::munmap(address, length); }

int LinuxKernel::poll(struct pollfd* fds, nfds_t count, int timeoutMs)
{
    return ::poll(fds, count, timeoutMs);
}

} // namespace utils::platform
