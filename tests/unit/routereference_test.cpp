// The route table: registration by family, the help trees in the XML container and on demand,
// and the reference document rendered from it.
#include "core/routereference.h"
#include "support/bytes.h"
#include "support/routerharness.h"
#include "support/syslogcapture.h"
#include "utils/base/strings.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <tinyxml2.h>
#include <zlib.h>

#include <cstdlib>
#include <fstream>
#include <sstream>

using utils::SpinnerArgumentType;

namespace {

const char* const referencePath = K52_SOURCE_DIR "/docs/routes.md";

utils::SpinnerReply noReply(const std::vector<std::string>&) { return {"OK", ""}; }

std::string text(const tinyxml2::XMLElement* e) { return e && e->GetText() ? e->GetText() : ""; }

// Each child of `e` as "<name>=<text>", headed by `e`'s own name.
std::vector<std::string> fields(const tinyxml2::XMLElement* e)
{
    std::vector<std::string> out{e->Name()};
    for (auto* f = e->FirstChildElement(); f; f = f->NextSiblingElement())
        out.push_back(std::string(f->Name()) + "=" + text(f));
    return out;
}

// Registration logs each family in its order and writes every route's help into the XML container
// (read as another process reads it, checksum verified with zlib); a second registration updates
// it. The container keeps one element per argument, the on-demand rendering repeats <parameter> in
// declaration order, and an argument of unknown type has no type text.
TEST(K52CommandRouter, FamiliesAndHelpTreesInTheContainerAndOnDemand)
{
    k52test::SyslogCapture capture;
    k52test::RouterHarness h;
    const std::vector<std::string> expectedLines = {
        "Registring K52 Routes... ", "\t* Container Routes... ", "\t* Static-Frame Routes... ",
        "\t* V4L2 Routes", "\t* IMX Routes", "\t* RTU Routes", "\t* AF Routes",
        "\t* Illumination Routes", "\t* I2C Routes", "\t* I2C-RTU Routes", "\t* SmartSensor Routes",
        "\t* ToF Routes", "\t* CPU-info Routes", "\t* GPIO Routes", "\t* Middleware/Capture",
        "Registered K52 Routes."};
    const std::string marker = ":registerK52Commands] ";
    std::vector<std::string> lines; // without the record's closing line break
    for (const auto& [priority, format, entry] : capture.records())
        if (auto at = entry.find(marker); at != std::string::npos)
            lines.push_back(entry.substr(at + marker.size(), entry.size() - at - marker.size() - 1));
    EXPECT_EQ(lines, expectedLines);

    const utils::SpinnerMetaData arguments{{
        {"bounds", "the region", SpinnerArgumentType::numerical, std::monostate{}, utils::isNumericalString, "", -1},
        {"odd", "of no known type", static_cast<SpinnerArgumentType>(0), std::monostate{}, {}, "", 2},
    }};
    h.router->registerRoute("ZzTestRoute", "does testing", arguments, noReply);
    h.router->registerRoute("ZzBare", "no arguments", {}, noReply);
    h.router->registerRoute("ZzTestRoute", "does testing again", arguments, noReply);

    const auto* bytes = reinterpret_cast<const unsigned char*>(&h.resources->containers().xmlContainer());
    EXPECT_EQ(k52test::word(bytes, 229372), static_cast<uint32_t>(crc32(0, bytes, 229372)));
    tinyxml2::XMLDocument document;
    ASSERT_EQ(document.Parse(reinterpret_cast<const char*>(bytes + 16)), tinyxml2::XML_SUCCESS);
    auto* settings = document.RootElement()->FirstChildElement("settings");
    EXPECT_EQ(fields(settings->FirstChildElement("ZzBare")), (std::vector<std::string>{"ZzBare", "help=no arguments"}));
    auto* route = settings->FirstChildElement("ZzTestRoute");
    EXPECT_EQ(fields(route), (std::vector<std::string>{"ZzTestRoute", "help=does testing again", "parameter="}));
    std::vector<std::vector<std::string>> kept;
    for (auto* p = route->FirstChildElement("parameter")->FirstChildElement(); p; p = p->NextSiblingElement())
        kept.push_back(fields(p));
    EXPECT_EQ(kept, (std::vector<std::vector<std::string>>{
                        {"bounds", "description=the region", "type=numerical", "count=-1"},
                        {"odd", "description=of no known type", "count=2"}}));

    auto* parent = document.NewElement("status");
    document.InsertEndChild(parent);
    h.router->toXml(parent, &document);
    EXPECT_EQ(fields(parent->FirstChildElement("ZzBare")), (std::vector<std::string>{"ZzBare", "help=no arguments"}));
    std::vector<std::vector<std::string>> rendered;
    for (auto* p = parent->FirstChildElement("ZzTestRoute")->FirstChildElement("parameter"); p;
         p = p->NextSiblingElement("parameter"))
        rendered.push_back(fields(p));
    EXPECT_EQ(rendered, (std::vector<std::vector<std::string>>{
                            {"parameter", "name=bounds", "description=the region", "type=numerical", "count=-1"},
                            {"parameter", "name=odd", "description=of no known type", "type=", "count=2"}}));
}

// What none of the daemon's routes shows in the document below: an ordinal argument, a
// fractional limit and a pipe inside a table cell.
TEST(RouteReference, RendersWhatTheDocumentDoesNotShow)
{
    utils::CommandRouter router;
    router.registerRoute("Alpha", "Takes things.",
                         {{{"xy", "a point", SpinnerArgumentType::ordinal, std::monostate{}, nullptr, "", 2},
                           {"gain", "a|b", SpinnerArgumentType::numerical,
                            utils::SpinnerArgumentNumericalLimit{-0.5, 0.5, 0.25}, nullptr, "", 1}}},
                         noReply);
    EXPECT_THAT(k52app::renderRouteReference(router),
                testing::EndsWith("| `xy` | a point | ordinal |  |  | 2 |\n"
                                  "| `gain` | a\\|b | numerical | -0.5 to 0.5, step 0.25 |  | 1 |\n\n"));
}

// docs/routes.md is the daemon's route table rendered; it must follow every change of a route.
TEST(RouteReference, DocumentMatchesTheRouteTable)
{
    k52test::RouterHarness h;
    const std::string rendered = k52app::renderRouteReference(*h.router);

    const char* update = std::getenv("K52_UPDATE_ROUTE_REFERENCE");
    if (update && std::string(update) == "1") {
        std::ofstream(referencePath, std::ios::binary | std::ios::trunc) << rendered;
        return;
    }
    std::ifstream file(referencePath, std::ios::binary);
    std::stringstream stored;
    stored << file.rdbuf();
    EXPECT_TRUE(stored.str() == rendered)
        << referencePath << " is out of date with the route table. Regenerate it with\n"
        << "  K52_UPDATE_ROUTE_REFERENCE=1 <build>/tests/unit_routereference_test\n"
        << "and commit the result.";
}

} // namespace
