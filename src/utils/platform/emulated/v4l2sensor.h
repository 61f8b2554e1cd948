#pragma once

#include "utils/platform/emulated/board.h"

namespace utils::platform::emulated {

inline constexpr const char* v4l2SensorPath = "/dev/video0";

// Attaches the image sensor's V4L2 capture node at /dev/video0: GREY and RGB3 at three discrete
// sizes with 64-byte row alignment, a few controls, crop, and memory-mapped streaming of a moving
// test pattern paced by the board's sensor bus. docs/hardware/v4l2.md describes what it offers.
void attachV4L2Sensor(EmulatedBoard& board);

} // namespace utils::platform::emulated
