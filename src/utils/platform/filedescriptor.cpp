#include "utils/platform/filedescriptor.h"

#include "utils/platform/kernel.h"

#include <unistd.h>

namespace utils {

void FileDescriptor::reset(int fd) noexcept
{
    if (fd_ >= 0) {
        if (closer_ == Closer::seam)
            platform::kernel().close(fd_);
        else
            ::close(fd_);
    }
    fd_ = fd;
}

} // namespace utils
