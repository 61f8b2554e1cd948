#pragma once

#include <cstdint>

namespace utils {

// The image sensor's record in the general container (laid out in place in the file).
class IOIMXDataAdapter {
public:
    uint8_t bytes[56];
};
static_assert(sizeof(IOIMXDataAdapter) == 56);

} // namespace utils
