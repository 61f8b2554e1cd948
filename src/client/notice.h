#pragma once

#include "utils/wire/ackframe.h"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace k52client {

// One notice as a person reads it.
struct Notice {
    uint32_t color = 0;  // the message's colour (0xRRGGBB)
    std::string time;    // "yy-mm-dd HH:MM:SS", daemon local time
    std::string origin;  // "k52app-v1.3.1@host"
    std::string message; // the coloured message text
    std::string text;    // the whole notice text as sent

    // A command's answer "STATUS : MESSAGE" splits into status and message; notices of other
    // origins (button edges, stream progress) have no status.
    bool isAcknowledgement() const;
    std::string status() const;
    std::string reply() const;
};

// Parses the notice text; nullopt when it is not in the daemon's notice form.
std::optional<Notice> parseNotice(std::string_view text);

// Checks a whole acknowledgement frame (header words, lengths, CRC) and returns its text;
// throws std::runtime_error saying what is wrong.
inline std::string unpackFrame(std::string_view frame) { return utils::wire::decodeAckFrame(frame); }

} // namespace k52client
