#include "core/commandrouter.h"
#include "core/route/families.h"
#include "core/k52resourcemanager.h"
#include "utils/wire/descriptormessage.h"
#include "utils/log/logrecord.h"
#include "utils/base/exceptions.h"
#include "utils/container/xmlblockserializer.h"

#include <tinyxml2.h>

#include <cstring>
#include <iostream>
#include <string>
#include <vector>

namespace k52app {

namespace {

const std::string statusPath = "/settings/status";

// The XML descriptor message is the XML container as it stands, sealed by the wire module;
// all of it is sent whatever the used length, so a reader always reads one fixed-size block.
std::vector<unsigned char> descriptorMessage(const utils::XMLContainer& container, uint32_t& checksum)
{
    static_assert(sizeof container == utils::wire::descriptorSize);
    std::vector<unsigned char> message(sizeof container);
    std::memcpy(message.data(), &container, sizeof container);
    checksum = utils::wire::sealDescriptorMessage(message.data());
    return message;
}

// Only an existing status element is cleared: when the walk stops at an ancestor, there is no
// old status, and the ancestor (the route help, the factory data) must stay.
void clearStatus(tinyxml2::XMLElement* found)
{
    auto* parent = found->Parent() ? found->Parent()->ToElement() : nullptr;
    if (std::strcmp(found->Name(), "status") == 0 && parent && std::strcmp(parent->Name(), "settings") == 0)
        parent->DeleteChild(found);
}

// The status data changed the general container, whose checksum (the frame's, when a frame is
// stored) covers it: store the new one after the used part and at the end. The caller holds
// the device records' group, under which every frame writer computes and sends its checksum;
// the general container's group would wait for a whole stream.
void refreshGeneralChecksum(ContainerManager& containers)
{
    containers.generalContainer().checksum = containers.updateChecksum(K52Container::GENERAL);
}

// Reloads the sensor's and the trigger unit's records from the devices and writes them under
// the status element.
void writeDeviceRecords(K52ResourceManager& resources, utils::XMLBlockSerializer& serializer)
{
    ContainerManager& containers = resources.containers();
    const auto statusGroup = resources.hold({K52ResourceGroups::DEVICE_STATUS});
    // Also when the trigger unit's load fails after the sensor's record changed.
    const struct ChecksumRefresh {
        ContainerManager& containers;
        ~ChecksumRefresh() { refreshGeneralChecksum(containers); }
    } checksumRefresh{containers};
    auto& imxData = containers.imxSubContainer().payload;
    imxData.load(resources.lock<utils::IOIMX>().device());
    auto* imx = serializer.findOrCreateElement(statusPath + "/imx");
    std::cout << "eIMX : " << imx->Name() << std::endl;
    imxData.toXml(imx);

    auto& rtuData = containers.rtuSubContainer().payload;
    rtuData.load(resources.lock<utils::IORTU>().device());
    rtuData.toXml(serializer.findOrCreateElement(statusPath + "/rtu"));
}

} // namespace

std::vector<Route> containerRoutes(const RouteServices& services)
{
    K52ResourceManager& resources = services.resources;
    const K52CommandRouter& router = services.router;

    auto sendXmlDescriptor = [&resources, &router](RouteCall& call) {
        ContainerManager& containers = resources.containers();
        utils::XMLBlockSerializer serializer(containers.xmlBlock(), "device");
        auto* found = serializer.findElement(statusPath);
        if (!found)
            throw utils::UtilsOutOfRangeError("Node not found.");
        clearStatus(found);
        auto* status = serializer.findOrCreateElement(statusPath + "/");
        router.toXml(status, status->GetDocument());
        writeDeviceRecords(resources, serializer);
        serializer.commit();
        containers.updateChecksum(K52Container::XML);

        uint32_t checksum = 0;
        const auto message = descriptorMessage(containers.xmlContainer(), checksum);
        resources.controlSocket().send(message.data(), message.size());
        K52_LOG(info) << "XML Container Sent " << message.size() << " bytes, CRC=" << hex32(checksum);
        return call.ok("XML Container Sent CRC=" + hex32(checksum));
    };

    auto sendGeneralContainer = [&resources](RouteCall& call) {
        ContainerManager& containers = resources.containers();
        // Only the leading word: clients take it as the signal that the container holds a frame.
        resources.streamSocket().send(&containers.generalContainer().identifier, sizeof(uint32_t));
        const auto& frame = containers.frameMetadataSubContainer().payload;
        return call.ok("Frame Container Sent Height: " + std::to_string(frame.height) +
                       " Width: " + std::to_string(frame.width));
    };

    using G = K52ResourceGroups;
    return {
        {"GetXmlDescriptor", "Streams the XML descriptor", {}, {G::XML_CONTAINER, G::CTRL_SOCKET},
         "GetXmlDescriptor: ", "Error", Converts::deviceErrors, {}, sendXmlDescriptor},
        {"GetGeneralContainer", "Streams the general container", {}, {G::GENERAL_CONTAINER, G::STREAM_SOCKET},
         "GetGeneralContainer: ", "Error", Converts::deviceErrors, {}, sendGeneralContainer},
    };
}

} // namespace k52app
