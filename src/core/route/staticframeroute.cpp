#include "core/route/families.h"
#include "core/k52resourcemanager.h"
#include "core/middleware/capture.h"
#include "utils/log/logrecord.h"
#include "utils/base/exceptions.h"
#include "utils/container/xmlblockserializer.h"

#include <linux/videodev2.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

namespace k52app {

namespace {

using utils::ImageSerializer;

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

// A static frame sits in the frame area exactly as a captured one, so readers of the file and
// of the stream socket cannot tell them apart. The caller holds the general container's group.
void storeFrame(FrameArea& frame, const ImageSerializer::ImageData& image)
{
    frame.begin(image.width, image.height, pixelFormatOf(image), image.pixels.size());
    frame.append(image.pixels.data(), image.pixels.size());
    frame.finish();
}

uint32_t checksumOf(const FrameArea& frame)
{
    uint32_t checksum;
    std::memcpy(&checksum, frame.usedPart() + frame.usedLength() - sizeof checksum, sizeof checksum);
    return checksum;
}

// Frames are asked for by the name the XML document lists (a file name that cannot be an
// element is listed escaped); the file name itself is accepted too.
std::string listedName(const std::string& file) { return utils::XMLBlockSerializer::elementName(file); }

K52ResourceManager::StaticFrameMap::const_iterator findFrame(const K52ResourceManager::StaticFrameMap& frames,
                                                            const std::string& name)
{
    const auto exact = frames.find(name);
    if (exact != frames.end())
        return exact;
    return std::find_if(frames.begin(), frames.end(),
                        [&](const auto& frame) { return listedName(frame.first) == name; });
}

std::string frameNames(const K52ResourceManager::StaticFrameMap& frames)
{
    std::string names;
    for (const auto& [name, image] : frames)
        names += (names.empty() ? "" : ", ") + listedName(name);
    return names.empty() ? "none" : names;
}

} // namespace

std::vector<Route> staticFrameRoutes(const RouteServices& services)
{
    K52ResourceManager& resources = services.resources;
    std::vector<std::string> choices;
    for (const auto& [name, image] : resources.staticFrames())
        choices.push_back(listedName(name));

    auto sendStaticFrame = [&resources](RouteCall& call) {
        const std::string& name = call.text(0);
        const auto& frames = resources.staticFrames();
        const auto found = findFrame(frames, name);
        if (found == frames.end())
            return call.refuse("Unknown static frame '" + name + "' (available: " + frameNames(frames) + ").");
        FrameArea frame(resources.containers().generalContainer());
        storeFrame(frame, *found->second);
        const uint32_t checksum = checksumOf(frame);

        resources.streamSocket().send(frame.usedPart(), frame.usedLength());
        K52_LOG(info) << "Static-Frame '" << name << "' Sent " << frame.usedLength() << " bytes, CRC="
                      << hex32(checksum);
        return call.ok("Static-Frame Sent CRC=" + hex32(checksum));
    };

    using G = K52ResourceGroups;
    return {
        // The names are listed for help only: an unknown name gets the route's own answer.
        // The frame's checksum covers the device records that GetXmlDescriptor rewrites, hence
        // their group.
        {"GetStaticFrame", "Loads chosen static frame loaded into frame container",
         {{"frame_name", "the name of the static frame in XML descriptor", utils::SpinnerArgumentType::categorical,
           choices, {}, "empty", 1}},
         {G::GENERAL_CONTAINER, G::STATIC_FRAMES, G::STREAM_SOCKET, G::DEVICE_STATUS},
         "GetStaticFrame: ",
         "Error",
         Converts::deviceErrors,
         {},
         sendStaticFrame},
    };
}

} // namespace k52app
