#include "utils/platform/emulated/sensorformats.h"

#include <algorithm>
#include <cstdlib>

namespace utils::platform::emulated::sensor {

const PixelFormat* findFormat(uint32_t fourcc)
{
    for (const auto& format : pixelFormats)
        if (format.fourcc == fourcc)
            return &format;
    return nullptr;
}

const ControlSpec* findControl(uint32_t id)
{
    for (const auto& described : controlSpecs)
        if (described.id == id)
            return &described;
    return nullptr;
}

uint32_t roundUp(uint32_t value, uint32_t alignment)
{
    return (value + alignment - 1) / alignment * alignment;
}

v4l2_pix_format layout(const PixelFormat& format, v4l2_frmsize_discrete size)
{
    v4l2_pix_format pix{};
    pix.width = size.width;
    pix.height = size.height;
    pix.pixelformat = format.fourcc;
    pix.field = V4L2_FIELD_NONE;
    pix.bytesperline = roundUp(size.width * format.channels, rowAlignment);
    pix.sizeimage = pix.bytesperline * size.height;
    pix.colorspace = format.channels == 1 ? V4L2_COLORSPACE_RAW : V4L2_COLORSPACE_SRGB;
    return pix;
}

v4l2_pix_format adjustFormat(const v4l2_pix_format& wanted)
{
    const PixelFormat* format = findFormat(wanted.pixelformat);
    if (!format)
        format = &pixelFormats[0];
    auto distance = [&](const v4l2_frmsize_discrete& size) {
        return std::abs(int64_t(size.width) - wanted.width) +
               std::abs(int64_t(size.height) - wanted.height);
    };
    auto nearest = std::min_element(frameSizes.begin(), frameSizes.end(),
                                    [&](const auto& a, const auto& b) {
                                        return distance(a) < distance(b);
                                    });
    return layout(*format, *nearest);
}

} // namespace utils::platform::emulated::sensor
