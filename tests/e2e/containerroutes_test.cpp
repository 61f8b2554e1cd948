// The container routes end to end: the XML descriptor on the real daemon's control socket and
// the client library that reads it; k52ctl saving the descriptor, static frames and frames of a
// stream.
#include "client/descriptor.h"
#include "support/bytes.h"
#include "support/daemonprocess.h"
#include "support/process.h"
#include "support/tempdir.h"
#include "utils/io/imageserializer.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <tinyxml2.h>
#include <zlib.h>

#include <cstring>

using k52client::ControlClient;
using k52client::Milliseconds;
using k52test::DaemonProcess;
using testing::HasSubstr;

namespace {

using k52test::word;
using k52test::hex;

// The route help, the sensor and the trigger unit under /settings/status.
void expectStatus(const std::string& document)
{
    tinyxml2::XMLDocument xml;
    ASSERT_EQ(xml.Parse(document.c_str()), tinyxml2::XML_SUCCESS);
    const auto* status = xml.FirstChildElement("device")->FirstChildElement("settings")->FirstChildElement("status");
    ASSERT_NE(status, nullptr);
    const auto* help = status->FirstChildElement("GetStaticFrame");
    ASSERT_NE(help, nullptr);
    EXPECT_STREQ(help->FirstChildElement("help")->GetText(), "Loads chosen static frame loaded into frame container");
    EXPECT_NE(status->FirstChildElement("imx"), nullptr);
    EXPECT_NE(status->FirstChildElement("rtu"), nullptr);
}

class Daemon : public ::testing::Test {
protected:
    static void SetUpTestSuite() { daemon = std::make_unique<DaemonProcess>(); }
    static void TearDownTestSuite() { daemon.reset(); }

    ControlClient connect() { return ControlClient("127.0.0.1", daemon->config().controlPort()); }

    static k52test::ProcessResult ctl(const std::vector<std::string>& arguments)
    {
        std::vector<std::string> all = {"--port", std::to_string(daemon->config().controlPort()), "--stream-port",
                                        std::to_string(daemon->config().streamPort())};
        all.insert(all.end(), arguments.begin(), arguments.end());
        return k52test::runProcess(K52CTL_BINARY, all);
    }

    static std::unique_ptr<DaemonProcess> daemon;
};
std::unique_ptr<DaemonProcess> Daemon::daemon;

// The reader checks every part of the message: a damaged copy of a good one is refused.
TEST_F(Daemon, XmlDescriptorIsAFixedSizeMessageThenTheAcknowledgement)
{
    auto client = connect();
    client.send("GetXmlDescriptor");
    const k52client::Message head = client.readMessage(Milliseconds(5000));
    ASSERT_EQ(head.kind, 0x052A0201u);
    const uint32_t used = word(head.bytes, 4);
    const std::string message = k52client::completeXmlDescriptor(client.connection(), head, Milliseconds(5000));
    ASSERT_EQ(message.size(), 229376u);
    const auto checksum = [&](const std::string& bytes) {
        return static_cast<uint32_t>(crc32(0, reinterpret_cast<const Bytef*>(bytes.data()), used - 4));
    };
    const uint32_t crc = checksum(message);
    EXPECT_EQ(word(message, used - 4), crc);
    EXPECT_EQ(word(message, 229372), crc);

    // Right after the 229376 bytes comes the route's answer, so nothing was sent short or long.
    const auto ack = client.readNotice(Milliseconds(5000));
    EXPECT_EQ(ack.status(), "OK");
    EXPECT_EQ(ack.reply(), "GetXmlDescriptor: XML Container Sent CRC=" + hex(crc));
    EXPECT_TRUE(daemon->waitForRecord("XML Container Sent 229376 bytes, CRC=" + hex(crc)));
    const auto descriptor = k52client::unpackXmlDescriptor(message);
    EXPECT_EQ(descriptor.checksum, crc);
    expectStatus(descriptor.document);

    const struct {
        const char* what;
        size_t offset;
        const char* error;
    } damage[] = {
        {"a text byte", 100, "checksum"},
        {"the end copy of the checksum", 229373, "end checksum"},
        {"the remaining length", 12, "remaining length"},
        {"the kind", 8, "kind"},
        {"the NUL after the text", used - 5, "NUL"},
    };
    for (const auto& d : damage) {
        SCOPED_TRACE(d.what);
        std::string bad = message;
        bad[d.offset] ^= 0x20;
        if (d.offset == used - 5) {
            // Keep the checksum right so that the missing NUL is what is caught.
            const uint32_t fixed = checksum(bad);
            std::memcpy(bad.data() + used - 4, &fixed, 4);
            std::memcpy(bad.data() + 229372, &fixed, 4);
        }
        EXPECT_THAT([&] { k52client::unpackXmlDescriptor(bad); },
                    testing::ThrowsMessage<std::runtime_error>(HasSubstr(d.error)));
    }
}

TEST_F(Daemon, CtlSavesTheXmlDocument)
{
    k52test::TempDir dir;
    const std::string path = dir.file("descriptor.xml");
    auto result = ctl({"xml", path});
    ASSERT_EQ(result.exitStatus, 0) << result.err;
    EXPECT_THAT(result.out, HasSubstr("XML Container Sent CRC=0x"));
    tinyxml2::XMLDocument xml;
    ASSERT_EQ(xml.LoadFile(path.c_str()), tinyxml2::XML_SUCCESS);
    tinyxml2::XMLPrinter printer;
    xml.Print(&printer);
    expectStatus(printer.CStr());
}

TEST_F(Daemon, CtlSavesStaticFramesAsImages)
{
    k52test::TempDir dir;
    const struct {
        const char* name;
        const char* file;
    } cases[] = {{"gradient-640x480.pgm", "g.pgm"}, {"colourbars-320x240.ppm", "c.ppm"}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        auto result = ctl({"static", c.name, dir.file(c.file)});
        ASSERT_EQ(result.exitStatus, 0) << result.out << result.err;
        const auto saved = utils::ImageSerializer::read(dir.file(c.file));
        const auto shipped = utils::ImageSerializer::read(std::string(K52_SOURCE_DIR) + "/etc/static-frames/" + c.name);
        EXPECT_EQ(saved.width, shipped.width);
        EXPECT_EQ(saved.height, shipped.height);
        EXPECT_EQ(saved.channels, shipped.channels);
        EXPECT_TRUE(saved.pixels == shipped.pixels);
    }
    auto unknown = ctl({"static", "nothing.pgm", dir.file("n.pgm")});
    EXPECT_EQ(unknown.exitStatus, 2);
    EXPECT_THAT(unknown.out, HasSubstr("Error GetStaticFrame: Unknown static frame 'nothing.pgm' (available: "));
}

TEST_F(Daemon, CtlStreamVerifiesSavesAndStopsCleanly)
{
    K52_SKIP_ON_REAL_KERNEL("its first GREY frame size");
    k52test::TempDir dir;
    auto result = ctl({"stream", "GREY", "0", "--frames", "15", "--save", "1", "--save-every", "10", "--out", dir.path()});
    ASSERT_EQ(result.exitStatus, 0) << result.out << result.err;
    EXPECT_THAT(result.out, HasSubstr("frames received and verified"));
    for (const char* file : {"frame-000000.pgm", "frame-000010.pgm"}) {
        SCOPED_TRACE(file);
        const auto frame = utils::ImageSerializer::read(dir.file(file));
        EXPECT_EQ(std::vector<uint32_t>({uint32_t(frame.width), uint32_t(frame.height), uint32_t(frame.channels)}),
                  std::vector<uint32_t>({640, 480, 1}));
    }
    // The stream is over and left nothing behind: the next client's first answer is its own.
    auto client = connect();
    auto ack = client.command("GetRTUFPS");
    EXPECT_EQ(ack.status(), "OK");
    EXPECT_EQ(ack.reply(), "GetRTUFPS: RTU FPS: 30");
}

} // namespace
