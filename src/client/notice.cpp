#include "client/notice.h"

#include <stdexcept>

namespace k52client {

namespace {

constexpr uint32_t colorBlue = 0x3B65E3;

} // namespace

std::optional<Notice> parseNotice(std::string_view text)
{
    // <font color=#121212>[TIME] ORIGIN <\font><font color=#RRGGBB>MESSAGE<\font>
    constexpr std::string_view heading = "<font color=#121212>[";
    constexpr std::string_view close = "<\\font>";
    constexpr std::string_view open = "<font color=#";
    if (text.substr(0, heading.size()) != heading)
        return std::nullopt;
    size_t timeEnd = text.find("] ", heading.size());
    size_t headEnd = text.find(close, heading.size());
    if (timeEnd == std::string_view::npos || headEnd == std::string_view::npos || headEnd < timeEnd)
        return std::nullopt;
    Notice notice;
    notice.text = std::string(text);
    notice.time = std::string(text.substr(heading.size(), timeEnd - heading.size()));
    std::string_view origin = text.substr(timeEnd + 2, headEnd - timeEnd - 2);
    if (!origin.empty() && origin.back() == ' ')
        origin.remove_suffix(1);
    notice.origin = std::string(origin);
    size_t colorStart = headEnd + close.size();
    if (text.substr(colorStart, open.size()) != open)
        return std::nullopt;
    size_t colorEnd = text.find('>', colorStart + open.size());
    if (colorEnd == std::string_view::npos || text.size() < colorEnd + 1 + close.size() ||
        text.substr(text.size() - close.size()) != close)
        return std::nullopt;
    std::string color(text.substr(colorStart + open.size(), colorEnd - colorStart - open.size()));
    try {
        notice.color = static_cast<uint32_t>(std::stoul(color, nullptr, 16));
    } catch (const std::exception&) {
        return std::nullopt;
    }
    notice.message = std::string(text.substr(colorEnd + 1, text.size() - close.size() - colorEnd - 1));
    return notice;
}

bool Notice::isAcknowledgement() const
{
    // Stream progress and button releases come in blue; button presses name their origin.
    if (color == colorBlue)
        return false;
    if (message.rfind("Button : ", 0) == 0)
        return false;
    return message.find(" : ") != std::string::npos;
}

std::string Notice::status() const
{
    size_t split = message.find(" : ");
    return split == std::string::npos ? std::string() : message.substr(0, split);
}

std::string Notice::reply() const
{
    size_t split = message.find(" : ");
    return split == std::string::npos ? message : message.substr(split + 3);
}

} // namespace k52client
