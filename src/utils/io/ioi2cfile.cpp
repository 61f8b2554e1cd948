#include "utils/io/ioi2cfile.h"

#include "utils/base/exceptions.h"

#include <linux/i2c-dev.h>
#include <linux/i2c.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

namespace utils {

namespace {

static_assert(IOI2CFile::maxBlockLength == I2C_SMBUS_BLOCK_MAX);

// The I2C_FUNCS bit an adapter sets when it carries the transfer, and its name for people.
struct Functionality {
    unsigned long bit;
    const char* name;
};

Functionality functionality(uint8_t direction, uint32_t size)
{
    const bool read = direction == I2C_SMBUS_READ;
    switch (size) {
    case I2C_SMBUS_BYTE_DATA:
        return read ? Functionality{I2C_FUNC_SMBUS_READ_BYTE_DATA, "byte-data reads"}
                    : Functionality{I2C_FUNC_SMBUS_WRITE_BYTE_DATA, "byte-data writes"};
    case I2C_SMBUS_WORD_DATA:
        return read ? Functionality{I2C_FUNC_SMBUS_READ_WORD_DATA, "word-data reads"}
                    : Functionality{I2C_FUNC_SMBUS_WRITE_WORD_DATA, "word-data writes"};
    default:
        return read ? Functionality{I2C_FUNC_SMBUS_READ_I2C_BLOCK, "I2C-block reads"}
                    : Functionality{I2C_FUNC_SMBUS_WRITE_I2C_BLOCK, "I2C-block writes"};
    }
}

} // namespace

IOI2CFile::IOI2CFile(std::string device, uint8_t address, int flags)
    : IOFile(std::move(device), flags), address_(address)
{
    open();
}

int IOI2CFile::transfer(uint8_t direction, uint8_t command, uint32_t size,
                        i2c_smbus_data& data) const
{
    // The address belongs to the open file; selecting it on every transfer keeps a reopened
    // descriptor right. I2C_SLAVE (not _FORCE) leaves a device that a kernel driver owns alone.
    if (!tryControl(I2C_SLAVE, reinterpret_cast<void*>(uintptr_t{address_})))
        return errno;
    i2c_smbus_ioctl_data request{direction, command, size, &data};
    if (!tryControl(I2C_SMBUS, &request))
        return errno;
    return 0;
}

void IOI2CFile::transferFailed(int error, uint8_t direction, uint32_t size) const
{
    char where[64];
    std::snprintf(where, sizeof where, "I2C transfer to address 0x%02x on ", address_);
    std::string reason = std::strerror(error);
    // An adapter refuses what it cannot do with EOPNOTSUPP; its function bits say whether
    // that was the transfer type rather than the device.
    unsigned long functions = 0;
    const Functionality needed = functionality(direction, size);
    if (error == EOPNOTSUPP &&
        tryControl(I2C_FUNCS, &functions) &&
        !(functions & needed.bit))
        reason = std::string("the bus has no SMBus ") + needed.name;
    throw IOError(where + path() + " failed: " + reason);
}

int IOI2CFile::readRegister(uint8_t reg, uint8_t& value) const
{
    i2c_smbus_data data{};
    if (int error = transfer(I2C_SMBUS_READ, reg, I2C_SMBUS_BYTE_DATA, data))
        return -error;
    value = data.byte;
    return 0;
}

int IOI2CFile::writeRegister(uint8_t reg, uint8_t value) const
{
    i2c_smbus_data data{};
    data.byte = value;
    return -transfer(I2C_SMBUS_WRITE, reg, I2C_SMBUS_BYTE_DATA, data);
}

uint16_t IOI2CFile::readWord(uint8_t reg) const
{
    i2c_smbus_data data{};
    if (int error = transfer(I2C_SMBUS_READ, reg, I2C_SMBUS_WORD_DATA, data))
        transferFailed(error, I2C_SMBUS_READ, I2C_SMBUS_WORD_DATA);
    return data.word;
}

void IOI2CFile::writeWord(uint8_t reg, uint16_t value) const
{
    i2c_smbus_data data{};
    data.word = value;
    if (int error = transfer(I2C_SMBUS_WRITE, reg, I2C_SMBUS_WORD_DATA, data))
        transferFailed(error, I2C_SMBUS_WRITE, I2C_SMBUS_WORD_DATA);
}

void IOI2CFile::readBlock(uint8_t reg, std::span<uint8_t> bytes) const
{
    i2c_smbus_data data{};
    // block[0] is the length asked for; a longer run would not fit the transfer.
    data.block[0] = static_cast<uint8_t>(bytes.size());
    int error = bytes.size() > maxBlockLength
                    ? EINVAL
                    : transfer(I2C_SMBUS_READ, reg, I2C_SMBUS_I2C_BLOCK_DATA, data);
    if (!error && data.block[0] != bytes.size())
        error = EIO; // the adapter cut the run short
    if (error)
        transferFailed(error, I2C_SMBUS_READ, I2C_SMBUS_I2C_BLOCK_DATA);
    std::memcpy(bytes.data(), data.block + 1, bytes.size());
}

void IOI2CFile::writeBlock(uint8_t reg, std::span<const uint8_t> bytes) const
{
    i2c_smbus_data data{};
    int error = EINVAL;
    if (bytes.size() <= maxBlockLength) {
        data.block[0] = static_cast<uint8_t>(bytes.size());
        std::memcpy(data.block + 1, bytes.data(), bytes.size());
        error = transfer(I2C_SMBUS_WRITE, reg, I2C_SMBUS_I2C_BLOCK_DATA, data);
    }
    if (error)
        transferFailed(error, I2C_SMBUS_WRITE, I2C_SMBUS_I2C_BLOCK_DATA);
}

} // namespace utils
