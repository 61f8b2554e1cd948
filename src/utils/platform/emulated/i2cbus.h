#pragma once

#include "utils/platform/emulated/virtualdevice.h"

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <span>
#include <string>

namespace utils::platform::emulated {

class EmulatedBoard;
class FaultInjector;

// A device answering at one address of an emulated I2C bus. The bus calls it once per message
// of a transfer, under the bus lock, so a device sees one transfer at a time.
class I2CDevice {
public:
    virtual ~I2CDevice() = default;

    // The master writes `data` (may be empty: a quick write). False NACKs the data (EIO).
    virtual bool write(std::span<const uint8_t> data) = 0;
    // The master reads `data.size()` bytes. False NACKs (EIO).
    virtual bool read(std::span<uint8_t> data) = 0;
};

// An i2c-dev node (/dev/i2c-N) on an SMBus-only adapter, with its devices. Answers I2C_SLAVE
// or I2C_SLAVE_FORCE, I2C_FUNCS and I2C_SMBUS: quick, byte, byte data, word data and I2C block
// data, each turned into the I2C messages that make it up on the wire. Plain read/write and
// I2C_RDWR fail with EOPNOTSUPP. A transfer to an address without a device fails with ENXIO,
// as the address phase gets no acknowledge.
class I2CBus final : public VirtualDevice, public std::enable_shared_from_this<I2CBus> {
public:
    // `path` is the node's path, under which `faults` holds its injected faults.
    I2CBus(std::string path, FaultInjector& faults);

    // Puts `device` at the 7-bit `address`, replacing what was there.
    void addDevice(uint8_t address, std::shared_ptr<I2CDevice> device);
    std::shared_ptr<I2CDevice> deviceAt(uint8_t address) const;

    std::unique_ptr<VirtualFile> open(int flags) override;

    const std::string& path() const { return path_; }

private:
    class Handle;
    struct Message {
        uint16_t address;
        bool read;
        std::span<uint8_t> data;
    };
    // One transfer: the messages in order with repeated starts. 0 or an errno value.
    int transfer(std::span<const Message> messages);

    std::string path_;
    FaultInjector& faults_;
    mutable std::mutex mutex_; // the bus: one transfer at a time
    std::map<uint8_t, std::shared_ptr<I2CDevice>> devices_;
};

// The bus at `path` on `board`, attached now if it was not yet. Models that live on a bus
// (the RTU, the smart sensor) add themselves with addDevice().
I2CBus& attachI2CBus(EmulatedBoard& board, const std::string& path);

// The general-purpose buses /dev/i2c-2, /dev/i2c-3 and /dev/i2c-4, each with an EEPROM at
// 0x50 and a temperature sensor at 0x48.
void attachI2CBuses(EmulatedBoard& board);

} // namespace utils::platform::emulated
