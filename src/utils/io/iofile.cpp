#include "utils/io/iofile.h"

#include "utils/base/exceptions.h"
#include "utils/platform/kernel.h"

#include <cerrno>
#include <cstring>

namespace utils {

IOFile::IOFile(std::string path, int flags) : path_(std::move(path)), flags_(flags) {}

void IOFile::open()
{
    if (fd_.valid())
        return;
    int fd = platform::kernel().open(path_, flags_);
    if (fd < 0)
        fail("Unable to open");
    fd_.reset(fd);
}

void IOFile::close() { fd_.reset(); }

int IOFile::descriptor() const
{
    if (!fd_.valid())
        throw IOError(path_ + ": device is not open.");
    return fd_.get();
}

void IOFile::fail(const std::string& what) const
{
    throw IOError(what + " '" + path_ + "': " + std::strerror(errno));
}

void IOFile::readAll(void* buffer, size_t length, long offset) const
{
    auto& k = platform::kernel();
    ssize_t n = offset < 0 ? k.read(descriptor(), buffer, length)
                           : k.pread(descriptor(), buffer, length, offset);
    if (n < 0)
        fail("Unable to read");
    if (static_cast<size_t>(n) != length) {
        errno = EIO;
        fail("Short read from");
    }
}

void IOFile::writeAll(const void* buffer, size_t length, long offset) const
{
    auto& k = platform::kernel();
    ssize_t n = offset < 0 ? k.write(descriptor(), buffer, length)
                           : k.pwrite(descriptor(), buffer, length, offset);
    if (n < 0)
        fail("Unable to write");
    if (static_cast<size_t>(n) != length) {
        errno = EIO;
        fail("Short write to");
    }
}

bool IOFile::tryControl(unsigned long request, void* argument) const
{
    return platform::ioctlRetrying(descriptor(), request, argument) >= 0;
}

void IOFile::control(unsigned long request, void* argument, const char* what) const
{
    if (!tryControl(request, argument))
        fail(what);
}

} // namespace utils
