#include "utils/wire/containerheader.h"

#include "utils/base/crc.h"
#include "utils/wire/framing.h"

namespace utils::wire {

ContainerCheck checkContainer(const uint8_t* bytes, size_t length)
{
    ContainerCheck check;
    if (length < 12) {
        check.problems.push_back("file too small for a container (" + std::to_string(length) + " bytes)");
        return check;
    }
    check.identifier = readWord(bytes, 0);
    check.size = readWord(bytes, 4);
    if (check.identifier != magic)
        check.problems.push_back("identifier is not " + hexWord(magic));
    // After a frame snapshot the general container's size word covers only its used part,
    // and the checksum follows that part.
    if (check.size < 12 || check.size > length) {
        check.problems.push_back("size word " + std::to_string(check.size) + " but file has " +
                                 std::to_string(length) + " bytes");
        return check;
    }
    check.storedChecksum = readWord(bytes, check.size - 4);
    check.computedChecksum = CRCSum32(bytes, check.size - 4, checksumSeed);
    if (check.storedChecksum != check.computedChecksum)
        check.problems.push_back("checksum mismatch");
    for (uint64_t offset = 8; offset + 8 <= check.size - 4;) {
        const uint32_t size = readWord(bytes, offset + 4);
        check.subContainers.push_back({offset, readWord(bytes, offset), size});
        if (size < 8 || offset + size > check.size - 4) {
            check.problems.push_back("sub-container at " + std::to_string(offset) + " overruns the container");
            break;
        }
        offset += size;
    }
    return check;
}

} // namespace utils::wire
