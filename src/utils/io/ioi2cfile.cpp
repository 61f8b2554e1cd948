#include "utils/io/ioi2cfile.h"

#include "utils/base/exceptions.h"
#include "utils/platform/kernel.h"

#include <linux/i2c-dev.h>
#include <linux/i2c.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

namespace utils {

IOI2CFile::IOI2CFile(std::string device, uint8_t address, int flags)
    : IOFile(std::move(device), flags), address_(address)
{
    open();
}

int IOI2CFile::transfer(std::span<const uint8_t> data, std::span<uint8_t> reply) const
{
    constexpr size_t maxMessageLength = 8192; // i2c-dev refuses longer messages
    if (address_ > 0x7f || data.size() > maxMessageLength || reply.size() > maxMessageLength)
        return EINVAL;
    i2c_msg messages[2];
    uint32_t count = 0;
    if (!data.empty() || reply.empty()) {
        // i2c_msg carries a mutable pointer, but a write message is only read from.
        messages[count++] = {address_, 0, static_cast<uint16_t>(data.size()),
                             const_cast<uint8_t*>(data.data())};
    }
    if (!reply.empty())
        messages[count++] = {address_, I2C_M_RD, static_cast<uint16_t>(reply.size()), reply.data()};
    i2c_rdwr_ioctl_data request{messages, count};
    if (platform::kernel().ioctl(descriptor(), I2C_RDWR, &request) < 0)
        return errno;
    return 0;
}

int IOI2CFile::readRegister(uint8_t reg, uint8_t& value) const
{
    uint8_t offset[] = {reg};
    return -transfer(offset, {&value, 1});
}

int IOI2CFile::writeRegister(uint8_t reg, uint8_t value) const
{
    uint8_t bytes[] = {reg, value};
    return -transfer(bytes, {});
}

void IOI2CFile::transferFailed(int error) const
{
    char where[64];
    std::snprintf(where, sizeof where, "I2C transfer to address 0x%02x on ", address_);
    throw IOError(where + path() + " failed: " + std::strerror(error));
}

void IOI2CFile::send(std::span<const uint8_t> data) const
{
    if (int error = transfer(data, {}))
        transferFailed(error);
}

void IOI2CFile::receive(std::span<uint8_t> data) const
{
    if (data.empty())
        return;
    if (int error = transfer({}, data))
        transferFailed(error);
}

void IOI2CFile::sendThenReceive(std::span<const uint8_t> data, std::span<uint8_t> reply) const
{
    if (int error = transfer(data, reply))
        transferFailed(error);
}

} // namespace utils
