#include "core/routereference.h"
#include "support/routerharness.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <sstream>

namespace {

const char* const referencePath = K52_SOURCE_DIR "/docs/routes.md";

utils::SpinnerReply noReply(const std::vector<std::string>&) { return {"OK", ""}; }

// What none of the daemon's routes shows in the document below: an ordinal argument, a
// fractional limit and a pipe inside a table cell.
TEST(RouteReference, RendersWhatTheDocumentDoesNotShow)
{
    utils::CommandRouter router;
    router.registerRoute("Alpha", "Takes things.",
                         {{{"xy", "a point", utils::SpinnerArgumentType::ordinal, std::monostate{}, nullptr, "", 2},
                           {"gain", "a|b", utils::SpinnerArgumentType::numerical,
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
