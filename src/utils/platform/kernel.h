#pragma once

#include <poll.h>
#include <sys/types.h>

#include <map>
#include <memory>
#include <string>

namespace utils::platform {

// The one seam between the device drivers and the hardware. Every call behaves like the system
// call of the same name: it returns -1 (MAP_FAILED for mmap) and sets errno on failure.
class Kernel {
public:
    virtual ~Kernel() = default;

    virtual int open(const std::string& path, int flags, mode_t mode = 0) = 0;
    virtual int close(int fd) = 0;
    virtual ssize_t read(int fd, void* buffer, size_t length) = 0;
    virtual ssize_t write(int fd, const void* buffer, size_t length) = 0;
    virtual ssize_t pread(int fd, void* buffer, size_t length, off_t offset) = 0;
    virtual ssize_t pwrite(int fd, const void* buffer, size_t length, off_t offset) = 0;
    virtual int ioctl(int fd, unsigned long request, void* argument) = 0;
    virtual void* mmap(void* address, size_t length, int protection, int flags, int fd,
                       off_t offset) = 0;
    virtual int munmap(void* address, size_t length) = 0;
    virtual int poll(struct pollfd* fds, nfds_t count, int timeoutMs) = 0;
};

// The kernel every driver uses. The Linux kernel unless another one was installed.
Kernel& kernel();

// kernel().ioctl, repeated while a signal interrupts it: a blocking device request must not
// fail because the daemon caught a signal.
int ioctlRetrying(int fd, unsigned long request, void* argument);

// Installs `next` as the process's kernel and returns the previous one (null for the built-in
// Linux kernel). Done once at start-up, before any device is opened, or by tests.
std::shared_ptr<Kernel> installKernel(std::shared_ptr<Kernel> next);

// Selects the platform by its configuration name: "linux" or "emulated". The emulated board
// reads its own keys (those beginning with "emulated-") from `configuration`. Throws
// UtilsRuntimeError for any other name or a bad emulated key.
void selectPlatform(const std::string& name,
                    const std::map<std::string, std::string>& configuration = {});

} // namespace utils::platform
