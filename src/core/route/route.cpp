#include "core/route/route.h"

#include "utils/base/exceptions.h"

#include <exception>

namespace k52app {

std::optional<uint8_t> RouteArguments::byte(size_t i) const
{
    const int value = i32(i);
    if (value < 0 || value > 0xFF)
        return std::nullopt;
    return static_cast<uint8_t>(value);
}

namespace {

RouteReply converting(Converts converts, const RouteReplyBuilder& reply,
                      const std::function<RouteReply()>& body)
{
    switch (converts) {
    case Converts::deviceErrors:
        return reply.guard(body);
    case Converts::deviceErrorsPlural:
        return reply.guard([&]() -> RouteReply {
            try {
                return body();
            } catch (const utils::IOError& e) {
                return reply.answer(reply.status() + "IOExceptions", e.what());
            }
        });
    case Converts::runtimeErrors:
        try {
            return body();
        } catch (const utils::UtilsRuntimeError& e) {
            return reply.answer(reply.status() + "RuntimeError", e.what());
        }
    case Converts::everything:
        try {
            return body();
        } catch (const std::exception& e) {
            return reply.refuse(e.what());
        }
    case Converts::nothing:
        break;
    }
    return body();
}

} // namespace

RouteHandler makeHandler(K52ResourceManager& resources, Route route)
{
    RouteReplyBuilder start(route.status, route.prefix);
    return [&resources, route = std::move(route), start = std::move(start)](const std::vector<std::string>& words) {
        if (words.size() < route.missing.count)
            return start.refuse(route.missing.note);
        HeldGroups held(resources, route.groups);
        RouteCall call(words, start, held);
        return converting(route.converts, call.reply(), [&] { return route.body(call); });
    };
}

} // namespace k52app
