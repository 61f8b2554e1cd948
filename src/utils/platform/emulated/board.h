#pragma once

#include "utils/platform/emulated/faults.h"
#include "utils/platform/emulated/sensorbus.h"
#include "utils/platform/emulated/virtualdevice.h"
#include "utils/platform/kernel.h"

#include <condition_variable>
#include <map>
#include <memory>
#include <mutex>
#include <string>

namespace utils::platform::emulated {

// The emulated board: a table from device path to virtual device, answering the kernel calls
// for them. Descriptors start far above any real one so that a mix-up shows at once.
class EmulatedBoard final : public Kernel {
public:
    static constexpr int firstDescriptor = 1 << 20;

    EmulatedBoard();
    ~EmulatedBoard() override;

    // Adds (or replaces) the device at `path`.
    void attach(const std::string& path, std::shared_ptr<VirtualDevice> device);
    std::shared_ptr<VirtualDevice> device(const std::string& path) const;

    // Device models call this when their readiness changes, to wake pollers.
    void notify();

    // Faults injected per device path. open() and the I/O calls honour openFails and ioError;
    // device models consult timeout and shortFrame themselves.
    FaultInjector& faults() { return faults_; }
    // Shared by the RTU, sensor-control and capture models.
    SensorBus& sensorBus() { return sensorBus_; }

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

private:
    struct OpenFile {
        std::string path;
        std::shared_ptr<VirtualFile> file;
    };
    // The open file behind `fd`, or null with errno set (EBADF, or EIO for an injected fault).
    std::shared_ptr<VirtualFile> file(int fd) const;

    mutable std::mutex mutex_;
    std::condition_variable changed_;
    unsigned long generation_ = 0;
    // Declared before the devices and open files so that it outlives them: device models keep
    // using it (producer threads) until they are destroyed.
    FaultInjector faults_;
    SensorBus sensorBus_;
    std::map<std::string, std::shared_ptr<VirtualDevice>> devices_;
    std::map<int, OpenFile> files_;
    std::map<void*, std::shared_ptr<VirtualFile>> mappings_;
    int nextDescriptor_ = firstDescriptor;
};

} // namespace utils::platform::emulated
