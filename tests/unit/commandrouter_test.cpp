#include "utils/base/exceptions.h"
#include "utils/base/strings.h"
#include "utils/router/commandrouter.h"
#include "utils/router/spinnerpool.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <sstream>
#include <thread>

using namespace utils;

namespace {

SpinnerArgumentMetaData numeric(const std::string& name, std::string defaultValue = "", int64_t count = 1)
{
    return {name, name + " value", SpinnerArgumentType::numerical, SpinnerArgumentNumericalLimit{0, 10, 1},
            isNumericalString, std::move(defaultValue), count};
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
        router.registerRoute("Defaulted", "period with default", {{numeric("a"), numeric("period", "1000")}}, echo);
        router.registerRoute("Pair", "two values", {{numeric("xy", "", 2)}}, echo);
        router.registerRoute("Bounds", "uncounted", {{numeric("mode"), numeric("bounds", "", -1)}}, echo);
        router.registerRoute("Format", "categorical",
                             {{{"fourcc", "pixel format", SpinnerArgumentType::categorical,
                                std::vector<std::string>{"GREY", "RGB3"},
                                [](const std::string& s) { return s == "GREY" || s == "RGB3"; }, "", 1}}},
                             echo);
        router.registerRoute("aLower", "", {}, echo); // lower case sorts after every upper-case name
    }
    CommandRouter router;
};

TEST_F(CommandRouterTest, BindsArgumentsAsDeclaredAndAnswersHelp)
{
    const std::pair<const char*, const char*> cases[] = {
        {"NoArgs extra 1", "[extra][1]"}, // undeclared words reach the handler
        {"One -1", "[-1]"},               // negatives pass the integer validator
        {"One", ""},                      // missing: the handler reports it
        {"  One\t7  ", "[7]"},            // blanks and tabs separate words
        {"Defaulted 3", "[3][1000]"},     // a declared default fills in
        {"Defaulted 3 20", "[3][20]"},
        {"Defaulted", ""},                // nothing before the default: no default
        {"Pair 1", "[1]"},
        {"Bounds 1 2 3 4 5", "[1][2][3][4][5]"},
        {"Format RGB3", "[RGB3]"},
        {"One 99999999999", "[99999999999]"}, // limits are the handler's business
        {"help", "7 routes: Bounds Defaulted Format NoArgs One Pair aLower"},
        {"help Defaulted",
         "Defaulted - period with default; a: a value [a numerical value (0..10), count 1]; "
         "period: period value [a numerical value (0..10), default 1000, count 1]"},
    };
    for (const auto& [command, bound] : cases) {
        Spinner spinner = router.dispatch(command);
        std::string route;
        std::istringstream(command) >> route;
        EXPECT_EQ(spinner.name(), route);
        EXPECT_EQ(spinner.spin(), SpinnerReply("OK", bound)) << command;
    }
}

TEST_F(CommandRouterTest, RefusesWithATextNamingWhatWasExpected)
{
    const std::pair<const char*, const char*> cases[] = {
        {"one 1", "Unknown route 'one'. Send \"help\" for the list of routes."},
        {"", "Empty command: expected a route name."},
        {"One 1.5", "One: argument 'value' expects a numerical value (-2147483648..2147483647), got '1.5'."},
        {"Pair 1 b", "Pair: argument 'xy' expects a numerical value (0..10), got 'b'."},
        {"Bounds 1 2 z", "Bounds: argument 'bounds' expects a numerical value (0..10), got 'z'."},
        {"Format YUYV", "Format: argument 'fourcc' expects a categorical value (GREY|RGB3), got 'YUYV'."},
    };
    for (const auto& [command, message] : cases)
        EXPECT_THAT([&] { router.dispatch(command); },
                    testing::ThrowsMessage<UtilsRuntimeError>(testing::StrEq(message)))
            << command;
}

TEST(SpinnerPool, FifoBoundedEmptyWaitAndWakeOnEnqueue)
{
    SpinnerPool pool;
    for (const char* name : {"a", "b", "c"})
        pool.enqueue(Spinner(name, echo, {}));
    EXPECT_EQ(pool.size(), 3u);
    for (const char* name : {"a", "b", "c"})
        EXPECT_EQ(pool.dequeue().name(), name);
    using clock = std::chrono::steady_clock;
    auto start = clock::now();
    EXPECT_THAT([&] { pool.dequeue(); }, testing::ThrowsMessage<UtilsException>("SpinnerPool is empty."));
    EXPECT_GE(clock::now() - start, SpinnerPool::idleWait);
    EXPECT_LT(clock::now() - start, SpinnerPool::idleWait * 5);
    // A waiting consumer is woken by the enqueue, not by its own timeout.
    std::jthread producer([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        pool.enqueue(Spinner("late", echo, {}));
    });
    start = clock::now();
    EXPECT_EQ(pool.dequeue().name(), "late");
    EXPECT_LT(clock::now() - start, SpinnerPool::idleWait / 2);
}

} // namespace
