#pragma once

#include <cstdint>

namespace utils {

// The RTU's record in the general container (laid out in place in the file).
class IORTUDataAdapter {
public:
    uint8_t bytes[2136];
};
static_assert(sizeof(IORTUDataAdapter) == 2136);

} // namespace utils
