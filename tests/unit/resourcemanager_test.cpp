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

#include <iconv.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>

using k52app::K52ResourceManager;
using k52test::EmulatedConfig;

namespace {

using k52test::word;
using k52test::fileBytes;

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

bool validUtf8(std::string text)
{
    iconv_t converter = iconv_open("UTF-8", "UTF-8");
    std::string out(text.size(), '\0');
    char* in = text.data();
    char* to = out.data();
    size_t inLeft = text.size(), outLeft = out.size();
    const bool valid = iconv(converter, &in, &inLeft, &to, &outLeft) != size_t(-1);
    iconv_close(converter);
    return valid;
}

TEST(ResourceManager, PublishesTheEmulatedBoardInTheXmlContainer)
{
    // Names that cannot be elements must not cost the document what it already holds.
    k52test::TempDir frames("k52frames");
    for (const char* name : {"2 bars.pgm", "a&b.pgm", "gradient.pgm"})
        frames.writeFile(name, "P5\n1 1\n255\nx");
    Daemon daemon({{"static-files", frames.path()}});
    K52ResourceManager resources(*daemon.parser);

    std::string file = fileBytes(daemon.config.containerDir() + "k52XMLContainer");
    ASSERT_EQ(file.size(), 229376u);
    uLong crc = crc32(0, reinterpret_cast<const Bytef*>(file.data()), 229372);
    EXPECT_EQ(word(file, 229372), static_cast<uint32_t>(crc));

    tinyxml2::XMLDocument document;
    const std::string text(file.c_str() + 16);
    EXPECT_TRUE(validUtf8(text));
    ASSERT_EQ(document.Parse(text.c_str()), tinyxml2::XML_SUCCESS);
    auto* factory = document.RootElement()->FirstChildElement("factory");
    auto* name = factory->FirstChildElement("name");
    ASSERT_TRUE(name) << "the document lost what it held";
    EXPECT_STREQ(name->GetText(), "k52app");
    auto* v4l2 = factory->FirstChildElement("v4l2");
    ASSERT_TRUE(v4l2);
    EXPECT_STREQ(v4l2->FirstChildElement("capabilities")->FirstChildElement("driver")->GetText(),
                 reinterpret_cast<const char*>(resources.v4l2().getCapabilities().driver));

    auto formats = resources.v4l2().getCaptureResolutions();
    auto* formatsElement = v4l2->FirstChildElement("formats");
    EXPECT_EQ(formatsElement->FirstChildElement("count")->UnsignedText(), formats.size());
    for (const auto& format : formats) {
        std::string fourcc = utils::IOV4L2::fourccToString(format.description.pixelformat);
        auto* element = formatsElement->FirstChildElement(fourcc.c_str());
        ASSERT_TRUE(element) << fourcc;
        EXPECT_EQ(element->FirstChildElement("fourcc")->UnsignedText(), format.description.pixelformat);
        auto* size = element->FirstChildElement("resolutions")->FirstChildElement();
        for (const auto& expected : format.sizes) {
            ASSERT_TRUE(size) << fourcc;
            EXPECT_EQ(size->FirstChildElement("width")->UnsignedText(), expected.width);
            EXPECT_EQ(size->FirstChildElement("height")->UnsignedText(), expected.height);
            size = size->NextSiblingElement();
        }
        EXPECT_FALSE(size) << "more resolutions than the device offers";
    }
    EXPECT_GE(formats.size(), 2u);

    auto controls = resources.v4l2().getControls();
    auto* controlsElement = v4l2->FirstChildElement("controls");
    EXPECT_EQ(controlsElement->FirstChildElement("count")->UnsignedText(), controls.size());
    bool sawMenu = false;
    for (const auto& [id, control] : controls) {
        auto* element = controlsElement->FirstChildElement(("id-" + std::to_string(id)).c_str());
        ASSERT_TRUE(element) << id;
        EXPECT_STREQ(element->FirstChildElement("name")->GetText(),
                     reinterpret_cast<const char*>(control.query.name));
        EXPECT_EQ(element->FirstChildElement("max")->IntText(), control.query.maximum);
        if (control.query.type == V4L2_CTRL_TYPE_MENU) {
            sawMenu = true;
            auto* menu = element->FirstChildElement("menu");
            ASSERT_TRUE(menu);
            for (const auto& entry : control.menu) {
                auto* item = menu->FirstChildElement(("index-" + std::to_string(entry.index)).c_str());
                ASSERT_TRUE(item);
                EXPECT_STREQ(item->FirstChildElement("name")->GetText(),
                             reinterpret_cast<const char*>(entry.name));
            }
        }
    }
    EXPECT_TRUE(sawMenu) << "the emulated sensor offers a menu control";
    // An integer menu's entries are its values in decimal, not the bytes that share their storage.
    tinyxml2::XMLHandle frequencies = tinyxml2::XMLHandle(controlsElement)
                                          .FirstChildElement(("id-" + std::to_string(V4L2_CID_LINK_FREQ)).c_str())
                                          .FirstChildElement("menu");
    for (auto [index, value] : {std::pair{"index-0", "594000000"}, {"index-1", "297000000"}}) {
        auto* entry = frequencies.FirstChildElement(index).FirstChildElement("name").ToElement();
        ASSERT_TRUE(entry) << index;
        EXPECT_STREQ(entry->GetText(), value);
    }

    // Static files: one empty element per image, in file-name order.
    std::vector<std::string> listed;
    auto* staticFiles = factory->FirstChildElement("static-files");
    for (auto* e = staticFiles->FirstChildElement(); e; e = e->NextSiblingElement()) {
        listed.push_back(e->Name());
        EXPECT_FALSE(e->FirstChild());
    }
    EXPECT_EQ(listed, (std::vector<std::string>{"_x32__x20_bars.pgm", "a_x26_b.pgm", "gradient.pgm"}));
    EXPECT_EQ(resources.staticFrames().size(), 3u);
}

TEST(ResourceManager, ToleratedInitialisationFailuresAreLoggedAndStartUpGoesOn)
{
    struct Case {
        const char* fault;
        const char* path;
        const char* line;
    };
    const Case cases[] = {
        {"emulated-fault-open", "/dev/k52rtu", "K52ResourceManager: RTU initialization failed: "},
        {"emulated-fault-io", "/dev/k52rtu", "K52ResourceManager: RTU initialization failed: "},
        {"emulated-fault-open", "/dev/k52af",
         "K52ResourceManager: No autofocus device configured. check your configuration"},
        {"emulated-fault-open", "/dev/k52illum",
         "K52ResourceManager: No autofocus device configured. check your configuration"},
        {"emulated-fault-open", "/dev/k52tof", "K52ResourceManager: ToF initialization failed: "},
        {"emulated-fault-open", "/dev/i2c-5", "K52ResourceManager: SmartSensor initialization failed: "},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.fault) + " " + c.path);
        Daemon daemon({{c.fault, std::string(c.path)}});
        k52test::SyslogCapture capture;
        K52ResourceManager resources(*daemon.parser);
        EXPECT_TRUE(logged(capture, c.line));
        EXPECT_TRUE(logged(capture, "K52ResourceManager Initialized."));
    }
}

TEST(ResourceManager, SuccessfulStartUpLogsEveryDevice)
{
    Daemon daemon;
    k52test::SyslogCapture capture;
    K52ResourceManager resources(*daemon.parser);
    for (const char* line : {"K52ResourceManager: mutexes initialized.", "RTU initialized with CMOS chip 'imx296'",
                             "K52ResourceManager: AutoFocus device initialized.",
                             "K52ResourceManager: Illumination device initialized.", "IMX initialized.",
                             "K52ResourceManager: V4L2 initialized.", "SmartSensor initialized.",
                             "ToF initialized.", "K52ResourceManager: socket-ctrl initialized.",
                             "K52ResourceManager: socket-stream initialized.",
                             "K52ResourceManager: static files initialized."})
        EXPECT_TRUE(logged(capture, line)) << line;
    EXPECT_TRUE(logged(capture, "SmartSensor booting '" + daemon.config.values().at("smart-sensor-fw-path") +
                                    "' to 0x40@/dev/i2c-5'."));
}

TEST(ResourceManager, FatalConfigurationAndDeviceFailures)
{
    struct Case {
        EmulatedConfig::Overrides overrides;
        const char* message;
        bool configNotFound;
    };
    const Case cases[] = {
        {{{"tof-path", std::nullopt}}, "map::at", true},
        {{{"rtu-path", std::nullopt}}, "map::at", true},
        {{{"rtu-i2c-address", std::string("abc")}}, "stoi", true},
        {{{"button-line", std::string("99999999999")}}, "stoi", true},
        {{{"socket-stream", std::nullopt}}, "K52ResourceManager: 'socket-ctrl' or 'socket-ctrl' have invalid values", false},
        {{{"socket-ctrl", std::string("5000")}, {"socket-stream", std::string("5000")}},
         "K52ResourceManager: 'socket-ctrl' or 'socket-ctrl' have invalid values", false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.message);
        Daemon daemon(c.overrides);
        k52test::SyslogCapture capture;
        EXPECT_THAT([&] { K52ResourceManager resources(*daemon.parser); },
                    testing::ThrowsMessage<utils::UtilsOutOfRangeError>(testing::StrEq(c.message)));
        EXPECT_EQ(logged(capture, std::string("K52ResourceManager: config not found.") + c.message),
                  c.configNotFound);
        EXPECT_FALSE(std::filesystem::exists(daemon.config.containerDir() + "k52XMLContainer"));
    }
}

TEST(ResourceManager, DevicesThatMustOpenFailStartUp)
{
    for (const char* path : {"/dev/imx0", "/dev/video0"}) {
        SCOPED_TRACE(path);
        Daemon daemon({{"emulated-fault-open", std::string(path)}});
        EXPECT_THROW(K52ResourceManager resources(*daemon.parser), utils::IOError);
        EXPECT_FALSE(std::filesystem::exists(daemon.config.containerDir() + "k52generalContainer"));
    }
}

TEST(ResourceManager, PortIsTruncatedToSixteenBits)
{
    uint16_t port = k52test::freePort();
    Daemon daemon({{"socket-ctrl", std::to_string(port + 65536)}});
    K52ResourceManager resources(*daemon.parser);
    EXPECT_EQ(resources.controlSocket().localPort(), port);
}

} // namespace
