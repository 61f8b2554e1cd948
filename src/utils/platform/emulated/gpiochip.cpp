#include "utils/platform/emulated/gpiochip.h"

#include "utils/base/exceptions.h"
#include "utils/platform/filedescriptor.h"
#include "utils/platform/emulated/board.h"

#include <fcntl.h>
#include <linux/gpio.h>
#include <poll.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <algorithm>
#include <bitset>
#include <condition_variable>
#include <cstring>
#include <ctime>
#include <deque>
#include <filesystem>
#include <fstream>
#include <optional>
#include <thread>
#include <vector>

namespace utils::platform::emulated {

namespace {

uint64_t nowNs(clockid_t clock)
{
    timespec now{};
    ::clock_gettime(clock, &now);
    return uint64_t(now.tv_sec) * 1'000'000'000u + uint64_t(now.tv_nsec);
}

void copyName(char (&target)[GPIO_MAX_NAME_SIZE], const std::string& name)
{
    std::memset(target, 0, sizeof target);
    std::strncpy(target, name.c_str(), sizeof target - 1);
}

// The flags that apply to the request's line at `index`: the config's default, unless a flags
// attribute covers that line.
uint64_t lineFlags(const gpio_v2_line_config& config, uint32_t index)
{
    uint64_t flags = config.flags;
    for (uint32_t a = 0; a < std::min<uint32_t>(config.num_attrs, GPIO_V2_LINE_NUM_ATTRS_MAX); ++a) {
        const auto& attribute = config.attrs[a];
        if (attribute.attr.id == GPIO_V2_LINE_ATTR_ID_FLAGS && (attribute.mask >> index) & 1)
            flags = attribute.attr.flags;
    }
    return flags;
}

constexpr uint64_t edgeFlags = GPIO_V2_LINE_FLAG_EDGE_RISING | GPIO_V2_LINE_FLAG_EDGE_FALLING;

} // namespace

// What the chip, its open handles and its line requests share. Lock order: State, then a line
// request's queue.
class GPIOChip::State {
public:
    class LineRequest;

    explicit State(EmulatedBoard& owner) : board(owner) {}

    // The fault injected into the chip's node (the hidden request node never carries one).
    Fault fault() const { return board.faults().fault(GPIOChip::path); }

    void setLevel(uint32_t line, bool high);

    EmulatedBoard& board;
    mutable std::mutex mutex;
    std::bitset<GPIOChip::lineCount> levels;
    std::map<uint32_t, LineRequest*> owners; // requested line -> its request

    // Serialises line requests: the request being answered waits here for the hidden node.
    std::mutex requesting;
    std::optional<gpio_v2_line_request> pending;
};

// The descriptor a line request hands back: edge events to read, values to get.
class GPIOChip::State::LineRequest final : public VirtualFile {
public:
    LineRequest(std::shared_ptr<State> state, const gpio_v2_line_request& request)
        : state_(std::move(state)), request_(request)
    {
        capacity_ = request.event_buffer_size ? request.event_buffer_size : 16 * request.num_lines;
        lineSeqno_.resize(request.num_lines);
    }

    ~LineRequest() override
    {
        std::lock_guard lock(state_->mutex);
        for (uint32_t i = 0; i < request_.num_lines; ++i)
            state_->owners.erase(request_.offsets[i]);
    }

    // Called with the state locked, when `line` (one of ours) changed level.
    void lineChanged(uint32_t line, bool high)
    {
        uint32_t index = indexOf(line);
        uint64_t flags = lineFlags(request_.config, index);
        uint64_t wanted = high ? GPIO_V2_LINE_FLAG_EDGE_RISING : GPIO_V2_LINE_FLAG_EDGE_FALLING;
        if (!(flags & wanted))
            return;
        gpio_v2_line_event event{};
        event.timestamp_ns = nowNs(flags & GPIO_V2_LINE_FLAG_EVENT_CLOCK_REALTIME ? CLOCK_REALTIME
                                                                                : CLOCK_MONOTONIC);
        event.id = high ? GPIO_V2_LINE_EVENT_RISING_EDGE : GPIO_V2_LINE_EVENT_FALLING_EDGE;
        event.offset = line;
        event.seqno = ++seqno_;
        event.line_seqno = ++lineSeqno_[index];
        {
            std::lock_guard lock(queueMutex_);
            // Like the kernel's buffer: when it is full the oldest event is lost.
            if (events_.size() >= capacity_)
                events_.pop_front();
            events_.push_back(event);
        }
        queued_.notify_all();
    }

    ssize_t read(void* buffer, size_t length) override
    {
        if (state_->fault() == Fault::ioError)
            return fail(EIO);
        if (length < sizeof(gpio_v2_line_event))
            return fail(EINVAL);
        std::unique_lock lock(queueMutex_);
        // A blocking read waits, as on the real device; the driver polls first.
        queued_.wait(lock, [&] { return !events_.empty(); });
        size_t count = std::min(events_.size(), length / sizeof(gpio_v2_line_event));
        auto* out = static_cast<gpio_v2_line_event*>(buffer);
        for (size_t i = 0; i < count; ++i) {
            out[i] = events_.front();
            events_.pop_front();
        }
        return static_cast<ssize_t>(count * sizeof(gpio_v2_line_event));
    }

    int ioctl(unsigned long request, void* argument) override
    {
        if (state_->fault() == Fault::ioError)
            return fail(EIO);
        if (request != GPIO_V2_LINE_GET_VALUES_IOCTL)
            return fail(ENOTTY);
        auto* values = static_cast<gpio_v2_line_values*>(argument);
        std::lock_guard lock(state_->mutex);
        uint64_t bits = 0;
        for (uint32_t i = 0; i < request_.num_lines; ++i) {
            if ((values->mask >> i) & 1 && state_->levels.test(request_.offsets[i]))
                bits |= uint64_t(1) << i;
        }
        values->bits = bits;
        return 0;
    }

    short readyEvents() override
    {
        if (state_->fault() == Fault::timeout)
            return 0;
        std::lock_guard lock(queueMutex_);
        return events_.empty() ? 0 : POLLIN | POLLRDNORM;
    }

private:
    uint32_t indexOf(uint32_t line) const
    {
        for (uint32_t i = 0; i < request_.num_lines; ++i) {
            if (request_.offsets[i] == line)
                return i;
        }
        return 0;
    }

    std::shared_ptr<State> state_;
    const gpio_v2_line_request request_;
    size_t capacity_;
    uint32_t seqno_ = 0;
    std::vector<uint32_t> lineSeqno_;
    std::mutex queueMutex_;
    std::condition_variable queued_;
    std::deque<gpio_v2_line_event> events_;
};

void GPIOChip::State::setLevel(uint32_t line, bool high)
{
    if (line >= GPIOChip::lineCount)
        throw UtilsOutOfRangeError("GPIOChip: no line " + std::to_string(line) + " on " +
                                   GPIOChip::path + ".");
    {
        std::lock_guard lock(mutex);
        if (levels.test(line) == high)
            return;
        levels.set(line, high);
        auto owner = owners.find(line);
        // A device that has stopped answering detects nothing.
        if (owner != owners.end() && fault() != Fault::timeout)
            owner->second->lineChanged(line, high);
    }
    board.notify();
}

// The hidden node that turns the chip's pending line request into a board descriptor.
class GPIOChip::RequestNode final : public VirtualDevice {
public:
    explicit RequestNode(std::shared_ptr<State> state) : state_(std::move(state)) {}

    std::unique_ptr<VirtualFile> open(int /*flags*/) override
    {
        std::lock_guard lock(state_->mutex);
        if (!state_->pending) {
            errno = ENXIO;
            return nullptr;
        }
        const gpio_v2_line_request request = *state_->pending;
        state_->pending.reset();
        for (uint32_t i = 0; i < request.num_lines; ++i) {
            if (state_->owners.count(request.offsets[i])) {
                errno = EBUSY;
                return nullptr;
            }
        }
        auto file = std::make_unique<State::LineRequest>(state_, request);
        for (uint32_t i = 0; i < request.num_lines; ++i)
            state_->owners[request.offsets[i]] = file.get();
        return file;
    }

private:
    std::shared_ptr<State> state_;
};

// An open /dev/gpiochip0.
class GPIOChip::ChipHandle final : public VirtualFile {
public:
    explicit ChipHandle(std::shared_ptr<State> state) : state_(std::move(state)) {}

    int ioctl(unsigned long request, void* argument) override
    {
        if (state_->fault() == Fault::ioError)
            return fail(EIO);
        switch (request) {
        case GPIO_GET_CHIPINFO_IOCTL: {
            auto* info = static_cast<gpiochip_info*>(argument);
            copyName(info->name, "gpiochip0");
            copyName(info->label, "k52-gpio");
            info->lines = GPIOChip::lineCount;
            return 0;
        }
        case GPIO_V2_GET_LINEINFO_IOCTL:
            return lineInfo(*static_cast<gpio_v2_line_info*>(argument));
        case GPIO_V2_GET_LINE_IOCTL:
            return requestLines(*static_cast<gpio_v2_line_request*>(argument));
        default:
            return fail(ENOTTY);
        }
    }

    short readyEvents() override { return 0; } // no line-info watches

private:
    int lineInfo(gpio_v2_line_info& info)
    {
        uint32_t line = info.offset;
        if (line >= GPIOChip::lineCount)
            return fail(EINVAL);
        std::memset(&info, 0, sizeof info);
        info.offset = line;
        copyName(info.name, line == GPIOChip::buttonLine ? "button" : "");
        info.flags = GPIO_V2_LINE_FLAG_INPUT;
        std::lock_guard lock(state_->mutex);
        if (state_->owners.count(line)) {
            info.flags |= GPIO_V2_LINE_FLAG_USED;
            copyName(info.consumer, "requested");
        }
        return 0;
    }

    int requestLines(gpio_v2_line_request& request)
    {
        if (request.num_lines == 0 || request.num_lines > GPIO_V2_LINES_MAX)
            return fail(EINVAL);
        for (uint32_t i = 0; i < request.num_lines; ++i) {
            uint32_t line = request.offsets[i];
            if (line >= GPIOChip::lineCount ||
                std::count(request.offsets, request.offsets + i, line) > 0)
                return fail(EINVAL);
            uint64_t flags = lineFlags(request.config, i);
            // Every pin of this controller is an input; edge detection needs one.
            if ((flags & GPIO_V2_LINE_FLAG_OUTPUT) ||
                ((flags & edgeFlags) && !(flags & GPIO_V2_LINE_FLAG_INPUT)))
                return fail(EINVAL);
        }
        std::lock_guard serialised(state_->requesting);
        {
            std::lock_guard lock(state_->mutex);
            state_->pending = request;
        }
        int fd = state_->board.open(GPIOChip::requestPath, O_RDONLY | O_CLOEXEC, 0);
        int error = errno;
        {
            std::lock_guard lock(state_->mutex);
            state_->pending.reset();
        }
        if (fd < 0)
            return fail(error);
        request.fd = fd;
        return 0;
    }

    std::shared_ptr<State> state_;
};

// Follows a host file with inotify on its directory (editors replace files, and the file may
// not exist yet). The thread wakes every 100 ms to notice that it should stop.
class GPIOChip::ButtonFileWatcher {
public:
    ButtonFileWatcher(std::shared_ptr<State> state, const std::string& file)
        : state_(std::move(state)), file_(std::filesystem::absolute(file))
    {
        const auto directory = file_.parent_path();
        if (!std::filesystem::is_directory(directory))
            throw UtilsRuntimeError("GPIOChip: the directory of the emulated button file '" +
                                    file_.string() + "' does not exist.");
        inotify_ = FileDescriptor(::inotify_init1(IN_CLOEXEC | IN_NONBLOCK),
                                  FileDescriptor::Closer::system);
        if (!inotify_ || ::inotify_add_watch(inotify_.get(), directory.c_str(),
                                             IN_CLOSE_WRITE | IN_MOVED_TO) < 0) {
            std::string reason = std::strerror(errno);
            throw UtilsRuntimeError("GPIOChip: unable to watch '" + directory.string() +
                                    "' for the emulated button file: " + reason);
        }
        apply(); // a button held down before the daemon started
        thread_ = std::jthread([this](std::stop_token stop) { run(stop); });
    }

private:
    void run(std::stop_token stop)
    {
        alignas(inotify_event) char buffer[4096];
        while (!stop.stop_requested()) {
            pollfd entry{inotify_.get(), POLLIN, 0};
            if (::poll(&entry, 1, 100) <= 0)
                continue;
            bool ours = false;
            ssize_t n;
            while ((n = ::read(inotify_.get(), buffer, sizeof buffer)) > 0) {
                for (char* p = buffer; p < buffer + n;) {
                    const auto* event = reinterpret_cast<const inotify_event*>(p);
                    if (event->len && file_.filename() == event->name)
                        ours = true;
                    p += sizeof(inotify_event) + event->len;
                }
            }
            if (ours)
                apply();
        }
    }

    // "1" presses, "0" releases; anything else (an empty file mid-write) is ignored.
    void apply()
    {
        std::ifstream in(file_);
        char level = 0;
        if (in >> level && (level == '0' || level == '1'))
            state_->setLevel(GPIOChip::buttonLine, level == '1');
    }

    std::shared_ptr<State> state_;
    std::filesystem::path file_;
    FileDescriptor inotify_;
    std::jthread thread_; // last, so that it stops and joins before the descriptor closes
};

GPIOChip::GPIOChip(EmulatedBoard& board) : state_(std::make_shared<State>(board)) {}

GPIOChip::~GPIOChip() = default;

std::unique_ptr<VirtualFile> GPIOChip::open(int /*flags*/)
{
    return std::make_unique<ChipHandle>(state_);
}

void GPIOChip::press() { setLevel(buttonLine, true); }
void GPIOChip::release() { setLevel(buttonLine, false); }

bool GPIOChip::pressed() const
{
    std::lock_guard lock(state_->mutex);
    return state_->levels.test(buttonLine);
}

void GPIOChip::setLevel(uint32_t line, bool high) { state_->setLevel(line, high); }

void GPIOChip::watchButtonFile(const std::string& file)
{
    watcher_.reset();
    watcher_ = std::make_unique<ButtonFileWatcher>(state_, file);
}

void attachGPIOChip(EmulatedBoard& board, const std::map<std::string, std::string>& configuration)
{
    auto chip = std::make_shared<GPIOChip>(board);
    if (auto file = configuration.find("emulated-button-file"); file != configuration.end())
        chip->watchButtonFile(file->second);
    board.attach(GPIOChip::path, chip);
    board.attach(GPIOChip::requestPath, std::make_shared<GPIOChip::RequestNode>(chip->state_));
}

} // namespace utils::platform::emulated
