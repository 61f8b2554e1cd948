#include "utils/io/ioregisterfile.h"

#include "utils/base/exceptions.h"
#include "utils/platform/kernel.h"

#include <endian.h>

#include <cerrno>
#include <thread>

namespace utils {

namespace {

// Status registers change on the module's own time; a millisecond keeps the bus quiet without
// adding noticeable latency to commands that take a few milliseconds.
constexpr auto pollInterval = std::chrono::milliseconds(1);

std::string registerText(const char* name) { return std::string("register ") + name + " of"; }

} // namespace

void IORegisterFile::readBlock(uint32_t address, void* data, size_t length,
                               const char* name) const
{
    ssize_t n = platform::kernel().pread(descriptor(), data, length, address);
    if (n < 0)
        fail("Unable to read " + registerText(name));
    if (static_cast<size_t>(n) != length) {
        errno = EIO;
        fail("Short read of " + registerText(name));
    }
}

void IORegisterFile::writeBlock(uint32_t address, const void* data, size_t length,
                                const char* name) const
{
    ssize_t n = platform::kernel().pwrite(descriptor(), data, length, address);
    if (n < 0)
        fail("Unable to write " + registerText(name));
    if (static_cast<size_t>(n) != length) {
        errno = EIO;
        fail("Short write of " + registerText(name));
    }
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
