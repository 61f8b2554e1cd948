#pragma once

#include "utils/platform/kernel.h"

namespace utils::platform {

// Forwards every call to the running Linux kernel.
class LinuxKernel final : public Kernel {
public:
    int open(const std::string& path, int flags, mode_t mode) override;
    int close(int fd) override;
    ssize_t read(int fd, void* buffer, size_t length) override;
    ssize_t write(int fd, const void* buffer, size_t length) override;
    ssize_t pread(int fd, void* buffer, size_t length, off_t offset) override;
    ssize_t pwrite(int fd, const void* buffer, size_t length, off_t offset) override;
    int ioctl(int fd, unsigned long request, void* argument) override;
    void* mmap(void* address, size_t length, int protection, int flags, int fd,
               off_t offset) override;
    int munmap(void* address, size_t length) override;
    int poll(struct pollfd* fds, nfds_t count, int timeoutMs) override;
};

} // namespace utils::platform
