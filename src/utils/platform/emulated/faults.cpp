#include "utils/platform/emulated/faults.h"

#include "utils/base/exceptions.h"

namespace utils::platform::emulated {

void FaultInjector::inject(const std::string& path, Fault fault)
{
    std::lock_guard lock(mutex_);
    faults_[path] = fault;
}

void FaultInjector::clear(const std::string& path)
{
    std::lock_guard lock(mutex_);
    faults_.erase(path);
}

Fault FaultInjector::fault(const std::string& path) const
{
    std::lock_guard lock(mutex_);
    auto it = faults_.find(path);
    return it == faults_.end() ? Fault::none : it->second;
}

Fault FaultInjector::parse(const std::string& name)
{
    if (name == "open")
        return Fault::openFails;
    if (name == "io")
        return Fault::ioError;
    if (name == "timeout")
        return Fault::timeout;
    if (name == "short-frame")
        return Fault::shortFrame;
    throw UtilsRuntimeError("Unknown emulated fault '" + name +
                            "': expected open, io, timeout or short-frame.");
}

} // namespace utils::platform::emulated
