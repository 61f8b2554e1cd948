#include "core/k52resourcemanager.h"
#include "utils/config/configparser.h"
#include "support/bytes.h"
#include "support/emulatedconfig.h"
#include "support/syslogcapture.h"
#include "support/tempdir.h"
#include "utils/base/exceptions.h"
#include "utils/platform/kernel.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <tinyxml2.h>
#include <zlib.h>

#include <filesystem>
#include <tuple>

using k52app::K52ResourceManager;
using k52test::EmulatedConfig;

namespace {

// The daemon's view of one configuration: parsed from the file, the emulated board selected
// with the file's own emulated-* keys.
struct Daemon {
    explicit Daemon(const EmulatedConfig::Overrides& overrides = {}) : config(overrides)
    {
        const char* argv[] = {"k52app", "-c", config.path().c_str()};
        parser = std::make_unique<k52app::ConfigParser>(3, argv);
        utils::platform::selectPlatform("emulated", parser->values);
    }
    ~Daemon() { utils::platform::installKernel(nullptr); }

    EmulatedConfig config;
    std::unique_ptr<k52app::ConfigParser> parser;
};

bool logged(const k52test::SyslogCapture& capture, const std::string& text)
{
    for (const auto& record : capture.records())
        if (record.text.find(text) != std::string::npos)
            return true;
    return false;
}

// A healthy board: every device logged, the control port truncated to sixteen bits, the board
// published in the XML container.
TEST(ResourceManager, StartsEveryDeviceAndPublishesTheBoardInTheXmlContainer)
{
    // Names that cannot be elements must not cost the document what it already holds.
    k52test::TempDir frames("k52frames");
    for (const char* name : {"2 bars.pgm", "a&b.pgm", "gradient.pgm"})
        frames.writeFile(name, "P5\n1 1\n255\nx");
    const uint16_t port = k52test::freePort();
    Daemon daemon({{"static-files", frames.path()}, {"socket-ctrl", std::to_string(port + 65536)}});
    k52test::SyslogCapture capture;
    K52ResourceManager resources(*daemon.parser);
    EXPECT_EQ(resources.controlSocket().localPort(), port);
    const char* const started[] = {
        "K52ResourceManager: mutexes initialized.", "IMX initialized.", "ToF initialized.",
        "RTU initialized with CMOS chip 'imx296'", "K52ResourceManager Initialized.",
        "SmartSensor initialized.", "K52ResourceManager: AutoFocus device initialized.",
        "K52ResourceManager: V4L2 initialized.", "K52ResourceManager: Illumination device initialized.",
        "K52ResourceManager: socket-ctrl initialized.", "K52ResourceManager: socket-stream initialized.",
        "K52ResourceManager: static files initialized."};
    for (const char* line : started)
        EXPECT_TRUE(logged(capture, line)) << line;
    EXPECT_TRUE(logged(capture, "SmartSensor booting '" + daemon.config.values().at("smart-sensor-fw-path") +
                                    "' to 0x40@/dev/i2c-5'."));

    std::string file = k52test::fileBytes(daemon.config.containerDir() + "k52XMLContainer");
    ASSERT_EQ(file.size(), 229376u);
    uLong crc = crc32(0, reinterpret_cast<const Bytef*>(file.data()), 229372);
    EXPECT_EQ(k52test::word(file, 229372), static_cast<uint32_t>(crc));

    tinyxml2::XMLDocument document;
    ASSERT_EQ(document.Parse(file.c_str() + 16), tinyxml2::XML_SUCCESS);
    tinyxml2::XMLHandle factory = tinyxml2::XMLHandle(document.RootElement()).FirstChildElement("factory");

    // Each format with its fourcc number and its sizes in the device's order.
    tinyxml2::XMLHandle v4l2 = factory.FirstChildElement("v4l2");
    EXPECT_EQ(v4l2.FirstChildElement("formats").FirstChildElement("count").ToElement()->UnsignedText(), 2u);
    for (auto [fourcc, number] : {std::pair{"GREY", 1497715271u}, {"RGB3", 859981650u}}) {
        tinyxml2::XMLHandle format = v4l2.FirstChildElement("formats").FirstChildElement(fourcc);
        ASSERT_TRUE(format.ToElement()) << fourcc;
        EXPECT_EQ(format.FirstChildElement("fourcc").ToElement()->UnsignedText(), number);
        std::vector<std::string> sizes;
        for (auto* size = format.FirstChildElement("resolutions").FirstChildElement().ToElement(); size;
             size = size->NextSiblingElement())
            sizes.push_back(std::string(size->FirstChildElement("width")->GetText()) + "x" +
                            size->FirstChildElement("height")->GetText());
        EXPECT_EQ(sizes, (std::vector<std::string>{"640x480", "1456x1088", "2472x2064"})) << fourcc;
    }
    // Menus list their entries by name; an integer menu's names are its values in decimal, not
    // the bytes that share their storage.
    tinyxml2::XMLHandle controls = v4l2.FirstChildElement("controls");
    const std::tuple<uint32_t, const char*, const char*> entries[] = {
        {V4L2_CID_TEST_PATTERN, "index-0", "Gradient"},
        {V4L2_CID_EXPOSURE_AUTO, "index-3", "Aperture Priority Mode"}, // after a gap in the menu
        {V4L2_CID_LINK_FREQ, "index-1", "297000000"}};
    for (auto [id, index, text] : entries) {
        auto* entry = controls.FirstChildElement(("id-" + std::to_string(id)).c_str())
                          .FirstChildElement("menu").FirstChildElement(index).FirstChildElement("name").ToElement();
        ASSERT_TRUE(entry) << id;
        EXPECT_STREQ(entry->GetText(), text);
    }

    // Static files: one empty element per image, in file-name order.
    std::vector<std::string> listed;
    for (auto* e = factory.FirstChildElement("static-files").FirstChildElement().ToElement(); e;
         e = e->NextSiblingElement()) {
        listed.push_back(e->Name());
        EXPECT_FALSE(e->FirstChild());
    }
    EXPECT_EQ(listed, (std::vector<std::string>{"_x32__x20_bars.pgm", "a_x26_b.pgm", "gradient.pgm"}));
    EXPECT_EQ(resources.staticFrames().size(), 3u);
}

// A device that does not open is logged and left out; the start-up goes on.
TEST(ResourceManager, ToleratesDevicesThatDoNotOpen)
{
    const std::pair<const char*, const char*> cases[] = {
        {"/dev/k52rtu", "RTU initialization failed: "},
        {"/dev/k52af", "No autofocus device configured. check your configuration"},
        {"/dev/k52illum", "No autofocus device configured. check your configuration"},
        {"/dev/k52tof", "ToF initialization failed: "},
        {"/dev/i2c-5", "SmartSensor initialization failed: "},
    };
    for (const auto& [path, line] : cases) {
        Daemon daemon({{"emulated-fault-open", std::string(path)}});
        k52test::SyslogCapture capture;
        K52ResourceManager resources(*daemon.parser);
        EXPECT_TRUE(logged(capture, std::string("K52ResourceManager: ") + line)) << path;
        EXPECT_TRUE(logged(capture, "K52ResourceManager Initialized.")) << path;
    }
}

TEST(ResourceManager, FatalConfigurationAndDeviceFailures)
{
    // message null: the device's IOError
    struct Case { EmulatedConfig::Overrides overrides; const char* message; bool configNotFound; };
    const char* const sockets = "K52ResourceManager: 'socket-ctrl' or 'socket-ctrl' have invalid values";
    const Case cases[] = {
        {{{"rtu-path", std::nullopt}}, "map::at", true},
        {{{"rtu-i2c-address", std::string("abc")}}, "stoi", true},
        {{{"button-line", std::string("99999999999")}}, "stoi", true},
        {{{"socket-ctrl", std::string("5000")}, {"socket-stream", std::string("5000")}}, sockets, false},
        {{{"emulated-fault-open", std::string("/dev/imx0")}}, nullptr, false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.message ? c.message : c.overrides.begin()->second->c_str());
        Daemon daemon(c.overrides);
        k52test::SyslogCapture capture;
        if (c.message)
            EXPECT_THAT([&] { K52ResourceManager resources(*daemon.parser); },
                        testing::ThrowsMessage<utils::UtilsOutOfRangeError>(testing::StrEq(c.message)));
        else
            EXPECT_THROW(K52ResourceManager resources(*daemon.parser), utils::IOError);
        EXPECT_EQ(logged(capture, std::string("K52ResourceManager: config not found.") + (c.message ? c.message : "")),
                  c.configNotFound);
        EXPECT_FALSE(std::filesystem::exists(daemon.config.containerDir() + "k52XMLContainer"));
        EXPECT_FALSE(std::filesystem::exists(daemon.config.containerDir() + "k52generalContainer"));
    }
}

} // namespace
