#include "client/connection.h"
#include "support/bytes.h"
#include "support/routerharness.h"
#include "support/tempdir.h"
#include "support/throws.h"
#include "utils/base/exceptions.h"
#include "utils/io/imageserializer.h"
#include "utils/io/staticframes.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <tinyxml2.h>
#include <zlib.h>

#include <cerrno>
#include <filesystem>

namespace {

using k52test::throwsWith;
using utils::ImageSerializer;
using utils::StaticFrames;

using k52test::fileBytes;
using k52test::word;
using k52client::Connection;
using testing::StartsWith;

constexpr size_t descriptorSize = 229376;

uint32_t zlibCrc(const std::string& bytes, size_t length)
{
    return static_cast<uint32_t>(crc32(0, reinterpret_cast<const Bytef*>(bytes.data()), static_cast<uInt>(length)));
}

std::string receive(Connection& client, size_t length)
{
    std::string bytes(length, '\0');
    client.readExactly(bytes.data(), length, k52client::Milliseconds(5000));
    return bytes;
}

bool nothingMoreArrived(Connection& client)
{
    char byte;
    return ::recv(client.descriptor(), &byte, 1, MSG_DONTWAIT) < 0 && errno == EAGAIN;
}

std::string text(tinyxml2::XMLHandle element)
{
    const auto* e = element.ToElement();
    return e && e->GetText() ? e->GetText() : "";
}

class ContainerRoutes : public ::testing::Test {
protected:
    // A client accepted by the socket itself: the harness runs no channel threads.
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
    Connection connectControl() { return connectTo(h.resources->controlSocket(), h.config.controlPort()); }
    Connection connectStream() { return connectTo(h.resources->streamSocket(), h.config.streamPort()); }
    std::string generalContainer() const { return fileBytes(h.config.containerDir() + "k52generalContainer"); }

    k52test::RouterHarness h;
};

// The message's framing is checked end to end; here what fails sends nothing, and the content
// after a refresh.
TEST_F(ContainerRoutes, XmlDescriptorFailuresSendNothingAndARefreshReplacesTheOldStatus)
{
    EXPECT_EQ(h.run("GetXmlDescriptor").first, "ErrorIOException") << "no control client";
    auto control = connectControl();
    for (const char* device : {"/dev/imx0", "/dev/k52rtu"}) {
        h.board().faults().inject(device, utils::platform::emulated::Fault::ioError);
        auto [status, reply] = h.run("GetXmlDescriptor");
        EXPECT_EQ(status, "ErrorIOException");
        EXPECT_THAT(reply, testing::AllOf(StartsWith("GetXmlDescriptor: "), testing::HasSubstr(device)));
        EXPECT_TRUE(nothingMoreArrived(control)) << device;
        h.board().faults().clear(device);
    }
    ASSERT_EQ(h.run("SetIMXExposure 4321").first, "OK");
    ASSERT_EQ(h.run("GetXmlDescriptor").first, "OK");
    receive(control, descriptorSize);
    ASSERT_EQ(h.run("SetIMXROIOffset 12 34").first, "OK");
    ASSERT_EQ(h.run("GetXmlDescriptor").first, "OK");
    const std::string message = receive(control, descriptorSize);

    tinyxml2::XMLDocument xml;
    ASSERT_EQ(xml.Parse(message.data() + 16), tinyxml2::XML_SUCCESS);
    tinyxml2::XMLHandle root(xml.FirstChildElement("device"));
    tinyxml2::XMLHandle status = root.FirstChildElement("settings").FirstChildElement("status");
    ASSERT_NE(status.ToElement(), nullptr);
    EXPECT_EQ(status.ToElement()->NextSiblingElement("status"), nullptr) << "one status element";
    EXPECT_EQ(status.FirstChildElement("imx").ToElement()->NextSiblingElement("imx"), nullptr);
    for (auto [name, value] : {std::pair{"exposure", "4321"}, {"roiX", "12"}, {"roiY", "34"}, {"model", "imx296"},
                                    {"sensorType", "monochrome"}, {"width", "1456"}})
        EXPECT_EQ(text(status.FirstChildElement("imx").FirstChildElement(name)), value) << name;
    EXPECT_NE(status.FirstChildElement("rtu").FirstChildElement().ToElement(), nullptr);
    // What registration and start-up wrote stays.
    EXPECT_EQ(text(root.FirstChildElement("settings").FirstChildElement("GetXmlDescriptor").FirstChildElement("help")),
              "Streams the XML descriptor");
    EXPECT_EQ(text(root.FirstChildElement("factory").FirstChildElement("name")), "k52app");
}

// A frame that cannot be sent is still stored; an unknown one changes nothing and sends nothing
// (the first frame received below would show it).
TEST_F(ContainerRoutes, StaticFramesLandInTheFrameAreaAndOnTheStreamSocket)
{
    EXPECT_EQ(h.run("GetStaticFrame gradient-640x480.pgm").first, "ErrorIOException");
    const std::string stored = generalContainer();
    EXPECT_EQ(word(stored, 4), 2248u + 640 * 480);
    EXPECT_EQ(word(stored, 2244 + 640 * 480), zlibCrc(stored, 2244 + 640 * 480));

    auto stream = connectStream();
    const std::string unknown = "GetStaticFrame: Unknown static frame 'empty' (available: checkerboard-1456x1088.pgm, "
                                "colourbars-320x240.ppm, gradient-640x480.pgm).";
    k52test::expectExchanges(h, {{"GetStaticFrame", "Error", unknown.c_str()}});
    EXPECT_TRUE(generalContainer() == stored);

    const struct { const char* name; uint32_t width, height, pixelFormat, channels; } cases[] = {
        {"gradient-640x480.pgm", 640, 480, 1, 1}, {"colourbars-320x240.ppm", 320, 240, 7, 3}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        auto [status, reply] = h.run(std::string("GetStaticFrame ") + c.name);
        ASSERT_EQ(status, "OK") << reply;
        const uint32_t n = c.width * c.height * c.channels;
        const std::string frame = receive(stream, 2248 + n);
        EXPECT_TRUE(nothingMoreArrived(stream));
        EXPECT_EQ((std::vector{word(frame, 0), word(frame, 4), word(frame, 2224), word(frame, 2228), word(frame, 2232),
                               word(frame, 2240)}),
                  (std::vector{0x0510FFFFu, 2248 + n, c.width, c.height, c.pixelFormat, n + 8}));
        const uint32_t crc = zlibCrc(frame, 2244 + n);
        EXPECT_EQ(word(frame, 2244 + n), crc);
        EXPECT_EQ(reply, "GetStaticFrame: Static-Frame Sent CRC=" + k52test::hex(crc));

        // The container file holds the same frame, its checksum also at the end of the capacity.
        const std::string file = generalContainer();
        ASSERT_EQ(file.size(), 50333896u);
        EXPECT_EQ(file.compare(0, frame.size(), frame), 0);
        EXPECT_EQ(word(file, 50333892), crc);

        const std::string size = "Height: " + std::to_string(c.height) + " Width: " + std::to_string(c.width);
        k52test::expectExchanges(h, {{"GetGeneralContainer", "OK", ("GetGeneralContainer: Frame Container Sent " + size).c_str()}});
        EXPECT_EQ(receive(stream, 4), std::string("\xff\xff\x10\x05", 4));
        EXPECT_TRUE(nothingMoreArrived(stream)) << "only the leading word";
    }
}

// One bad file refuses the whole directory, naming the file and what is wrong with it.
TEST(StaticFrames, MalformedImagesAndMissingDirectoriesAreRefusedByName)
{
    const struct { const char* name; std::string bytes; const char* reason; } cases[] = {
        {"ascii.pgm", "P2\n2 1\n255\n0 1\n", "P5"},
        {"sixteen-bit.pgm", "P5\n1 1\n65535\n\x01\x02", "maximum value 65535"},
        {"truncated.ppm", "P6\n2 2\n255\n" + std::string(11, 'x'), "11 of 12"},
        {"empty.pgm", "P5\n0 4\n255\n", "no pixels"},
        {"no-height.pgm", "P5\n4\n", "no height"},
        {"glued.pgm", "P5 1 1 255", "no whitespace"},
        {"huge.pgm", "P5\n99999999 1\n255\n", "too large"},
    };
    for (const auto& c : cases) {
        k52test::TempDir directory;
        directory.writeFile("good.pgm", "P5\n1 1\n255\nx");
        directory.writeFile(c.name, c.bytes);
        EXPECT_THAT([&] { StaticFrames frames(directory.path()); }, throwsWith<utils::UtilsRuntimeError>(c.name, c.reason));
    }
    k52test::TempDir directory;
    for (const auto& path : {directory.file("absent"), directory.writeFile("frame.pgm", "P5\n1 1\n255\nx")})
        EXPECT_THAT([&] { StaticFrames frames(path); },
                    throwsWith<utils::UtilsRuntimeError>(path + "' is not a directory"));
}

TEST(StaticFrames, ReadsWhatImageToolsWriteAndSkipsOtherFiles)
{
    k52test::TempDir directory;
    // A comment in the header, a maximum below 255 (kept raw) and a second image after it.
    directory.writeFile("commented.PGM", "P5\n# made by hand\n3 1 # width height\n100\n\x01\x02\x03"
                                         "P5\n1 1\n255\n\xff");
    directory.writeFile("README.txt", "not an image");
    directory.writeFile(".hidden.pgm", "garbage");
    std::filesystem::create_directory(directory.file("nested.ppm"));

    StaticFrames loaded(directory.path());
    ASSERT_EQ(loaded.frames().size(), 1u);
    EXPECT_EQ(loaded.frames().at("commented.PGM")->pixels, (std::vector<uint8_t>{1, 2, 3}));
}

// What k52ctl saves is read back by the end-to-end tests; here the header other tools expect.
TEST(ImageSerializer, WritesWhatOtherToolsRead)
{
    k52test::TempDir directory;
    auto encoded = ImageSerializer::encode({2, 1, 3, {1, 2, 3, 4, 5, 6}});
    EXPECT_EQ(std::string(encoded.begin(), encoded.end()), std::string("P6\n2 1\n255\n") + "\x01\x02\x03\x04\x05\x06");
    EXPECT_THROW(ImageSerializer::encode({2, 2, 1, {1, 2, 3}}), utils::UtilsRuntimeError);
    EXPECT_THROW(ImageSerializer::write(directory.file("no/such/dir.pgm"), {1, 1, 1, {0}}), utils::IOError);
}

} // namespace
