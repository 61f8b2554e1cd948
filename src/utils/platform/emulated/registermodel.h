#pragma once

#include "utils/platform/emulated/faults.h"
#include "utils/platform/emulated/virtualdevice.h"

#include <cstdint>
#include <memory>
#include <mutex>
#include <span>
#include <string>

namespace utils::platform::emulated {

// The device side of a register-file node (the protocol of utils::IORegisterFile, one
// K52_REGISTER_READ/WRITE ioctl per access): addresses below tableBase are 32-bit little-endian
// registers, reached with 4-byte requests at 4-aligned addresses; from tableBase on, a model
// maps byte tables (calibration, results).
// Calls arrive under the model's mutex, so a model's state needs no other lock.
class RegisterModel : public VirtualDevice, public std::enable_shared_from_this<RegisterModel> {
public:
    static constexpr uint32_t tableBase = 0x100;

    RegisterModel(std::string path, FaultInjector& faults);

    std::unique_ptr<VirtualFile> open(int flags) override;
    const std::string& path() const { return path_; }

protected:
    // Each returns 0 or the errno value the system call reports.
    virtual int readRegister(uint32_t address, uint32_t& value) = 0;
    virtual int writeRegister(uint32_t address, uint32_t value) = 0;
    virtual int readTable(uint32_t /*address*/, std::span<uint8_t> /*data*/) { return EINVAL; }
    virtual int writeTable(uint32_t /*address*/, std::span<const uint8_t> /*data*/)
    {
        return EINVAL;
    }

    // An injected timeout: the module's operations never complete.
    bool timingOut() const { return faults_.fault(path_) == Fault::timeout; }

    mutable std::mutex mutex_;

private:
    class Handle;
    std::string path_;
    FaultInjector& faults_;
};

} // namespace utils::platform::emulated
