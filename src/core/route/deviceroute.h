#pragma once

#include "core/k52resourcemanager.h"
#include "core/routereply.h"

#include <functional>
#include <mutex>
#include <string>
#include <vector>

namespace k52app {

// The text a device route answers after its prefix, from the device and the arguments.
template <typename Device>
using DeviceRouteBody = std::function<std::string(Device&, const std::vector<std::string>&)>;

// The shape most routes share: hold the device's group for the whole run, answer "OK" with
// the prefix and the body's text, and map device errors by the reply convention.
template <typename Device>
RouteHandler deviceRoute(K52ResourceManager& resources, K52ResourceGroups group,
                         Device& (K52ResourceManager::*device)(), RouteReplyBuilder reply,
                         DeviceRouteBody<Device> body)
{
    return [&resources, group, device, reply = std::move(reply),
            body = std::move(body)](const std::vector<std::string>& arguments) {
        return reply.guard([&] {
            std::lock_guard lock(resources.getMutex(group));
            return reply.ok(body((resources.*device)(), arguments));
        });
    };
}

} // namespace k52app
