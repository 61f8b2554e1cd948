#pragma once

#include "utils/platform/emulated/virtualdevice.h"

#include <functional>
#include <mutex>
#include <string>

namespace utils::platform::emulated {

// A small text file such as /proc/cpuinfo or a sysfs value: reads return its content, writes
// replace it and are reported to an optional observer (how sysfs writes reach a device model).
class TextFile final : public VirtualDevice {
public:
    using Observer = std::function<void(const std::string&)>;

    explicit TextFile(std::string content, Observer onWrite = {});

    std::unique_ptr<VirtualFile> open(int flags) override;

    std::string content() const;
    void setContent(std::string content);

private:
    class Handle;
    mutable std::mutex mutex_;
    std::string content_;
    Observer onWrite_;
};

} // namespace utils::platform::emulated
