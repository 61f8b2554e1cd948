#include "core/commandrouter.h"
#include "core/k52resourcemanager.h"
#include "k52app/logrecord.h"
#include "utils/base/exceptions.h"

#include <linux/videodev2.h>

#include <cstring>
#include <mutex>
#include <string>
#include <vector>

namespace k52app {

namespace {

using Arguments = std::vector<std::string>;
using utils::ImageSerializer;

// The frame header and its data end where the frame's checksum goes.
constexpr uint32_t frameDataOffset = 2244;
constexpr uint32_t frameChecksumSize = 4;

uint32_t pixelFormatOf(const ImageSerializer::ImageData& image)
{
    switch (image.channels) {
    case 1:
        return PixelFomatMap.at(V4L2_PIX_FMT_GREY);
    case 3:
        return PixelFomatMap.at(V4L2_PIX_FMT_RGB24);
    }
    throw utils::UtilsRuntimeError("a static frame with " + std::to_string(image.channels) +
                                   " channels has no pixel format.");
}

// Lays the image out in the frame area exactly as a captured frame: size, format, data, the
// used length at offset 4 and the checksum after the data and at the end of the capacity.
// Returns the checksum; the caller holds the general container's group.
uint32_t storeFrame(ContainerManager& containers, const std::string& name,
                    const ImageSerializer::ImageData& image)
{
    const auto length = image.pixels.size();
    if (length > utils::IOV4L2FrameData::capacity)
        throw utils::UtilsRuntimeError("static frame '" + name + "' of " + std::to_string(length) +
                                       " bytes does not fit the frame area.");
    auto& metadata = containers.frameMetadataSubContainer().payload;
    metadata.width = image.width;
    metadata.height = image.height;
    metadata.pixelFormat = pixelFormatOf(image);
    auto& data = containers.frameDataSubContainer();
    std::memcpy(data.payload.bytes, image.pixels.data(), length);
    const auto n = static_cast<uint32_t>(length);
    data.size = n + 8;
    auto& general = containers.generalContainer();
    general.size = frameDataOffset + n + frameChecksumSize;
    general.checksum = containers.updateChecksum(K52Container::GENERAL);
    return general.checksum;
}

std::string frameNames(const K52ResourceManager::StaticFrameMap& frames)
{
    std::string names;
    for (const auto& [name, image] : frames)
        names += (names.empty() ? "" : ", ") + name;
    return names.empty() ? "none" : names;
}

} // namespace

void K52CommandRouter::registerStaticFrameCommands()
{
    K52ResourceManager* resources = &resources_;
    std::vector<std::string> choices;
    for (const auto& [name, image] : resources_.staticFrames())
        choices.push_back(name);
    // The names are listed for help only: an unknown name gets the route's own answer.
    const utils::SpinnerMetaData frameName{{{"frame_name", "the name of the static frame in XML descriptor",
                                             utils::SpinnerArgumentType::categorical, choices, {},
                                             "empty", 1}}};

    auto sendStaticFrame = [resources, reply = RouteReplyBuilder("Error", "GetStaticFrame: ")](
                               const Arguments& arguments) {
        return reply.guard([&] {
            const std::string& name = arguments.at(0);
            std::lock_guard containerLock(resources->getMutex(K52ResourceGroups::GENERAL_CONTAINER));
            std::lock_guard framesLock(resources->getMutex(K52ResourceGroups::STATIC_FRAMES));
            const auto& frames = resources->staticFrames();
            const auto found = frames.find(name);
            if (found == frames.end())
                return reply.refuse("Unknown static frame '" + name + "' (available: " +
                                    frameNames(frames) + ").");
            const uint32_t checksum = storeFrame(resources->containers(), name, *found->second);

            std::lock_guard streamLock(resources->getMutex(K52ResourceGroups::STREAM_SOCKET));
            const auto& general = resources->containers().generalContainer();
            resources->streamSocket().send(&general, general.size);
            K52_LOG(info) << "Static-Frame '" << name << "' Sent " << general.size << " bytes, CRC="
                          << hex32(checksum);
            return reply.ok("Static-Frame Sent CRC=" + hex32(checksum));
        });
    };

    registerRoutes({
        {"GetStaticFrame", "Loads chosen static frame loaded into frame container", frameName,
         sendStaticFrame},
    });
}

} // namespace k52app
