#include "core/commandrouter.h"

#include "core/k52resourcemanager.h"
#include "k52app/logrecord.h"
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
        void (K52CommandRouter::*registerFamily)();
    };
    static const Family families[] = {
        {"\t* Container Routes... ", &K52CommandRouter::registerContainerCommands},
        {"\t* Static-Frame Routes... ", &K52CommandRouter::registerStaticFrameCommands},
        {"\t* V4L2 Routes", &K52CommandRouter::registerV4L2Commands},
        {"\t* IMX Routes", &K52CommandRouter::registerIMXCommands},
        {"\t* RTU Routes", &K52CommandRouter::registerRTUCommands},
        {"\t* AF Routes", &K52CommandRouter::registerAutoFocusCommands},
        {"\t* Illumination Routes", &K52CommandRouter::registerIlluminationCommands},
        {"\t* I2C Routes", &K52CommandRouter::registerI2CCommands},
        {"\t* I2C-RTU Routes", &K52CommandRouter::registerI2CRTUCommands},
        {"\t* SmartSensor Routes", &K52CommandRouter::registerSmartSensorCommands},
        {"\t* ToF Routes", &K52CommandRouter::registerToFCommands},
        {"\t* CPU-info Routes", &K52CommandRouter::registerCpuInfoCommands},
        {"\t* GPIO Routes", &K52CommandRouter::registerGPIOCommands},
        {"\t* Middleware/Capture", &K52CommandRouter::registerCaptureCommands},
    };
    K52_LOG(info) << "Registring K52 Routes... ";
    for (const auto& family : families) {
        K52_LOG(info) << family.line;
        (this->*family.registerFamily)();
    }
    K52_LOG(info) << "Registered K52 Routes.";
}

void K52CommandRouter::registerRoutes(const std::vector<RouteEntry>& family)
{
    for (const auto& route : family)
        registerRoute(route.name, route.description, route.metadata, route.handler);
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
