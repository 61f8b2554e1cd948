#include "utils/base/exceptions.h"
#include "utils/base/strings.h"
#include "utils/router/commandrouter.h"
#include "utils/router/spinnerpool.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <thread>

using namespace utils;

namespace {

SpinnerArgumentMetaData numeric(const std::string& name, std::string defaultValue = "",
                                int64_t count = 1)
{
    return {name, name + " value", SpinnerArgumentType::numerical,
            SpinnerArgumentNumericalLimit{0, 10, 1}, isNumericalString, std::move(defaultValue),
            count};
}

// Echoes its arguments so that a test sees exactly what dispatch bound.
SpinnerReply echo(const std::vector<std::string>& arguments)
{
    std::string text;
    for (const auto& a : arguments)
        text += "[" + a + "]";
    return {"OK", text};
}

class CommandRouterTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        router.registerRoute("NoArgs", "takes nothing", {}, echo);
        router.registerRoute("One", "one number", {{IntegerArgumentMetaData}}, echo);
        router.registerRoute("Defaulted", "period with default", {{numeric("a"), numeric("period", "1000")}},
                             echo);
        router.registerRoute("Pair", "two values", {{numeric("xy", "", 2)}}, echo);
        router.registerRoute("Bounds", "uncounted", {{numeric("mode"), numeric("bounds", "", -1)}}, echo);
        router.registerRoute("Format", "categorical",
                             {{{"fourcc", "pixel format", SpinnerArgumentType::categorical,
                                std::vector<std::string>{"GREY", "RGB3"},
                                [](const std::string& s) { return s == "GREY" || s == "RGB3"; }, "",
                                1}}},
                             echo);
    }
    CommandRouter router;
};

TEST_F(CommandRouterTest, BindsArgumentsAsDeclared)
{
    struct Case {
        const char* command;
        const char* name;
        const char* bound;
    };
    const Case cases[] = {
        {"NoArgs", "NoArgs", ""},
        {"NoArgs extra 1", "NoArgs", "[extra][1]"},   // undeclared words reach the handler
        {"One -1", "One", "[-1]"},                     // negatives pass the integer validator
        {"One", "One", ""},                            // missing: the handler reports it
        {"One 5 6", "One", "[5][6]"},
        {"  One\t7  ", "One", "[7]"},                  // blanks and tabs separate words
        {"Defaulted 3", "Defaulted", "[3][1000]"},     // a declared default fills in
        {"Defaulted 3 20", "Defaulted", "[3][20]"},
        {"Defaulted", "Defaulted", ""},                // nothing before the default: no default
        {"Pair 1 2", "Pair", "[1][2]"},
        {"Pair 1", "Pair", "[1]"},
        {"Bounds 1 2 3 4 5", "Bounds", "[1][2][3][4][5]"},
        {"Format RGB3", "Format", "[RGB3]"},
        {"One 99999999999", "One", "[99999999999]"}, // limits are the handler's business
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.command);
        Spinner spinner = router.dispatch(c.command);
        EXPECT_EQ(spinner.name(), c.name);
        EXPECT_EQ(spinner.spin().second, c.bound);
    }
}

TEST_F(CommandRouterTest, RefusesWithATextNamingWhatWasExpected)
{
    struct Case {
        const char* command;
        const char* message;
    };
    const Case cases[] = {
        {"Nope 1", "Unknown route 'Nope'. Send \"help\" for the list of routes."},
        {"one 1", "Unknown route 'one'. Send \"help\" for the list of routes."},
        {"", "Empty command: expected a route name."},
        {"One x", "One: argument 'value' expects a numerical value (-2147483648..2147483647), got 'x'."},
        {"Pair 1 b", "Pair: argument 'xy' expects a numerical value (0..10), got 'b'."},
        {"Bounds 1 2 z", "Bounds: argument 'bounds' expects a numerical value (0..10), got 'z'."},
        {"Format YUYV", "Format: argument 'fourcc' expects a categorical value (GREY|RGB3), got 'YUYV'."},
        {"One 1.5", "One: argument 'value' expects a numerical value (-2147483648..2147483647), got '1.5'."},
    };
    for (const auto& c : cases) {
        EXPECT_THAT([&] { router.dispatch(c.command); },
                    testing::ThrowsMessage<UtilsRuntimeError>(testing::StrEq(c.message)))
            << c.command;
    }
}

TEST_F(CommandRouterTest, HelpListsAndDescribesRoutes)
{
    Spinner list = router.dispatch("help");
    EXPECT_EQ(list.name(), "help");
    EXPECT_EQ(list.spin().second, "6 routes: Bounds Defaulted Format NoArgs One Pair");

    auto described = router.dispatch("help Defaulted").spin();
    EXPECT_EQ(described.first, "OK");
    EXPECT_EQ(described.second,
              "Defaulted - period with default; a: a value [a numerical value (0..10), count 1]; "
              "period: period value [a numerical value (0..10), default 1000, count 1]");

    auto unknown = router.dispatch("help Nope").spin();
    EXPECT_EQ(unknown.first, "Error");
    EXPECT_EQ(unknown.second, "help: unknown route 'Nope'.");
}

TEST_F(CommandRouterTest, TableIsOrderedByteWise)
{
    router.registerRoute("CaptureStreamStart", "", {}, echo);
    router.registerRoute("GetXmlDescriptor", "", {}, echo);
    router.registerRoute("aLower", "", {}, echo);
    std::vector<std::string> names;
    for (const auto& [name, route] : router.routes())
        names.push_back(name);
    EXPECT_TRUE(std::is_sorted(names.begin(), names.end()));
    EXPECT_EQ(names.back(), "aLower"); // lower case sorts after every upper-case name
}

TEST(SpinnerPool, FifoAndBoundedEmptyWait)
{
    SpinnerPool pool;
    for (const char* name : {"a", "b", "c"})
        pool.enqueue(Spinner(name, echo, {}));
    EXPECT_EQ(pool.size(), 3u);
    EXPECT_EQ(pool.dequeue().name(), "a");
    EXPECT_EQ(pool.dequeue().name(), "b");
    EXPECT_EQ(pool.dequeue().name(), "c");

    auto start = std::chrono::steady_clock::now();
    EXPECT_THAT([&] { pool.dequeue(); }, testing::ThrowsMessage<UtilsException>("SpinnerPool is empty."));
    auto waited = std::chrono::steady_clock::now() - start;
    EXPECT_GE(waited, SpinnerPool::idleWait);
    EXPECT_LT(waited, SpinnerPool::idleWait * 5);
}

TEST(SpinnerPool, WaitingConsumerWakesOnEnqueue)
{
    SpinnerPool pool;
    std::thread producer([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        pool.enqueue(Spinner("late", echo, {}));
    });
    EXPECT_EQ(pool.dequeue().name(), "late");
    producer.join();
}

} // namespace
