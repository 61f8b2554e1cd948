#pragma once

#include "core/resourcegroups.h"
#include "core/route/route.h"
#include "core/routereply.h"
#include "utils/router/commandrouter.h"

#include <string>
#include <vector>

namespace tinyxml2 {
class XMLDocument;
class XMLElement;
} // namespace tinyxml2

namespace k52app {

// Every route of the daemon: registration by family, the help written into the XML container
// as routes are registered, and the same help rendered on demand.
class K52CommandRouter : public utils::CommandRouter {
public:
    K52CommandRouter(K52ResourceManager& resources, Capture& capture, AckReport& ackReport);

    // Registers every family in its fixed order.
    void registerK52Commands();

    void registerRoute(const std::string& name, const std::string& description,
                       const utils::SpinnerMetaData& metadata, const RouteHandler& handler);

    // Appends one element per route (ascending name) to `parent`, created in `document`.
    void toXml(tinyxml2::XMLElement* parent, tinyxml2::XMLDocument* document) const;

private:
    K52ResourceManager& resources_;
    Capture& capture_;
    AckReport& ackReport_;
};

} // namespace k52app
