#include "utils/io/ioregisterfile.h"

#include "utils/base/exceptions.h"
#include "utils/regmap/registeraccess.h"

#include <endian.h>

#include <cerrno>
#include <cstring>
#include <thread>

namespace utils {

namespace {

// Status registers change on the module's own time; a millisecond keeps the bus quiet without
// adding noticeable latency to commands that take a few milliseconds.
constexpr auto pollInterval = std::chrono::milliseconds(1);

// The record is an ABI shared with C clients and device servers: its layout must not drift.
static_assert(sizeof(k52_register_access) == 8 + K52_REGISTER_DATA_MAX);
static_assert(K52_REGISTER_READ == 0xC108B900u && K52_REGISTER_WRITE == 0x4108B901u);

std::string registerText(const char* name) { return std::string("register ") + name + " of"; }

} // namespace

void IORegisterFile::readBlock(uint32_t address, void* data, size_t length,
                               const char* name) const
{
    k52_register_access request{};
    if (length > sizeof request.data) {
        errno = EINVAL;
        fail("Unable to read " + registerText(name));
    }
    request.address = address;
    request.length = static_cast<uint32_t>(length);
    if (!tryControl(K52_REGISTER_READ, &request))
        fail("Unable to read " + registerText(name));
    std::memcpy(data, request.data, length);
}

void IORegisterFile::writeBlock(uint32_t address, const void* data, size_t length,
                                const char* name) const
{
    k52_register_access request{};
    if (length > sizeof request.data) {
        errno = EINVAL;
        fail("Unable to write " + registerText(name));
    }
    request.address = address;
    request.length = static_cast<uint32_t>(length);
    std::memcpy(request.data, data, length);
    if (!tryControl(K52_REGISTER_WRITE, &request))
        fail("Unable to write " + registerText(name));
}

uint32_t IORegisterFile::readRegister(uint32_t address, const char* name) const
{
    uint32_t wire = 0;
    readBlock(address, &wire, sizeof wire, name);
    return le32toh(wire);
}

void IORegisterFile::writeRegister(uint32_t address, uint32_t value, const char* name) const
{
    uint32_t wire = htole32(value);
    writeBlock(address, &wire, sizeof wire, name);
}

uint32_t IORegisterFile::waitForBits(uint32_t address, const char* name, uint32_t mask,
                                     uint32_t expected, std::chrono::milliseconds timeout,
                                     const char* what) const
{
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    for (;;) {
        uint32_t value = readRegister(address, name);
        if ((value & mask) == expected)
            return value;
        if (std::chrono::steady_clock::now() >= deadline) {
            errno = ETIMEDOUT;
            fail(std::string("Timed out after ") + std::to_string(timeout.count()) +
                 " ms waiting for " + what + " on");
        }
        std::this_thread::sleep_for(pollInterval);
    }
}

} // namespace utils
