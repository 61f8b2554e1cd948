#include "core/routereply.h"

#include "utils/base/exceptions.h"

namespace k52app {

RouteReply RouteReplyBuilder::guard(const std::function<RouteReply()>& body) const
{
    try {
        return body();
    } catch (const utils::IOError& e) {
        return {status_ + "IOException", message_ + e.what()};
    } catch (const utils::UtilsRuntimeError& e) {
        return {status_ + "RuntimeError", message_ + e.what()};
    }
}

} // namespace k52app
