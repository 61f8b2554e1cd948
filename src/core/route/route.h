#pragma once

#include "core/k52resourcemanager.h"
#include "core/resourcegroups.h"
#include "core/routereply.h"
#include "utils/router/spinnermetadata.h"

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace k52app {

class AckReport;
class Capture;
class K52CommandRouter;

// What the route families work with.
struct RouteServices {
    K52ResourceManager& resources;
    Capture& capture;
    AckReport& ackReport;
    const K52CommandRouter& router;
};

// The words after the route name, read by position. A missing position throws
// std::out_of_range, which no route converts: the worker reports it. Each reader keeps the
// standard conversion its routes have always used, since replies echo what it returns.
class RouteArguments {
public:
    explicit RouteArguments(const std::vector<std::string>& words) : words_(words) {}

    size_t size() const { return words_.size(); }
    const std::string& text(size_t i) const { return words_.at(i); }
    int32_t i32(size_t i) const { return std::stoi(text(i)); }
    // Clients send signed 32-bit numbers that the device takes as the same 32 bits unsigned,
    // so "-1" reads 4294967295 and anything beyond the signed range is refused.
    uint32_t u32(size_t i) const { return static_cast<uint32_t>(i32(i)); }
    // long and unsigned long, not their long long twins: a number beyond the range is
    // answered with the parser's own name ("stol", "stoul"), which clients see.
    int64_t i64(size_t i) const { return std::stol(text(i)); }
    // The full unsigned range; a leading minus wraps, as the standard conversion does.
    uint64_t u64(size_t i) const { return std::stoul(text(i)); }
    float f32(size_t i) const { return std::stof(text(i)); }
    // A register address, offset or value: nullopt when the number does not fit one byte.
    std::optional<uint8_t> byte(size_t i) const;

private:
    const std::vector<std::string>& words_;
};

// One call of a route: its arguments, its reply so far, and the devices of its groups.
class RouteCall : public RouteArguments {
public:
    RouteCall(const std::vector<std::string>& words, RouteReplyBuilder reply, HeldGroups& held)
        : RouteArguments(words), reply_(std::move(reply)), held_(held)
    {
    }

    template <typename Device>
    Device& device()
    {
        return held_.device<Device>();
    }

    // Text that stays in the message whatever the device call then throws.
    void note(const std::string& text) { reply_.note(text); }
    RouteReply ok(const std::string& text) const { return reply_.ok(text); }
    RouteReply refuse(const std::string& reason) const { return reply_.refuse(reason); }
    RouteReply answer(const std::string& status, const std::string& text) const
    {
        return reply_.answer(status, text);
    }
    const RouteReplyBuilder& reply() const { return reply_; }

private:
    RouteReplyBuilder reply_;
    HeldGroups& held_;
};

// Which exceptions of a route's body become its reply; the rest go to the worker.
enum class Converts {
    // IOError -> status + "IOException", UtilsRuntimeError -> status + "RuntimeError".
    deviceErrors,
    // As deviceErrors, but IOError -> status + "IOExceptions": clients match on the trailing s.
    deviceErrorsPlural,
    runtimeErrors,
    // Every std::exception -> the starting status and its text.
    everything,
    nothing,
};

// Fewer words than `count` are answered with the starting status, `note` after the prefix,
// before any lock is taken or device touched.
struct MissingArguments {
    size_t count = 0;
    std::string note;
};

// One route: how it is described, what it holds, how it answers.
struct Route {
    std::string name;
    std::string help;
    std::vector<utils::SpinnerArgumentMetaData> arguments;
    // Locked in this order around the body.
    std::vector<K52ResourceGroups> groups;
    std::string prefix;
    std::string status = "Error";
    Converts converts = Converts::deviceErrors;
    MissingArguments missing;
    std::function<RouteReply(RouteCall&)> body;
};

// The handler that applies the reply convention to `route`.
RouteHandler makeHandler(K52ResourceManager& resources, Route route);

} // namespace k52app
