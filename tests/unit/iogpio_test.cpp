#include "utils/base/exceptions.h"
#include "utils/io/iogpio.h"
#include "utils/platform/emulated/board.h"
#include "utils/platform/emulated/gpiochip.h"
#include "support/tempdir.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <filesystem>
#include <mutex>
#include <set>
#include <thread>
#include <vector>

using utils::IOGPIO;
using utils::platform::emulated::EmulatedBoard;
using utils::platform::emulated::Fault;
using utils::platform::emulated::GPIOChip;
using namespace std::chrono_literals;

namespace {

constexpr auto rising = IOGPIO::Edge::rising;
constexpr auto falling = IOGPIO::Edge::falling;

// What the callbacks saw, in order, and on which thread.
class EdgeLog {
public:
    explicit EdgeLog(IOGPIO& gpio)
    {
        gpio.setCallback(rising, [this] { add(rising); });
        gpio.setCallback(falling, [this] { add(falling); });
    }
    void add(IOGPIO::Edge edge)
    {
        std::lock_guard lock(mutex_);
        edges_.push_back(edge);
        threads_.insert(std::this_thread::get_id());
        changed_.notify_all();
    }
    // The edges once `count` have arrived, or what arrived within two seconds.
    std::vector<IOGPIO::Edge> waitFor(size_t count)
    {
        std::unique_lock lock(mutex_);
        changed_.wait_for(lock, 2s, [&] { return edges_.size() >= count; });
        return edges_;
    }
    std::set<std::thread::id> threads()
    {
        std::lock_guard lock(mutex_);
        return threads_;
    }

private:
    std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<IOGPIO::Edge> edges_;
    std::set<std::thread::id> threads_;
};

class IOGPIOTest : public ::testing::Test {
protected:
    void SetUp() override { install({}); }
    void TearDown() override { utils::platform::installKernel(nullptr); }

    void install(const std::map<std::string, std::string>& configuration)
    {
        board_ = std::make_shared<EmulatedBoard>();
        utils::platform::emulated::attachGPIOChip(*board_, configuration);
        utils::platform::installKernel(board_);
        chip_ = std::dynamic_pointer_cast<GPIOChip>(board_->device(GPIOChip::path));
        ASSERT_TRUE(chip_);
    }
    void click(int times = 1)
    {
        for (int i = 0; i < times; ++i) {
            chip_->press();
            chip_->release();
        }
    }

    std::shared_ptr<EmulatedBoard> board_;
    std::shared_ptr<GPIOChip> chip_;
};

TEST_F(IOGPIOTest, SelectedEdgesReachTheCallbacksInOrderOnTheLibraryThread)
{
    struct Case {
        int edge;
        std::vector<IOGPIO::Edge> expected;
    };
    for (const auto& c : {Case{1, {rising, rising}}, Case{2, {falling, falling}},
                          Case{3, {rising, falling, rising, falling}}}) {
        SCOPED_TRACE(c.edge);
        IOGPIO button(12, 0, 0, c.edge, "/dev/gpiochip0");
        EdgeLog log(button);
        button.open();
        click(2);
        EXPECT_EQ(log.waitFor(c.expected.size()), c.expected);
        std::this_thread::sleep_for(3 * IOGPIO::pollPeriod);
        EXPECT_EQ(log.waitFor(c.expected.size()), c.expected) << "no extra edges";
        EXPECT_EQ(log.threads().size(), 1u) << "one library thread";
        EXPECT_FALSE(log.threads().contains(std::this_thread::get_id()));
        EXPECT_EQ(button.getValue(), 0);
        chip_->press();
        EXPECT_EQ(button.getValue(), 1);
        button.close();
        chip_->release();
        EXPECT_THROW(button.getValue(), utils::IOError) << "closed";
    }
}

// Close stops promptly, even on a chip that stopped answering; the line can be requested again,
// and a callback that throws does not stop the line.
TEST_F(IOGPIOTest, CloseStopsPromptlyAndTheLineCanBeReopened)
{
    IOGPIO button(12, 0, 0, 3, "gpiochip0");
    EdgeLog log(button);
    button.open();
    board_->faults().inject(GPIOChip::path, Fault::timeout);
    chip_->press();
    std::this_thread::sleep_for(3 * IOGPIO::pollPeriod);
    EXPECT_TRUE(log.waitFor(0).empty());
    const auto start = std::chrono::steady_clock::now();
    button.close();
    EXPECT_LT(std::chrono::steady_clock::now() - start, 500ms);
    board_->faults().clear(GPIOChip::path);
    chip_->release(); // nobody watches: no event survives the closed request

    button.open();
    button.open(); // a second open changes nothing
    button.setCallback(rising, [] { throw utils::IOError("no client connected"); });
    click();
    EXPECT_EQ(log.waitFor(1), (std::vector{falling}));
    std::this_thread::sleep_for(3 * IOGPIO::pollPeriod);
    EXPECT_EQ(log.waitFor(1).size(), 1u);
}

// Two "MonitorButton" commands on two workers: open(), setCallback() and close() race for one
// line request, its watcher and its callbacks while the button is worked. Every call succeeds,
// and once the last close() has returned no callback runs.
TEST_F(IOGPIOTest, ConcurrentOpenAndCloseShareOneRequest)
{
    IOGPIO button(12, 0, 0, 3, "gpiochip0");
    EdgeLog log(button);
    std::atomic<bool> done = false;
    std::jthread presser([&] {
        for (; !done; std::this_thread::sleep_for(1ms))
            click();
    });
    auto toggle = [&button, &log] {
        for (int i = 0; i < 100; ++i) {
            button.open();
            button.setCallback(rising, [&log] { log.add(rising); });
            button.close();
        }
    };
    {
        std::jthread first(toggle);
        std::jthread second(toggle);
    }
    done = true;
    presser.join();
    const size_t seen = log.waitFor(0).size();
    click();
    std::this_thread::sleep_for(3 * IOGPIO::pollPeriod);
    EXPECT_EQ(log.waitFor(0).size(), seen);
}

TEST_F(IOGPIOTest, FailuresNameTheLineAndTheChip)
{
    IOGPIO holder(12, 0, 0, 3, "gpiochip0");
    holder.open();
    board_->faults().inject("/dev/gpiochip1", Fault::openFails);
    const std::pair<std::function<void()>, std::string> cases[] = {
        {[] { IOGPIO(12, 0, 0, 3, "gpiochip0").open(); }, "Device or resource busy"},
        {[] { IOGPIO(40, 0, 0, 3, "gpiochip0").open(); }, "32 lines"},
        {[] { IOGPIO(12, 0, 0, 3, "gpiochip9").open(); }, "/dev/gpiochip9"},
        {[] { IOGPIO(12, 0, 0, 3, "gpiochip1").open(); }, "/dev/gpiochip1"},
        {[] { IOGPIO(12, 0, 1, 3, "gpiochip0"); }, "direction 1"},
        {[] { IOGPIO(12, 1, 0, 3, "gpiochip0"); }, "interface 1"},
        {[] { IOGPIO(12, 0, 0, 4, "gpiochip0"); }, "edge 4"},
    };
    for (const auto& [call, text] : cases)
        EXPECT_THAT(call, testing::ThrowsMessage<utils::UtilsError>(testing::HasSubstr(text)));
}

TEST_F(IOGPIOTest, ButtonFileWorksTheButtonOfARunningDaemon)
{
    k52test::TempDir dir("k52-button");
    const auto file = dir.writeFile("button", "1\n"); // held down before start
    install({{"emulated-button-file", file}});
    EXPECT_TRUE(chip_->pressed());
    {
        IOGPIO button(12, 0, 0, 3, "gpiochip0");
        EdgeLog log(button);
        button.open();
        dir.writeFile("button", "0\n");
        EXPECT_EQ(log.waitFor(1), (std::vector{falling}));
        // Replaced by a rename, as editors save.
        std::filesystem::rename(dir.writeFile("button.tmp", "1"), file);
        EXPECT_EQ(log.waitFor(2), (std::vector{falling, rising}));
    }
    utils::platform::installKernel(nullptr);
    chip_.reset();
    board_.reset(); // stops the watcher before its directory goes
    EXPECT_THROW(install({{"emulated-button-file", "/nonexistent/k52/button"}}), utils::UtilsRuntimeError);
}

} // namespace
