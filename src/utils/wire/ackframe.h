#pragma once

#include "utils/wire/framing.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

// The acknowledgement frame: one notice text on the control socket, NUL-terminated, between
// the common header and its checksum.
namespace utils::wire {

inline constexpr uint32_t ackKind = 0x052A1001;
// The frame is prepared in a buffer of this size; the text and its NUL take what the header
// and the checksum leave.
inline constexpr size_t ackFrameCapacity = 4096;
inline constexpr size_t ackMaxTextSize = ackFrameCapacity - headerSize - 4;

using AckFrameBuffer = std::array<uint8_t, ackFrameCapacity>;

// Frames `text` in `frame` and returns how many of its bytes to send. The checksum is stored
// after the text and in the buffer's last four bytes, which reach the wire only for the longest
// text. Throws UtilsError "Acknowledgement message is too big." when the text does not fit.
size_t encodeAckFrame(AckFrameBuffer& frame, std::string_view text);

// Checks a whole frame (header words, lengths, checksum, the NUL) and returns its text; throws
// std::runtime_error saying what is wrong.
std::string decodeAckFrame(std::string_view frame);

} // namespace utils::wire
