#include "utils/base/exceptions.h"
#include "utils/io/iogpio.h"
#include "utils/platform/emulated/board.h"
#include "utils/platform/emulated/gpiochip.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fcntl.h>
#include <linux/gpio.h>
#include <stdlib.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <thread>
#include <vector>

using utils::IOGPIO;
using utils::platform::emulated::EmulatedBoard;
using utils::platform::emulated::Fault;
using utils::platform::emulated::GPIOChip;
using namespace std::chrono_literals;

namespace {

// What the callbacks saw, in order, and on which thread.
class EdgeLog {
public:
    void attachTo(IOGPIO& gpio)
    {
        gpio.setCallback(IOGPIO::Edge::rising, [this] { add(IOGPIO::Edge::rising); });
        gpio.setCallback(IOGPIO::Edge::falling, [this] { add(IOGPIO::Edge::falling); });
    }
    void add(IOGPIO::Edge edge)
    {
        std::lock_guard lock(mutex_);
        edges_.push_back(edge);
        threads_.push_back(std::this_thread::get_id());
        changed_.notify_all();
    }
    // The edges once `count` have arrived, or what arrived within two seconds.
    std::vector<IOGPIO::Edge> waitFor(size_t count)
    {
        std::unique_lock lock(mutex_);
        changed_.wait_for(lock, 2s, [&] { return edges_.size() >= count; });
        return edges_;
    }
    std::vector<std::thread::id> threads()
    {
        std::lock_guard lock(mutex_);
        return threads_;
    }

private:
    std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<IOGPIO::Edge> edges_;
    std::vector<std::thread::id> threads_;
};

constexpr auto rising = IOGPIO::Edge::rising;
constexpr auto falling = IOGPIO::Edge::falling;

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

    std::shared_ptr<EmulatedBoard> board_;
    std::shared_ptr<GPIOChip> chip_;
};

} // namespace

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
        EdgeLog log;
        log.attachTo(button);
        button.open();
        for (int i = 0; i < 2; ++i) {
            chip_->press();
            chip_->release();
        }
        EXPECT_EQ(log.waitFor(c.expected.size()), c.expected);
        std::this_thread::sleep_for(3 * IOGPIO::pollPeriod);
        EXPECT_EQ(log.waitFor(c.expected.size()), c.expected) << "no extra edges";
        const auto threads = log.threads();
        ASSERT_EQ(threads.size(), c.expected.size());
        EXPECT_NE(threads[0], std::this_thread::get_id());
        EXPECT_EQ(size_t(std::count(threads.begin(), threads.end(), threads[0])), threads.size());
        EXPECT_EQ(button.getValue(), 0);
        chip_->press();
        EXPECT_EQ(button.getValue(), 1);
        button.close();
        chip_->release();
        EXPECT_THROW(button.getValue(), utils::IOError) << "closed";
    }
}

TEST_F(IOGPIOTest, CloseStopsPromptlyAndReopenRegistersOnce)
{
    IOGPIO button(12, 0, 0, 3, "gpiochip0");
    EdgeLog log;
    button.open();
    log.attachTo(button);
    auto start = std::chrono::steady_clock::now();
    button.close();
    EXPECT_LT(std::chrono::steady_clock::now() - start, 500ms);

    chip_->press(); // nobody watches: no event survives the closed request
    chip_->release();

    button.open(); // the line was released, so it can be requested again
    button.open(); // a second open changes nothing
    log.attachTo(button);
    log.attachTo(button); // registering again replaces: still one call per edge
    chip_->press();
    chip_->release();
    EXPECT_EQ(log.waitFor(2), (std::vector{rising, falling}));
    std::this_thread::sleep_for(3 * IOGPIO::pollPeriod);
    EXPECT_EQ(log.waitFor(2).size(), 2u);
}

// Two "MonitorButton" commands on two workers: open() and close() race for one line request
// and its watcher while the button is worked. Every call succeeds, and once the last close()
// has returned no callback runs.
TEST_F(IOGPIOTest, ConcurrentOpenAndCloseShareOneRequest)
{
    IOGPIO button(12, 0, 0, 3, "gpiochip0");
    EdgeLog log;
    log.attachTo(button);
    std::atomic<bool> done = false;
    std::jthread presser([&] {
        for (; !done; std::this_thread::sleep_for(1ms)) {
            chip_->press();
            chip_->release();
        }
    });
    auto toggle = [&button] {
        for (int i = 0; i < 100; ++i)
            EXPECT_NO_THROW({ button.open(); button.close(); });
    };
    {
        std::jthread first(toggle);
        std::jthread second(toggle);
    }
    done = true;
    presser.join();
    const size_t seen = log.waitFor(0).size();
    chip_->press();
    chip_->release();
    std::this_thread::sleep_for(3 * IOGPIO::pollPeriod);
    EXPECT_EQ(log.waitFor(0).size(), seen);
}

TEST_F(IOGPIOTest, ACallbackThatThrowsDoesNotStopTheLine)
{
    IOGPIO button(12, 0, 0, 3, "gpiochip0");
    EdgeLog log;
    button.open();
    log.attachTo(button);
    button.setCallback(rising, [] { throw utils::IOError("no client connected"); });
    chip_->press();
    chip_->release();
    EXPECT_EQ(log.waitFor(1), (std::vector{falling}));
}

TEST_F(IOGPIOTest, FailuresNameTheLineAndTheChip)
{
    IOGPIO holder(12, 0, 0, 3, "gpiochip0");
    holder.open();
    board_->faults().inject("/dev/gpiochip1", Fault::openFails);
    struct Case {
        const char* name;
        std::function<void()> call;
        std::string expectedText;
    };
    std::vector<Case> cases = {
        {"line already requested", [] { IOGPIO(12, 0, 0, 3, "gpiochip0").open(); },
         "Device or resource busy"},
        {"no such line", [] { IOGPIO(40, 0, 0, 3, "gpiochip0").open(); }, "32 lines"},
        {"no such chip", [] { IOGPIO(12, 0, 0, 3, "gpiochip9").open(); }, "/dev/gpiochip9"},
        {"chip refuses to open", [] { IOGPIO(12, 0, 0, 3, "gpiochip1").open(); },
         "/dev/gpiochip1"},
        {"output direction", [] { IOGPIO(12, 0, 1, 3, "gpiochip0"); }, "direction 1"},
        {"sysfs interface", [] { IOGPIO(12, 1, 0, 3, "gpiochip0"); }, "interface 1"},
        {"edge out of range", [] { IOGPIO(12, 0, 0, 4, "gpiochip0"); }, "edge 4"},
    };
    for (const auto& c : cases) {
        EXPECT_THAT(c.call, testing::ThrowsMessage<utils::UtilsError>(testing::HasSubstr(c.expectedText)))
            << c.name;
    }
}

TEST_F(IOGPIOTest, AChipThatStopsAnsweringDeliversNothingAndStillCloses)
{
    IOGPIO button(12, 0, 0, 3, "gpiochip0");
    EdgeLog log;
    button.open();
    log.attachTo(button);
    board_->faults().inject(GPIOChip::path, Fault::timeout);
    chip_->press();
    std::this_thread::sleep_for(3 * IOGPIO::pollPeriod);
    EXPECT_TRUE(log.waitFor(0).empty());
    auto start = std::chrono::steady_clock::now();
    button.close();
    EXPECT_LT(std::chrono::steady_clock::now() - start, 500ms);
}

// The records a program reading the line request sees, through the seam as the driver does.
TEST_F(IOGPIOTest, EmulatedChipQueuesKernelEventRecords)
{
    auto& kernel = utils::platform::kernel();
    int chipFd = kernel.open(GPIOChip::path, O_RDONLY);
    ASSERT_GE(chipFd, 0);
    gpio_v2_line_request request{};
    request.offsets[0] = 3; // a plain line first, so that the button is index 1
    request.offsets[1] = 12;
    request.num_lines = 2;
    request.event_buffer_size = 2;
    request.config.flags = GPIO_V2_LINE_FLAG_INPUT | GPIO_V2_LINE_FLAG_EDGE_RISING |
                           GPIO_V2_LINE_FLAG_EDGE_FALLING;
    ASSERT_EQ(kernel.ioctl(chipFd, GPIO_V2_GET_LINE_IOCTL, &request), 0);
    ASSERT_GE(request.fd, EmulatedBoard::firstDescriptor);

    pollfd entry{request.fd, POLLIN, 0};
    EXPECT_EQ(kernel.poll(&entry, 1, 0), 0) << "nothing happened yet";
    chip_->press();
    chip_->release();
    chip_->press(); // the buffer holds two: the first press is lost
    EXPECT_EQ(kernel.poll(&entry, 1, 0), 1);

    gpio_v2_line_event events[4]{};
    ASSERT_EQ(kernel.read(request.fd, events, sizeof events), ssize_t(2 * sizeof events[0]));
    EXPECT_EQ(events[0].id, GPIO_V2_LINE_EVENT_FALLING_EDGE);
    EXPECT_EQ(events[1].id, GPIO_V2_LINE_EVENT_RISING_EDGE);
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(events[i].offset, 12u);
        EXPECT_EQ(events[i].seqno, uint32_t(i + 2));
        EXPECT_EQ(events[i].line_seqno, uint32_t(i + 2));
    }
    EXPECT_LE(events[0].timestamp_ns, events[1].timestamp_ns);

    gpio_v2_line_values values{0, 0b11};
    ASSERT_EQ(kernel.ioctl(request.fd, GPIO_V2_LINE_GET_VALUES_IOCTL, &values), 0);
    EXPECT_EQ(values.bits, 0b10u) << "line 3 low, button (index 1) pressed";

    kernel.close(request.fd);
    kernel.close(chipFd);
}

TEST_F(IOGPIOTest, ButtonFileWorksTheButtonOfARunningDaemon)
{
    char pattern[] = "/tmp/k52-button-XXXXXX";
    ASSERT_TRUE(::mkdtemp(pattern));
    const std::filesystem::path directory = pattern;
    const auto file = directory / "button";
    {
        std::ofstream(file) << "1\n"; // held down before start
        install({{"emulated-button-file", file.string()}});
        EXPECT_TRUE(chip_->pressed());

        IOGPIO button(12, 0, 0, 3, "gpiochip0");
        EdgeLog log;
        log.attachTo(button);
        button.open();
        std::ofstream(file) << "0\n";
        EXPECT_EQ(log.waitFor(1), (std::vector{falling}));
        // Replaced by a rename, as editors save.
        std::ofstream(directory / "button.tmp") << "1";
        std::filesystem::rename(directory / "button.tmp", file);
        EXPECT_EQ(log.waitFor(2), (std::vector{falling, rising}));
        button.close();
        utils::platform::installKernel(nullptr);
        chip_.reset();
        board_.reset(); // stops the watcher before its directory goes
    }
    std::filesystem::remove_all(directory);

    EXPECT_THROW(install({{"emulated-button-file", "/nonexistent/k52/button"}}),
                 utils::UtilsRuntimeError);
}
