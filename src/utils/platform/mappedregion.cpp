#include "utils/platform/mappedregion.h"

#include "utils/platform/kernel.h"

namespace utils {

void MappedRegion::reset() noexcept
{
    if (address_) {
        if (unmapper_ == Unmapper::seam)
            platform::kernel().munmap(address_, length_);
        else
            ::munmap(address_, length_);
    }
    address_ = nullptr;
    length_ = 0;
}

} // namespace utils
