#pragma once

#include <poll.h>
#include <sys/types.h>

#include <cerrno>
#include <memory>

namespace utils::platform::emulated {

// Returns -1 with errno set: the shape of every refused call.
inline int fail(int error)
{
    errno = error;
    return -1;
}

// One open instance of a virtual device node (what a file descriptor refers to).
class VirtualFile {
public:
    virtual ~VirtualFile() = default;

    virtual ssize_t read(void* /*buffer*/, size_t /*length*/) { return fail(EINVAL); }
    virtual ssize_t write(const void* /*buffer*/, size_t /*length*/) { return fail(EINVAL); }
    virtual ssize_t pread(void* /*buffer*/, size_t /*length*/, off_t /*offset*/)
    {
        return fail(ESPIPE);
    }
    virtual ssize_t pwrite(const void* /*buffer*/, size_t /*length*/, off_t /*offset*/)
    {
        return fail(ESPIPE);
    }
    virtual int ioctl(unsigned long /*request*/, void* /*argument*/) { return fail(ENOTTY); }
    // Returns the address of the device memory at `offset`, or null with errno set.
    virtual void* mmap(size_t /*length*/, off_t /*offset*/)
    {
        errno = ENODEV;
        return nullptr;
    }
    // The poll events (POLLIN, POLLPRI, ...) ready now; the board wakes pollers on change.
    virtual short readyEvents() { return POLLIN | POLLOUT; }
};

// A device node of the emulated board. open() returns null with errno set when it refuses.
class VirtualDevice {
public:
    virtual ~VirtualDevice() = default;
    virtual std::unique_ptr<VirtualFile> open(int flags) = 0;
};

} // namespace utils::platform::emulated
