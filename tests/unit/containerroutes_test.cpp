#include "client/connection.h"
#include "support/bytes.h"
#include "support/routerharness.h"
#include "utils/base/exceptions.h"
#include "utils/io/imageserializer.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <tinyxml2.h>
#include <zlib.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <iterator>

namespace {

using k52test::word;
using k52test::hex;
using k52test::fileBytes;

using k52client::Connection;
using k52client::Milliseconds;
using testing::HasSubstr;
using testing::StartsWith;

constexpr size_t descriptorSize = 229376;
const Milliseconds patience(5000);

uint32_t zlibCrc(const std::string& bytes, size_t length)
{
    return static_cast<uint32_t>(crc32(0, reinterpret_cast<const Bytef*>(bytes.data()), static_cast<uInt>(length)));
}

// A client on one of the daemon's sockets, accepted by the socket itself: the harness runs no
// channel threads.
Connection connectTo(utils::TCPSocket& socket, uint16_t port)
{
    Connection client("127.0.0.1", port);
    for (;;) {
        try {
            socket.acceptConnection();
            return client;
        } catch (const utils::UtilsTimeoutException&) {
        }
    }
}

std::string receive(Connection& client, size_t length)
{
    std::string bytes(length, '\0');
    client.readExactly(bytes.data(), length, patience);
    return bytes;
}

bool nothingMoreArrived(Connection& client)
{
    char byte;
    return ::recv(client.descriptor(), &byte, 1, MSG_DONTWAIT) < 0 && errno == EAGAIN;
}

const tinyxml2::XMLElement* child(const tinyxml2::XMLNode* parent, const char* name)
{
    return parent ? parent->FirstChildElement(name) : nullptr;
}

std::string text(const tinyxml2::XMLElement* element)
{
    return element && element->GetText() ? element->GetText() : "";
}

class ContainerRoutes : public ::testing::Test {
protected:
    Connection connectControl() { return connectTo(h.resources->controlSocket(), h.config.controlPort()); }
    Connection connectStream() { return connectTo(h.resources->streamSocket(), h.config.streamPort()); }

    std::string containerFile(const char* name) const { return h.config.containerDir() + name; }

    k52test::RouterHarness h;
};

TEST_F(ContainerRoutes, XmlDescriptorMessageOnTheControlSocket)
{
    auto control = connectControl();
    ASSERT_EQ(h.run("SetIMXExposure 4321").first, "OK");
    auto [status, reply] = h.run("GetXmlDescriptor");
    ASSERT_EQ(status, "OK") << reply;

    // The message's framing is checked end to end; here its content.
    const std::string message = receive(control, descriptorSize);
    const std::string document(message.data() + 16);

    tinyxml2::XMLDocument xml;
    ASSERT_EQ(xml.Parse(document.c_str()), tinyxml2::XML_SUCCESS);
    const auto* root = xml.FirstChildElement("device");
    const auto* settings = child(root, "settings");
    const auto* status_ = child(settings, "status");
    ASSERT_NE(status_, nullptr);
    // The route help as rendered on demand: one element per route, arguments as parameters.
    EXPECT_EQ(text(child(child(status_, "GetXmlDescriptor"), "help")), "Streams the XML descriptor");
    const auto* format = child(status_, "SetV4L2Format");
    ASSERT_NE(format, nullptr);
    const auto* first = child(format, "parameter");
    ASSERT_NE(first, nullptr);
    EXPECT_EQ(text(child(first, "name")), "format");
    EXPECT_EQ(text(child(first, "type")), "numerical");
    EXPECT_EQ(text(child(first->NextSiblingElement("parameter"), "name")), "resolution_index");
    // The device state, freshly loaded.
    EXPECT_EQ(text(child(child(status_, "imx"), "exposure")), "4321");
    EXPECT_EQ(text(child(child(status_, "imx"), "model")), "imx296");
    ASSERT_NE(child(status_, "rtu"), nullptr);
    EXPECT_NE(child(status_, "rtu")->FirstChildElement(), nullptr);
    // What registration and start-up wrote stays.
    EXPECT_EQ(text(child(child(settings, "GetXmlDescriptor"), "help")), "Streams the XML descriptor");
    EXPECT_EQ(text(child(child(root, "factory"), "name")), "k52app");

    // The container file itself keeps its own framing and a valid checksum.
    const std::string file = fileBytes(containerFile("k52XMLContainer"));
    ASSERT_EQ(file.size(), descriptorSize);
    EXPECT_EQ(word(file, 4), descriptorSize);
    EXPECT_EQ(word(file, descriptorSize - 4), zlibCrc(file, descriptorSize - 4));
    EXPECT_EQ(std::string(file.data() + 16), document);
}

TEST_F(ContainerRoutes, XmlDescriptorRefreshReplacesTheOldStatus)
{
    auto control = connectControl();
    ASSERT_EQ(h.run("GetXmlDescriptor").first, "OK");
    receive(control, descriptorSize);
    ASSERT_EQ(h.run("SetIMXROIOffset 12 34").first, "OK");
    ASSERT_EQ(h.run("GetXmlDescriptor").first, "OK");
    const std::string message = receive(control, descriptorSize);

    tinyxml2::XMLDocument xml;
    ASSERT_EQ(xml.Parse(message.data() + 16), tinyxml2::XML_SUCCESS);
    const auto* settings = child(xml.FirstChildElement("device"), "settings");
    const auto* status = child(settings, "status");
    ASSERT_NE(status, nullptr);
    EXPECT_EQ(status->NextSiblingElement("status"), nullptr) << "one status element";
    EXPECT_EQ(child(status, "imx")->NextSiblingElement("imx"), nullptr);
    EXPECT_EQ(child(status, "GetXmlDescriptor")->NextSiblingElement("GetXmlDescriptor"), nullptr);
    EXPECT_EQ(text(child(child(status, "imx"), "roiX")), "12");
    EXPECT_EQ(text(child(child(status, "imx"), "roiY")), "34");
}

TEST_F(ContainerRoutes, XmlDescriptorFailuresFollowTheReplyConvention)
{
    {
        // No control client: nothing can be sent.
        auto [status, reply] = h.run("GetXmlDescriptor");
        EXPECT_EQ(status, "ErrorIOException");
        EXPECT_THAT(reply, StartsWith("GetXmlDescriptor: "));
    }
    auto control = connectControl();
    for (const char* device : {"/dev/imx0", "/dev/k52rtu"}) {
        SCOPED_TRACE(device);
        h.board().faults().inject(device, utils::platform::emulated::Fault::ioError);
        auto [status, reply] = h.run("GetXmlDescriptor");
        EXPECT_EQ(status, "ErrorIOException");
        EXPECT_THAT(reply, StartsWith("GetXmlDescriptor: "));
        EXPECT_THAT(reply, HasSubstr(device));
        EXPECT_TRUE(nothingMoreArrived(control)) << "a failed refresh sends nothing";
        h.board().faults().clear(device);
    }
}

TEST_F(ContainerRoutes, StaticFramesLandInTheFrameAreaAndOnTheStreamSocket)
{
    auto stream = connectStream();
    const struct {
        const char* name;
        uint32_t width, height, pixelFormat, channels;
    } cases[] = {
        {"gradient-640x480.pgm", 640, 480, 1, 1},
        {"colourbars-320x240.ppm", 320, 240, 7, 3},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        auto [status, reply] = h.run(std::string("GetStaticFrame ") + c.name);
        ASSERT_EQ(status, "OK") << reply;
        const uint32_t n = c.width * c.height * c.channels;
        const std::string frame = receive(stream, 2248 + n);
        EXPECT_TRUE(nothingMoreArrived(stream));

        EXPECT_EQ(word(frame, 0), 0x0510FFFFu);
        EXPECT_EQ(word(frame, 4), 2248 + n);
        EXPECT_EQ(word(frame, 2224), c.width);
        EXPECT_EQ(word(frame, 2228), c.height);
        EXPECT_EQ(word(frame, 2232), c.pixelFormat);
        EXPECT_EQ(word(frame, 2240), n + 8);
        const auto image = utils::ImageSerializer::read(std::string(K52_SOURCE_DIR) + "/etc/static-frames/" + c.name);
        EXPECT_EQ(frame.compare(2244, n, reinterpret_cast<const char*>(image.pixels.data()), n), 0);
        const uint32_t crc = zlibCrc(frame, 2244 + n);
        EXPECT_EQ(word(frame, 2244 + n), crc);
        EXPECT_EQ(reply, "GetStaticFrame: Static-Frame Sent CRC=" + hex(crc));

        // The container file holds the same frame, its checksum also at the end of the capacity.
        const std::string file = fileBytes(containerFile("k52generalContainer"));
        ASSERT_EQ(file.size(), 50333896u);
        EXPECT_EQ(file.compare(0, frame.size(), frame), 0);
        EXPECT_EQ(word(file, 50333892), crc);

        auto [containerStatus, containerReply] = h.run("GetGeneralContainer");
        EXPECT_EQ(containerStatus, "OK");
        EXPECT_EQ(containerReply, "GetGeneralContainer: Frame Container Sent Height: " + std::to_string(c.height) +
                                      " Width: " + std::to_string(c.width));
        EXPECT_EQ(word(receive(stream, 4), 0), 0x0510FFFFu);
        EXPECT_TRUE(nothingMoreArrived(stream)) << "only the leading word";
    }
}

TEST_F(ContainerRoutes, RepliesWithoutAFrame)
{
    auto stream = connectStream();
    const std::string before = fileBytes(containerFile("k52generalContainer"));
    const std::string known = " (available: checkerboard-1456x1088.pgm, colourbars-320x240.ppm, gradient-640x480.pgm).";
    const struct {
        const char* command;
        const char* status;
        std::string message;
    } cases[] = {
        {"GetGeneralContainer", "OK", "GetGeneralContainer: Frame Container Sent Height: 0 Width: 0"},
        {"GetStaticFrame nothing.pgm", "Error", "GetStaticFrame: Unknown static frame 'nothing.pgm'" + known},
        {"GetStaticFrame", "Error", "GetStaticFrame: Unknown static frame 'empty'" + known},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.command);
        auto [status, message] = h.run(c.command);
        EXPECT_EQ(status, c.status);
        EXPECT_EQ(message, c.message);
    }
    EXPECT_EQ(receive(stream, 4), std::string("\xff\xff\x10\x05", 4));
    EXPECT_TRUE(nothingMoreArrived(stream)) << "a refused frame sends nothing";
    EXPECT_TRUE(fileBytes(containerFile("k52generalContainer")) == before) << "and leaves the container alone";
}

TEST(ContainerRoutesWithoutStreamClient, FrameIsStoredEvenWhenItCannotBeSent)
{
    k52test::RouterHarness h;
    auto [status, reply] = h.run("GetStaticFrame gradient-640x480.pgm");
    EXPECT_EQ(status, "ErrorIOException");
    EXPECT_THAT(reply, StartsWith("GetStaticFrame: "));
    const std::string file = fileBytes(h.config.containerDir() + "k52generalContainer");
    EXPECT_EQ(word(file, 4), 2248u + 640 * 480);
    EXPECT_EQ(word(file, 2244 + 640 * 480), zlibCrc(file, 2244 + 640 * 480));
}

} // namespace
