// The XML descriptor end to end: the real daemon's control socket, the client library that
// reads it, and k52ctl saving it.
#include "client/descriptor.h"
#include "support/daemonprocess.h"
#include "support/process.h"
#include "support/tempdir.h"

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

uint32_t word(const std::string& bytes, size_t offset)
{
    uint32_t value;
    std::memcpy(&value, bytes.data() + offset, sizeof value);
    return value;
}

std::string hex(uint32_t value)
{
    char text[16];
    std::snprintf(text, sizeof text, "0x%08x", value);
    return text;
}

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

class XmlDescriptor : public ::testing::Test {
protected:
    static void SetUpTestSuite() { daemon = std::make_unique<DaemonProcess>(); }
    static void TearDownTestSuite() { daemon.reset(); }

    ControlClient connect() { return ControlClient("127.0.0.1", daemon->config().controlPort()); }

    static std::unique_ptr<DaemonProcess> daemon;
};
std::unique_ptr<DaemonProcess> XmlDescriptor::daemon;

TEST_F(XmlDescriptor, FixedSizeMessageThenTheAcknowledgement)
{
    auto client = connect();
    client.send("GetXmlDescriptor");
    const k52client::Message head = client.readMessage(Milliseconds(5000));
    ASSERT_EQ(head.kind, 0x052A0201u);
    const uint32_t used = word(head.bytes, 4);
    const std::string message = k52client::completeXmlDescriptor(client.connection(), head, Milliseconds(5000));
    ASSERT_EQ(message.size(), 229376u);
    const auto crc = static_cast<uint32_t>(crc32(0, reinterpret_cast<const Bytef*>(message.data()), used - 4));
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
}

TEST_F(XmlDescriptor, ClientLibraryRejectsDamagedMessages)
{
    auto client = connect();
    const auto reply = k52client::fetchXmlDescriptor(client);
    EXPECT_EQ(reply.acknowledgement.status(), "OK");
    expectStatus(reply.descriptor.document);

    client.send("GetXmlDescriptor");
    const auto head = client.readMessage(Milliseconds(5000));
    const std::string good = k52client::completeXmlDescriptor(client.connection(), head, Milliseconds(5000));
    client.readNotice(Milliseconds(5000));
    const uint32_t used = word(good, 4);
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
        std::string bad = good;
        bad[d.offset] ^= 0x20;
        if (d.offset == used - 5) {
            // Keep the checksum right so that the missing NUL is what is caught.
            const auto crc = static_cast<uint32_t>(crc32(0, reinterpret_cast<const Bytef*>(bad.data()), used - 4));
            std::memcpy(bad.data() + used - 4, &crc, 4);
            std::memcpy(bad.data() + 229372, &crc, 4);
        }
        try {
            k52client::unpackXmlDescriptor(bad);
            ADD_FAILURE() << "accepted";
        } catch (const std::runtime_error& e) {
            EXPECT_THAT(e.what(), HasSubstr(d.error));
        }
    }
}

TEST_F(XmlDescriptor, CtlSavesTheDocument)
{
    k52test::TempDir dir;
    const std::string path = dir.file("descriptor.xml");
    auto result = k52test::runProcess(
        K52CTL_BINARY, {"--port", std::to_string(daemon->config().controlPort()), "xml", path});
    ASSERT_EQ(result.exitStatus, 0) << result.err;
    EXPECT_THAT(result.out, HasSubstr("XML Container Sent CRC=0x"));
    tinyxml2::XMLDocument xml;
    ASSERT_EQ(xml.LoadFile(path.c_str()), tinyxml2::XML_SUCCESS);
    tinyxml2::XMLPrinter printer;
    xml.Print(&printer);
    expectStatus(printer.CStr());
}

} // namespace
