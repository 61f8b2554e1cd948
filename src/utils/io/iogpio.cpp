#include "utils/io/iogpio.h"

#include "utils/base/exceptions.h"
#include "utils/platform/kernel.h"

#include <linux/gpio.h>
#include <poll.h>

#include <cerrno>
#include <cstring>

namespace utils {

namespace {

// The line whose watcher runs on this thread. Its callbacks' calls into that line must not
// wait for the state lock: close() holds it while it waits for them.
thread_local const IOGPIO* watchedLine = nullptr;

std::string chipPath(const std::string& chipName)
{
    return chipName.find('/') == std::string::npos ? "/dev/" + chipName : chipName;
}

uint32_t checkedLine(int line, int interface, int direction, int edge, const std::string& chip)
{
    const std::string where = " for line " + std::to_string(line) + " of '" + chip + "'";
    if (line < 0)
        throw UtilsRuntimeError("IOGPIO: invalid line number" + where + ".");
    if (interface != 0)
        throw UtilsRuntimeError("IOGPIO: unsupported interface " + std::to_string(interface) +
                                where + " (0: character device).");
    if (direction != 0)
        throw UtilsRuntimeError("IOGPIO: unsupported direction " + std::to_string(direction) +
                                where + " (0: input).");
    if (edge < 0 || edge > 3)
        throw UtilsRuntimeError("IOGPIO: invalid edge " + std::to_string(edge) + where +
                                " (0 none, 1 rising, 2 falling, 3 both).");
    return static_cast<uint32_t>(line);
}

} // namespace

IOGPIO::IOGPIO(int line, int interface, int direction, int edge, const std::string& chipName)
    : IOFile(chipPath(chipName), O_RDONLY | O_CLOEXEC),
      line_(checkedLine(line, interface, direction, edge, chipPath(chipName))),
      edge_(static_cast<Edge>(edge))
{
}

IOGPIO::~IOGPIO()
{
    watcher_ = {};
    lineFd_.reset();
}

void IOGPIO::open()
{
    if (watchedLine == this)
        return; // open, or closing, and then close() wins
    std::lock_guard lock(stateMutex_);
    if (lineFd_.valid())
        return;
    IOFile::open();
    try {
        gpiochip_info chip{};
        control(GPIO_GET_CHIPINFO_IOCTL, &chip, "Unable to read the chip information of");
        if (line_ >= chip.lines)
            throw IOError("IOGPIO: '" + path() + "' has " + std::to_string(chip.lines) +
                          " lines, no line " + std::to_string(line_) + ".");

        gpio_v2_line_request request{};
        request.offsets[0] = line_;
        request.num_lines = 1;
        std::strncpy(request.consumer, "k52app", sizeof request.consumer - 1);
        request.config.flags = GPIO_V2_LINE_FLAG_INPUT;
        if (static_cast<uint32_t>(edge_) & static_cast<uint32_t>(Edge::rising))
            request.config.flags |= GPIO_V2_LINE_FLAG_EDGE_RISING;
        if (static_cast<uint32_t>(edge_) & static_cast<uint32_t>(Edge::falling))
            request.config.flags |= GPIO_V2_LINE_FLAG_EDGE_FALLING;
        control(GPIO_V2_GET_LINE_IOCTL, &request,
                ("Unable to request line " + std::to_string(line_) + " of").c_str());
        lineFd_.reset(request.fd);
    } catch (...) {
        IOFile::close();
        throw;
    }
    if (edge_ != Edge::none)
        watcher_ = std::jthread([this, fd = lineFd_.get()](std::stop_token stop) { watchEdges(stop, fd); });
}

void IOGPIO::close()
{
    if (watchedLine == this)
        throw UtilsRuntimeError("IOGPIO: close() of line " + std::to_string(line_) + " of '" +
                                path() + "' from its own edge callback.");
    std::lock_guard lock(stateMutex_);
    watcher_ = {}; // requests stop and joins: no callback runs after this
    lineFd_.reset();
    IOFile::close();
}

void IOGPIO::setCallback(Edge edge, Callback callback)
{
    std::lock_guard lock(callbacksMutex_);
    if (edge == Edge::rising)
        onRising_ = std::move(callback);
    else if (edge == Edge::falling)
        onFalling_ = std::move(callback);
    else
        throw UtilsRuntimeError("IOGPIO: a callback is set per edge, rising (1) or falling (2), "
                                "not " + std::to_string(static_cast<uint32_t>(edge)) + ".");
}

int IOGPIO::getValue() const
{
    // A callback needs no lock: close() releases the request only after the watcher has ended.
    std::unique_lock lock(stateMutex_, std::defer_lock);
    if (watchedLine != this)
        lock.lock();
    if (!lineFd_.valid())
        throw IOError("IOGPIO: line " + std::to_string(line_) + " of '" + path() +
                      "' is not open.");
    gpio_v2_line_values values{};
    values.mask = 1;
    if (platform::ioctlRetrying(lineFd_.get(), GPIO_V2_LINE_GET_VALUES_IOCTL, &values) < 0)
        fail("Unable to read the value of line " + std::to_string(line_) + " of");
    return static_cast<int>(values.bits & 1);
}

void IOGPIO::watchEdges(std::stop_token stop, int fd)
{
    watchedLine = this;
    auto& kernel = platform::kernel();
    gpio_v2_line_event events[16];
    while (!stop.stop_requested()) {
        pollfd entry{fd, POLLIN, 0};
        int ready = kernel.poll(&entry, 1, static_cast<int>(pollPeriod.count()));
        if (ready == 0)
            continue;
        ssize_t n = -1;
        if (ready > 0 && (entry.revents & POLLIN))
            n = kernel.read(fd, events, sizeof events);
        if (n < 0) {
            // Nobody to tell from here: wait and try again rather than spin on a failing line.
            std::this_thread::sleep_for(pollPeriod);
            continue;
        }
        for (size_t i = 0; i < static_cast<size_t>(n) / sizeof(gpio_v2_line_event); ++i) {
            if (events[i].id == GPIO_V2_LINE_EVENT_RISING_EDGE)
                dispatch(Edge::rising);
            else if (events[i].id == GPIO_V2_LINE_EVENT_FALLING_EDGE)
                dispatch(Edge::falling);
        }
    }
}

void IOGPIO::dispatch(Edge edge)
{
    Callback callback;
    {
        std::lock_guard lock(callbacksMutex_);
        callback = edge == Edge::rising ? onRising_ : onFalling_;
    }
    if (!callback)
        return;
    try {
        callback();
    } catch (...) {
        // The callback's owner reports its own failures; the line must stay watched.
    }
}

} // namespace utils
