#include "support/routerharness.h"
#include "support/syslogcapture.h"
#include "utils/base/strings.h"

#include <gtest/gtest.h>
#include <tinyxml2.h>
#include <zlib.h>

#include <cstring>

using utils::SpinnerArgumentMetaData;
using utils::SpinnerArgumentType;

namespace {

k52app::RouteReply noop(const std::vector<std::string>&) { return {"OK", ""}; }

tinyxml2::XMLElement* child(tinyxml2::XMLElement* e, const char* name)
{
    return e ? e->FirstChildElement(name) : nullptr;
}

std::string text(tinyxml2::XMLElement* e) { return e && e->GetText() ? e->GetText() : ""; }

// The XML container as another process reads it: checksum verified with zlib, then parsed.
void readXmlContainer(k52test::RouterHarness& h, tinyxml2::XMLDocument& document)
{
    const auto* bytes = reinterpret_cast<const unsigned char*>(&h.resources->containers().xmlContainer());
    uint32_t stored;
    std::memcpy(&stored, bytes + 229372, 4);
    ASSERT_EQ(stored, static_cast<uint32_t>(crc32(0, bytes, 229372)));
    ASSERT_EQ(document.Parse(reinterpret_cast<const char*>(bytes + 16)), tinyxml2::XML_SUCCESS);
}

const utils::SpinnerMetaData testArguments{{
    {"bounds", "the region", SpinnerArgumentType::numerical, std::monostate{}, utils::isNumericalString, "", -1},
    {"fourcc", "pixel format", SpinnerArgumentType::categorical, std::vector<std::string>{"GREY"}, {}, "", 1},
    {"odd", "an argument of an unknown type", static_cast<SpinnerArgumentType>(0), std::monostate{}, {}, "", 2},
    {"rank", "ordinal one", SpinnerArgumentType::ordinal, std::monostate{}, {}, "", 1},
}};

TEST(K52CommandRouter, EveryRouteIsRegisteredInFamilyOrderWithItsHelp)
{
    k52test::SyslogCapture capture;
    k52test::RouterHarness h;
    EXPECT_EQ(h.router->routes().size(), 119u);

    const std::vector<std::string> expectedLines = {
        "Registring K52 Routes... ", "\t* Container Routes... ", "\t* Static-Frame Routes... ",
        "\t* V4L2 Routes", "\t* IMX Routes", "\t* RTU Routes", "\t* AF Routes",
        "\t* Illumination Routes", "\t* I2C Routes", "\t* I2C-RTU Routes", "\t* SmartSensor Routes",
        "\t* ToF Routes", "\t* CPU-info Routes", "\t* GPIO Routes", "\t* Middleware/Capture",
        "Registered K52 Routes."};
    std::vector<std::string> lines;
    for (const auto& record : capture.records()) {
        if (record.text.find(":registerK52Commands] ") == std::string::npos)
            continue;
        EXPECT_NE(record.text.find("[src/core/commandrouter.cpp:"), std::string::npos) << record.text;
        std::string line = record.text.substr(record.text.find("] ") + 2);
        lines.push_back(line.substr(0, line.size() - 1));
    }
    EXPECT_EQ(lines, expectedLines);

    tinyxml2::XMLDocument document;
    readXmlContainer(h, document);
    auto* settings = child(document.RootElement(), "settings");
    ASSERT_TRUE(settings);
    size_t withHelp = 0;
    for (const auto& [name, route] : h.router->routes()) {
        auto* element = child(settings, name.c_str());
        ASSERT_TRUE(element) << name;
        EXPECT_EQ(text(child(element, "help")), route.description) << name;
        withHelp += 1;
        for (const auto& argument : route.metadata.arguments)
            EXPECT_TRUE(child(child(element, "parameter"), argument.name.c_str())) << name << " " << argument.name;
    }
    EXPECT_EQ(withHelp, 119u);
}

TEST(K52CommandRouter, RegisterRouteWritesTheHelpTreeIntoTheContainer)
{
    k52test::RouterHarness h;
    h.router->registerRoute("ZzTestRoute", "does testing", testArguments, noop);
    h.router->registerRoute("ZzBare", "no arguments", {}, noop);
    h.router->registerRoute("ZzTestRoute", "does testing again", testArguments, noop); // updates

    tinyxml2::XMLDocument document;
    readXmlContainer(h, document);
    auto* settings = child(document.RootElement(), "settings");
    auto* route = child(settings, "ZzTestRoute");
    ASSERT_TRUE(route);
    EXPECT_EQ(text(child(route, "help")), "does testing again");
    EXPECT_FALSE(route->FirstChildElement("help")->NextSiblingElement("help")) << "help duplicated";
    auto* parameters = child(route, "parameter");
    struct Expected {
        const char* name;
        const char* description;
        const char* type; // nullptr: no type element
        const char* count;
    };
    const Expected expected[] = {
        {"bounds", "the region", "numerical", "-1"},
        {"fourcc", "pixel format", "categorical", "1"},
        {"odd", "an argument of an unknown type", nullptr, "2"},
        {"rank", "ordinal one", "ordinal", "1"},
    };
    for (const auto& e : expected) {
        SCOPED_TRACE(e.name);
        auto* p = child(parameters, e.name);
        ASSERT_TRUE(p);
        EXPECT_EQ(text(child(p, "description")), e.description);
        EXPECT_EQ(text(child(p, "count")), e.count);
        if (e.type)
            EXPECT_EQ(text(child(p, "type")), e.type);
        else
            EXPECT_FALSE(child(p, "type"));
    }
    auto* bare = child(settings, "ZzBare");
    ASSERT_TRUE(bare);
    EXPECT_EQ(text(child(bare, "help")), "no arguments");
    EXPECT_FALSE(child(bare, "parameter"));
}

TEST(K52CommandRouter, ToXmlListsRoutesInByteOrderWithRepeatedParameters)
{
    k52test::RouterHarness h;
    h.router->registerRoute("ZzTestRoute", "does testing", testArguments, noop);
    h.router->registerRoute("ZzBare", "no arguments", {}, noop);

    tinyxml2::XMLDocument document;
    auto* parent = document.NewElement("status");
    document.InsertEndChild(parent);
    h.router->toXml(parent, &document);

    std::vector<std::string> names;
    for (auto* e = parent->FirstChildElement(); e; e = e->NextSiblingElement())
        names.push_back(e->Name());
    EXPECT_TRUE(std::is_sorted(names.begin(), names.end()));
    EXPECT_EQ(names.size(), h.router->routes().size());

    auto* route = child(parent, "ZzTestRoute");
    ASSERT_TRUE(route);
    EXPECT_EQ(text(child(route, "help")), "does testing");
    std::vector<std::vector<std::string>> parameters;
    for (auto* p = route->FirstChildElement("parameter"); p; p = p->NextSiblingElement("parameter")) {
        std::vector<std::string> fields;
        for (auto* f = p->FirstChildElement(); f; f = f->NextSiblingElement())
            fields.push_back(std::string(f->Name()) + "=" + text(f));
        parameters.push_back(fields);
    }
    const std::vector<std::vector<std::string>> expected = {
        {"name=bounds", "description=the region", "type=numerical", "count=-1"},
        {"name=fourcc", "description=pixel format", "type=categorical", "count=1"},
        {"name=odd", "description=an argument of an unknown type", "type=", "count=2"},
        {"name=rank", "description=ordinal one", "type=ordinal", "count=1"},
    };
    EXPECT_EQ(parameters, expected);
    auto* bare = child(parent, "ZzBare");
    ASSERT_TRUE(bare);
    EXPECT_TRUE(child(bare, "help"));
    EXPECT_FALSE(child(bare, "parameter"));
}

TEST(K52CommandRouter, PixelFormatNumbersFollowTheFourcc)
{
    auto fourcc = [](const char* c) {
        return static_cast<uint32_t>(c[0]) | static_cast<uint32_t>(c[1]) << 8 |
               static_cast<uint32_t>(c[2]) << 16 | static_cast<uint32_t>(c[3]) << 24;
    };
    const std::pair<const char*, uint32_t> table[] = {{"GREY", 1}, {"BYR2", 2}, {"UYVY", 3}, {"YUYV", 4},
                                                      {"Y444", 5}, {"NV12", 6}, {"RGB3", 7}, {"RGB4", 8}};
    for (const auto& [code, number] : table)
        EXPECT_EQ(k52app::PixelFomatMap.at(fourcc(code)), number) << code;
    EXPECT_EQ(k52app::PixelFomatMap.size(), 8u);
}

} // namespace
