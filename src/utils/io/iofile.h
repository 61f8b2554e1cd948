#pragma once

#include "utils/platform/filedescriptor.h"
#include "utils/io/iobase.h"

#include <fcntl.h>

#include <string>

namespace utils {

// A device node reached through the kernel seam. The constructor does not open it; open()
// does, and throws IOError naming the path and the reason when that fails.
class IOFile : public IOBase {
public:
    explicit IOFile(std::string path, int flags = O_RDWR);

    void open() override;
    void close() override;

    bool isOpen() const { return fd_.valid(); }
    const std::string& path() const { return path_; }

protected:
    // The open descriptor; throws IOError when the file is not open.
    int descriptor() const;

    // Whole-buffer transfers: throw IOError on failure or a short transfer.
    void readAll(void* buffer, size_t length, long offset = -1) const;
    void writeAll(const void* buffer, size_t length, long offset = -1) const;
    // ioctl, repeated while a signal interrupts it: false with errno set on failure.
    bool tryControl(unsigned long request, void* argument) const;
    // The same, throwing IOError naming `what` on failure.
    void control(unsigned long request, void* argument, const char* what) const;

    [[noreturn]] void fail(const std::string& what) const;

private:
    std::string path_;
    int flags_;
    FileDescriptor fd_;
};

} // namespace utils
