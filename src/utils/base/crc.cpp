#include "utils/base/crc.h"

#include <isa-l/crc.h>

#include <limits>

namespace utils {

uint32_t CRCSum32(const void* data, size_t length, uint32_t seed)
{
    // ISA-L's gzip CRC inverts its argument on entry, so the register seed is passed inverted.
    auto crc = ~seed;
    auto bytes = static_cast<const unsigned char*>(data);
    constexpr size_t chunk = std::numeric_limits<uint32_t>::max() & ~size_t{0xFFFF};
    while (length > chunk) {
        crc = crc32_gzip_refl(crc, bytes, chunk);
        bytes += chunk;
        length -= chunk;
    }
    return crc32_gzip_refl(crc, bytes, length);
}

} // namespace utils
