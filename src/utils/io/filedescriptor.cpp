#include "utils/io/filedescriptor.h"

#include "utils/platform/kernel.h"

namespace utils {

void FileDescriptor::reset(int fd)
{
    if (fd_ >= 0)
        platform::kernel().close(fd_);
    fd_ = fd;
}

} // namespace utils
