#pragma once

#include <utility>

namespace utils {

// Owns one descriptor and closes it when destroyed or reset. Device nodes come from the kernel
// seam (which may be the emulated board) and must go back through it; sockets, inotify and
// plain files are the process's own and close directly. The closer is fixed at construction.
class FileDescriptor {
public:
    enum class Closer { seam, system };

    FileDescriptor() = default;
    explicit FileDescriptor(int fd, Closer closer = Closer::seam) : fd_(fd), closer_(closer) {}
    FileDescriptor(FileDescriptor&& other) noexcept
        : fd_(std::exchange(other.fd_, -1)), closer_(other.closer_)
    {
    }
    FileDescriptor& operator=(FileDescriptor&& other) noexcept
    {
        if (this != &other) {
            reset();
            fd_ = std::exchange(other.fd_, -1);
            closer_ = other.closer_;
        }
        return *this;
    }
    FileDescriptor(const FileDescriptor&) = delete;
    FileDescriptor& operator=(const FileDescriptor&) = delete;
    ~FileDescriptor() { reset(); }

    int get() const { return fd_; }
    bool valid() const { return fd_ >= 0; }
    explicit operator bool() const { return valid(); }
    // Gives up ownership without closing.
    int release() { return std::exchange(fd_, -1); }
    // Closes the current descriptor (if any) and owns `fd`, closed the same way.
    void reset(int fd = -1) noexcept;

private:
    int fd_ = -1;
    Closer closer_ = Closer::seam;
};

} // namespace utils
