#pragma once

#include <cstdint>

namespace k52app {

// One mutex per group; a route runs under the mutex of the group its device belongs to.
enum class K52ResourceGroups : uint32_t {
    XML_CONTAINER = 0,
    GENERAL_CONTAINER = 1,
    DEVICE_STATUS = 2,
    STATIC_FRAMES = 3,
    CTRL_SOCKET = 4,
    STREAM_SOCKET = 5,
    V4L2 = 6,
    IMX = 7,
    RTU = 8,
    SMART_SENSOR = 9,
    SPARE_10 = 10,
    AUTOFOCUS = 11,
    ILLUMINATION = 12,
    SPARE_13 = 13,
};

} // namespace k52app
