#include "utils/platform/kernel.h"

#include "utils/base/exceptions.h"
#include "utils/platform/linuxkernel.h"

#include <atomic>
#include <cerrno>

namespace utils::platform {

std::shared_ptr<Kernel> makeEmulatedKernel(const std::map<std::string, std::string>& configuration);

namespace {

std::shared_ptr<Kernel>& installed()
{
    static std::shared_ptr<Kernel> current;
    return current;
}

std::atomic<Kernel*>& active()
{
    static std::atomic<Kernel*> current{nullptr};
    return current;
}

} // namespace

Kernel& kernel()
{
    if (Kernel* k = active().load(std::memory_order_acquire))
        return *k;
    static LinuxKernel linuxKernel;
    return linuxKernel;
}

int ioctlRetrying(int fd, unsigned long request, void* argument)
{
    int result;
    do {
        result = kernel().ioctl(fd, request, argument);
    } while (result < 0 && errno == EINTR);
    return result;
}

std::shared_ptr<Kernel> installKernel(std::shared_ptr<Kernel> next)
{
    auto previous = std::move(installed());
    installed() = std::move(next);
    active().store(installed().get(), std::memory_order_release);
    return previous;
}

void selectPlatform(const std::string& name,
                    const std::map<std::string, std::string>& configuration)
{
    if (name == "linux")
        installKernel(nullptr);
    else if (name == "emulated")
        installKernel(makeEmulatedKernel(configuration));
    else
        throw UtilsRuntimeError("Unknown platform '" + name + "': expected 'linux' or 'emulated'.");
}

} // namespace utils::platform
