#pragma once

#include "utils/platform/filedescriptor.h"
#include "utils/io/iofile.h"

#include <chrono>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <thread>

namespace utils {

// One input line of a GPIO controller, through the GPIO character device (uAPI v2): its level,
// and its edges delivered to callbacks. open() requests the line with edge detection and
// starts the library's own thread, which waits for edge events and calls the callbacks;
// close() stops it within one poll period and releases the line. open(), close() and
// getValue() may be called from several threads at once.
class IOGPIO : public IOFile {
public:
    enum class Edge : uint32_t { none = 0, rising = 1, falling = 2, both = 3 };
    using Callback = std::function<void()>;

    // How long the event thread waits for an edge before it checks whether to stop.
    static constexpr std::chrono::milliseconds pollPeriod{50};

    // `line` on the controller `chipName` ("gpiochip0" for /dev/gpiochip0, or a path).
    // `interface` 0 is the character device, the only one supported; `direction` 0 is input,
    // the only one supported; `edge` is an Edge value and selects which edges are detected.
    // Throws UtilsRuntimeError for anything else. Nothing is opened yet.
    IOGPIO(int line, int interface, int direction, int edge, const std::string& chipName);
    ~IOGPIO() override;

    // Requests the line and starts the event thread; does nothing when already open (from a
    // callback: its line is open). Throws IOError when the controller cannot be opened or the
    // line requested (busy, no such line).
    void open() override;
    // Stops the event thread and releases the line; does nothing when closed. Once it has
    // returned no callback runs until the next open(). Must not be called from a callback
    // (the thread would wait for itself): throws UtilsRuntimeError.
    void close() override;

    // Sets the callback for Edge::rising or Edge::falling, replacing an earlier one, so
    // registering twice still gives one call per edge. Callbacks run on the event thread, one
    // at a time in the order the edges happened; an exception thrown by a callback is dropped
    // so that the line stays watched. An empty callback removes it.
    void setCallback(Edge edge, Callback callback);

    // The line's level: 1 high, 0 low. Throws IOError when closed or on failure.
    int getValue() const;

    uint32_t line() const { return line_; }

private:
    void watchEdges(std::stop_token stop, int fd);
    void dispatch(Edge edge);

    uint32_t line_;
    Edge edge_;
    // Owns the chip descriptor, the line request and the watcher, which change together. The
    // watcher never takes it, and a callback's own calls skip it, so close() may hold it while
    // it waits for the watcher to end.
    mutable std::mutex stateMutex_;
    FileDescriptor lineFd_;
    std::mutex callbacksMutex_;
    Callback onRising_;
    Callback onFalling_;
    std::jthread watcher_;
};

} // namespace utils
