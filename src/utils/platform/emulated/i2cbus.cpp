#include "utils/platform/emulated/i2cbus.h"

#include "utils/platform/emulated/board.h"
#include "utils/platform/emulated/i2cregisterdevice.h"

#include <linux/i2c-dev.h>
#include <linux/i2c.h>

#include <algorithm>
#include <vector>

namespace utils::platform::emulated {

// One open /dev/i2c-N: the address chosen with I2C_SLAVE is per open file, as in i2c-dev.
class I2CBus::Handle final : public VirtualFile {
public:
    explicit Handle(std::shared_ptr<I2CBus> bus) : bus_(std::move(bus)) {}

    ssize_t read(void* buffer, size_t length) override
    {
        length = std::min(length, maxMessageLength);
        Message message{address_, true, {static_cast<uint8_t*>(buffer), length}};
        int error = bus_->transfer({&message, 1});
        return error ? fail(error) : static_cast<ssize_t>(length);
    }

    ssize_t write(const void* buffer, size_t length) override
    {
        length = std::min(length, maxMessageLength);
        // The device only reads from the buffer; the span is mutable only to share Message.
        auto* bytes = const_cast<uint8_t*>(static_cast<const uint8_t*>(buffer));
        Message message{address_, false, {bytes, length}};
        int error = bus_->transfer({&message, 1});
        return error ? fail(error) : static_cast<ssize_t>(length);
    }

    int ioctl(unsigned long request, void* argument) override
    {
        const auto value = reinterpret_cast<unsigned long>(argument);
        switch (request) {
        case I2C_SLAVE:
        case I2C_SLAVE_FORCE:
            if (value > 0x7f)
                return fail(EINVAL);
            address_ = static_cast<uint16_t>(value);
            return 0;
        case I2C_TENBIT:
            // The adapter has no 10-bit addressing.
            return value ? fail(EINVAL) : 0;
        case I2C_FUNCS: {
            if (!argument)
                return fail(EFAULT);
            *static_cast<unsigned long*>(argument) = I2C_FUNC_I2C;
            return 0;
        }
        case I2C_RETRIES:
        case I2C_TIMEOUT:
        case I2C_PEC:
            return 0;
        case I2C_RDWR:
            return readWrite(static_cast<i2c_rdwr_ioctl_data*>(argument));
        case I2C_SMBUS:
            return fail(EOPNOTSUPP);
        default:
            return fail(ENOTTY);
        }
    }

private:
    int readWrite(const i2c_rdwr_ioctl_data* request)
    {
        if (!request || (request->nmsgs && !request->msgs))
            return fail(EFAULT);
        if (request->nmsgs > maxMessages)
            return fail(EINVAL);
        std::vector<Message> messages;
        messages.reserve(request->nmsgs);
        for (uint32_t i = 0; i < request->nmsgs; ++i) {
            const i2c_msg& m = request->msgs[i];
            if (m.len > maxMessageLength || (m.flags & (I2C_M_TEN | I2C_M_RECV_LEN)))
                return fail(EINVAL);
            if (m.len && !m.buf)
                return fail(EFAULT);
            if (m.addr > 0x7f)
                return fail(EINVAL);
            messages.push_back({m.addr, (m.flags & I2C_M_RD) != 0, {m.buf, m.len}});
        }
        int error = bus_->transfer(messages);
        return error ? fail(error) : static_cast<int>(request->nmsgs);
    }

    std::shared_ptr<I2CBus> bus_;
    uint16_t address_ = 0; // no device answers before I2C_SLAVE
};

I2CBus::I2CBus(std::string path, FaultInjector& faults) : path_(std::move(path)), faults_(faults)
{
}

void I2CBus::addDevice(uint8_t address, std::shared_ptr<I2CDevice> device)
{
    std::lock_guard lock(mutex_);
    devices_[address] = std::move(device);
}

std::shared_ptr<I2CDevice> I2CBus::deviceAt(uint8_t address) const
{
    std::lock_guard lock(mutex_);
    auto it = devices_.find(address);
    return it == devices_.end() ? nullptr : it->second;
}

std::unique_ptr<VirtualFile> I2CBus::open(int /*flags*/)
{
    return std::make_unique<Handle>(shared_from_this());
}

int I2CBus::transfer(std::span<const Message> messages)
{
    if (faults_.fault(path_) == Fault::timeout)
        return ETIMEDOUT; // the adapter's own timeout: the bus is held low
    std::lock_guard lock(mutex_);
    for (const Message& message : messages) {
        auto it = devices_.find(static_cast<uint8_t>(message.address));
        if (it == devices_.end())
            return ENXIO;
        bool acknowledged = message.read ? it->second->read(message.data)
                                         : it->second->write(message.data);
        if (!acknowledged)
            return EIO;
    }
    return 0;
}

I2CBus& attachI2CBus(EmulatedBoard& board, const std::string& path)
{
    if (auto existing = std::dynamic_pointer_cast<I2CBus>(board.device(path)))
        return *existing;
    auto bus = std::make_shared<I2CBus>(path, board.faults());
    board.attach(path, bus);
    return *bus;
}

void attachI2CBuses(EmulatedBoard& board)
{
    for (int number : {2, 3, 4}) {
        I2CBus& bus = attachI2CBus(board, "/dev/i2c-" + std::to_string(number));
        bus.addDevice(0x50, makeEmulatedEeprom("K52 I2C-" + std::to_string(number)));
        bus.addDevice(0x48, makeEmulatedTemperatureSensor());
    }
}

} // namespace utils::platform::emulated
