#include "core/routereference.h"
#include "support/routerharness.h"
#include "utils/base/strings.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <sstream>

namespace {

const char* const referencePath = K52_SOURCE_DIR "/docs/routes.md";

utils::SpinnerReply noReply(const std::vector<std::string>&) { return {"OK", ""}; }

TEST(RouteReference, RendersEachKindOfArgument)
{
    utils::CommandRouter router;
    router.registerRoute("Zeta", "Comes last.", {}, noReply);
    router.registerRoute(
        "Alpha", "Takes | many things.",
        {{{"fourcc", "pixel format", utils::SpinnerArgumentType::categorical,
           std::vector<std::string>{"GREY", "RGB3"}, nullptr, "", 1},
          {"period", "in ms", utils::SpinnerArgumentType::numerical,
           utils::SpinnerArgumentNumericalLimit{1, 4294967295.0, 1}, utils::isNumericalString, "1000", 1},
          {"xy", "a point", utils::SpinnerArgumentType::ordinal, std::monostate{}, nullptr, "", 2},
          {"bounds", "a|b", utils::SpinnerArgumentType::numerical,
           utils::SpinnerArgumentNumericalLimit{-2147483648.0, 0.5, 0.5}, nullptr, "", -1}}},
        noReply);

    const std::string expected =
        "## Alpha\n\nTakes | many things.\n\n"
        "```\nAlpha <fourcc> [<period>] <xy> <xy> <bounds>...\n```\n\n"
        "| Argument | Description | Type | Limits | Default | Count |\n"
        "|---|---|---|---|---|---|\n"
        "| `fourcc` | pixel format | categorical | `GREY`, `RGB3` |  | 1 |\n"
        "| `period` | in ms | numerical | 1 to 4294967295, step 1 | `1000` | 1 |\n"
        "| `xy` | a point | ordinal |  |  | 2 |\n"
        "| `bounds` | a\\|b | numerical | -2147483648 to 0.5, step 0.5 |  | all remaining words |\n"
        "\n"
        "## Zeta\n\nComes last.\n\n```\nZeta\n```\n\nNo arguments.\n\n";
    std::string reference = k52app::renderRouteReference(router);
    EXPECT_THAT(reference, testing::StartsWith("# Route reference\n\nThe daemon accepts 2 routes on its control socket."));
    EXPECT_THAT(reference, testing::EndsWith("\n" + expected));
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
