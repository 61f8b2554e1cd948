#include "core/commandrouter.h"

#include "core/k52resourcemanager.h"
#include "core/route/families.h"
#include "utils/log/logrecord.h"
#include "utils/container/xmlblockserializer.h"

#include <tinyxml2.h>

#include <mutex>

namespace k52app {

K52CommandRouter::K52CommandRouter(K52ResourceManager& resources, Capture& capture,
                                   AckReport& ackReport)
    : resources_(resources), capture_(capture), ackReport_(ackReport)
{
}

void K52CommandRouter::registerK52Commands()
{
    struct Family {
        const char* line;
        std::vector<k52app::Route> (*routes)(const RouteServices&);
    };
    static const Family families[] = {
        {"\t* Container Routes... ", containerRoutes},
        {"\t* Static-Frame Routes... ", staticFrameRoutes},
        {"\t* V4L2 Routes", v4l2Routes},
        {"\t* IMX Routes", imxRoutes},
        {"\t* RTU Routes", rtuRoutes},
        {"\t* AF Routes", autoFocusRoutes},
        {"\t* Illumination Routes", illuminationRoutes},
        {"\t* I2C Routes", i2cRoutes},
        {"\t* I2C-RTU Routes", i2cRtuRoutes},
        {"\t* SmartSensor Routes", smartSensorRoutes},
        {"\t* ToF Routes", tofRoutes},
        {"\t* CPU-info Routes", cpuInfoRoutes},
        {"\t* GPIO Routes", gpioRoutes},
        {"\t* Middleware/Capture", captureRoutes},
    };
    const RouteServices services{resources_, capture_, ackReport_, *this};
    K52_LOG(info) << "Registring K52 Routes... ";
    for (const auto& family : families) {
        K52_LOG(info) << family.line;
        for (auto& route : family.routes(services)) {
            const std::string name = route.name;
            const std::string help = route.help;
            const utils::SpinnerMetaData metadata{route.arguments};
            registerRoute(name, help, metadata, makeHandler(resources_, std::move(route)));
        }
    }
    K52_LOG(info) << "Registered K52 Routes.";
}

void K52CommandRouter::registerRoute(const std::string& name, const std::string& description,
                                     const utils::SpinnerMetaData& metadata,
                                     const RouteHandler& handler)
{
    utils::CommandRouter::registerRoute(name, description, metadata, handler);

    std::lock_guard lock(resources_.getMutex(K52ResourceGroups::XML_CONTAINER));
    utils::XMLBlockSerializer serializer(resources_.containers().xmlBlock(), "device");
    const std::string base = "/settings/" + name;
    serializer.findOrCreateElement(base + "/help")->SetText(description.c_str());
    for (const auto& argument : metadata.arguments) {
        const std::string parameter = base + "/parameter/" + argument.name;
        serializer.findOrCreateElement(parameter + "/description")->SetText(argument.description.c_str());
        std::string type = utils::toString(argument.type);
        if (!type.empty())
            serializer.findOrCreateElement(parameter + "/type")->SetText(type.c_str());
        serializer.findOrCreateElement(parameter + "/count")->SetText(std::to_string(argument.count).c_str());
    }
    serializer.commit();
    resources_.containers().updateChecksum(K52Container::XML);
}

void K52CommandRouter::toXml(tinyxml2::XMLElement* parent, tinyxml2::XMLDocument* document) const
{
    for (const auto& [name, route] : routes()) {
        auto* element = document->NewElement(name.c_str());
        element->InsertNewChildElement("help")->SetText(route.description.c_str());
        for (const auto& argument : route.metadata.arguments) {
            auto* parameter = document->NewElement("parameter");
            parameter->InsertNewChildElement("name")->SetText(argument.name.c_str());
            parameter->InsertNewChildElement("description")->SetText(argument.description.c_str());
            auto* type = parameter->InsertNewChildElement("type");
            std::string typeText = utils::toString(argument.type);
            if (!typeText.empty())
                type->SetText(typeText.c_str());
            parameter->InsertNewChildElement("count")->SetText(std::to_string(argument.count).c_str());
            element->InsertEndChild(parameter);
        }
        parent->InsertEndChild(element);
    }
}

} // namespace k52app
