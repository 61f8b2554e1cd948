#pragma once

#include "utils/router/spinner.h"

#include <cstdint>
#include <functional>
#include <map>
#include <string>

namespace k52app {

// (status word, message): what every route handler answers.
using RouteReply = utils::SpinnerReply;
using RouteHandler = utils::SpinnerHandler;

// V4L2 fourcc -> the pixel-format number of frame headers and capture routes.
inline const std::map<uint32_t, uint32_t> PixelFomatMap = {
    {0x59455247, 1}, // GREY
    {0x32525942, 2}, // BYR2
    {0x59565955, 3}, // UYVY
    {0x56595559, 4}, // YUYV
    {0x34343459, 5}, // Y444
    {0x3231564E, 6}, // NV12
    {0x33424752, 7}, // RGB3
    {0x34424752, 8}, // RGB4
};

// The reply convention shared by every route: a handler starts with a status word (usually
// "Error") and a message prefix; it answers ok() with its result or refuse() with a reason;
// a utils::IOError or utils::UtilsRuntimeError from the device appends "IOException" or
// "RuntimeError" to the starting status and the exception's text to the message built so far.
// Any other exception leaves the handler for the worker to report.
//
// A handler shares its builder between calls, so one that notes text takes a copy per call.
class RouteReplyBuilder {
public:
    RouteReplyBuilder(std::string status, std::string prefix)
        : status_(std::move(status)), message_(std::move(prefix))
    {
    }

    // Appends text to the message now, before the device call: whatever the call throws, the
    // reply keeps it ahead of the exception's text.
    void note(const std::string& text) { message_ += text; }

    RouteReply ok(const std::string& text) const { return {"OK", message_ + text}; }
    RouteReply refuse(const std::string& reason) const { return {status_, message_ + reason}; }
    // An answer with any status word, for families with their own words.
    RouteReply answer(const std::string& status, const std::string& text) const
    {
        return {status, message_ + text};
    }

    const std::string& status() const { return status_; }

    // Runs `body` under the exception mapping above.
    RouteReply guard(const std::function<RouteReply()>& body) const;

private:
    std::string status_;
    std::string message_;
};

} // namespace k52app
