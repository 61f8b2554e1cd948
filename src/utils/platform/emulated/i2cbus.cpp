#include "utils/platform/emulated/i2cbus.h"

#include "utils/platform/emulated/board.h"
#include "utils/platform/emulated/i2cregisterdevice.h"

#include <linux/i2c-dev.h>
#include <linux/i2c.h>

#include <algorithm>
#include <array>
#include <cstring>

namespace utils::platform::emulated {

// One open /dev/i2c-N: the address chosen with I2C_SLAVE is per open file, as in i2c-dev.
class I2CBus::Handle final : public VirtualFile {
public:
    explicit Handle(std::shared_ptr<I2CBus> bus) : bus_(std::move(bus)) {}

    // Plain reads and writes are I2C messages, which an SMBus-only adapter cannot send.
    ssize_t read(void* /*buffer*/, size_t /*length*/) override { return fail(EOPNOTSUPP); }
    ssize_t write(const void* /*buffer*/, size_t /*length*/) override { return fail(EOPNOTSUPP); }

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
            *static_cast<unsigned long*>(argument) = functions;
            return 0;
        }
        case I2C_RETRIES:
        case I2C_TIMEOUT:
        case I2C_PEC:
            return 0;
        case I2C_RDWR:
            return fail(EOPNOTSUPP);
        case I2C_SMBUS:
            return smbus(static_cast<const i2c_smbus_ioctl_data*>(argument));
        default:
            return fail(ENOTTY);
        }
    }

private:
    // The SMBus transfers the adapter carries: all the single-register ones, no SMBus block
    // data or process calls.
    static constexpr unsigned long functions = I2C_FUNC_SMBUS_QUICK | I2C_FUNC_SMBUS_BYTE |
                                               I2C_FUNC_SMBUS_BYTE_DATA |
                                               I2C_FUNC_SMBUS_WORD_DATA | I2C_FUNC_SMBUS_I2C_BLOCK;

    // One SMBus transfer, checked and copied as i2c-dev does: the caller's data is read only
    // where the transfer needs it and written only when a read succeeds.
    int smbus(const i2c_smbus_ioctl_data* request)
    {
        if (!request)
            return fail(EFAULT);
        uint32_t size = request->size;
        switch (size) {
        case I2C_SMBUS_QUICK:
        case I2C_SMBUS_BYTE:
        case I2C_SMBUS_BYTE_DATA:
        case I2C_SMBUS_WORD_DATA:
        case I2C_SMBUS_PROC_CALL:
        case I2C_SMBUS_BLOCK_DATA:
        case I2C_SMBUS_I2C_BLOCK_BROKEN:
        case I2C_SMBUS_I2C_BLOCK_DATA:
        case I2C_SMBUS_BLOCK_PROC_CALL:
            break;
        default:
            return fail(EINVAL);
        }
        const uint8_t direction = request->read_write;
        if (direction != I2C_SMBUS_READ && direction != I2C_SMBUS_WRITE)
            return fail(EINVAL);
        const bool reading = direction == I2C_SMBUS_READ;
        const bool usesData = size != I2C_SMBUS_QUICK && !(size == I2C_SMBUS_BYTE && !reading);
        if (usesData && !request->data)
            return fail(EINVAL);

        const size_t dataSize = size == I2C_SMBUS_BYTE || size == I2C_SMBUS_BYTE_DATA ? 1
                                : size == I2C_SMBUS_WORD_DATA ? 2
                                                              : sizeof(i2c_smbus_data);
        i2c_smbus_data data{};
        if (usesData && (!reading || size == I2C_SMBUS_I2C_BLOCK_DATA))
            std::memcpy(&data, request->data, dataSize);
        if (size == I2C_SMBUS_I2C_BLOCK_BROKEN) {
            size = I2C_SMBUS_I2C_BLOCK_DATA;
            if (reading)
                data.block[0] = I2C_SMBUS_BLOCK_MAX;
        }
        if (int error = transfer(reading, request->command, size, data))
            return fail(error);
        if (usesData && reading)
            std::memcpy(request->data, &data, dataSize);
        return 0;
    }

    // The SMBus transfer as the I2C messages that make it up on the wire: the command byte,
    // then the payload in the same message (write) or after a repeated start (read). Word
    // data travels low byte first.
    int transfer(bool reading, uint8_t command, uint32_t size, i2c_smbus_data& data)
    {
        std::array<uint8_t, 1 + I2C_SMBUS_BLOCK_MAX> bytes{command};
        size_t length = 0;
        switch (size) {
        case I2C_SMBUS_QUICK: {
            Message quick{address_, reading, {}};
            return bus_->transfer({&quick, 1});
        }
        case I2C_SMBUS_BYTE: {
            Message single{address_, reading, {reading ? &data.byte : bytes.data(), 1}};
            return bus_->transfer({&single, 1});
        }
        case I2C_SMBUS_BYTE_DATA:
            length = 1;
            bytes[1] = data.byte;
            break;
        case I2C_SMBUS_WORD_DATA:
            length = 2;
            bytes[1] = static_cast<uint8_t>(data.word);
            bytes[2] = static_cast<uint8_t>(data.word >> 8);
            break;
        case I2C_SMBUS_I2C_BLOCK_DATA:
            length = data.block[0];
            if (length > I2C_SMBUS_BLOCK_MAX)
                return EINVAL;
            std::copy_n(data.block + 1, length, bytes.begin() + 1);
            break;
        default:
            return EOPNOTSUPP; // not among the adapter's functions
        }
        if (!reading) {
            Message write{address_, false, {bytes.data(), 1 + length}};
            return bus_->transfer({&write, 1});
        }
        Message messages[] = {{address_, false, {bytes.data(), 1}},
                              {address_, true, {bytes.data() + 1, length}}};
        if (int error = bus_->transfer(messages))
            return error;
        if (size == I2C_SMBUS_BYTE_DATA)
            data.byte = bytes[1];
        else if (size == I2C_SMBUS_WORD_DATA)
            data.word = static_cast<uint16_t>(bytes[1] | bytes[2] << 8);
        else
            std::copy_n(bytes.begin() + 1, length, data.block + 1);
        return 0;
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
