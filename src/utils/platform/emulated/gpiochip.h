#pragma once

#include "utils/platform/emulated/virtualdevice.h"

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>

namespace utils::platform::emulated {

class EmulatedBoard;

// The board's GPIO controller, /dev/gpiochip0, speaking the character-device uAPI v2: chip and
// line info, line requests with edge detection, edge events read from the request's
// descriptor, and the line values. The camera's button sits on line 12 (pressed = high).
//
// A line request must hand back a new descriptor of the board. The chip opens it through the
// board on a hidden node (requestPath) that only yields a descriptor while the chip is
// answering a request; opened any other way, the node refuses with ENXIO.
class GPIOChip final : public VirtualDevice {
public:
    static constexpr const char* path = "/dev/gpiochip0";
    static constexpr const char* requestPath = "/dev/gpiochip0 line request";
    static constexpr uint32_t lineCount = 32;
    static constexpr uint32_t buttonLine = 12;

    explicit GPIOChip(EmulatedBoard& board);
    ~GPIOChip() override;

    std::unique_ptr<VirtualFile> open(int flags) override;

    // The button, as a finger works it: each change queues an edge event for the requests
    // watching line 12. Pressing a pressed button changes nothing.
    void press();
    void release();
    bool pressed() const;

    // Sets any input line's level; press() and release() are this on the button line.
    void setLevel(uint32_t line, bool high);

    // Watches `file` on the host so that a person can work the button of a running daemon:
    // writing "1" to it presses, "0" releases (see docs/hardware/button.md). Replaces any
    // previous watch. Throws UtilsRuntimeError when the file's directory does not exist.
    void watchButtonFile(const std::string& file);

private:
    friend void attachGPIOChip(EmulatedBoard&, const std::map<std::string, std::string>&);

    class State;
    class ChipHandle;
    class RequestNode;
    class ButtonFileWatcher;

    std::shared_ptr<State> state_;
    std::unique_ptr<ButtonFileWatcher> watcher_;
};

// Attaches /dev/gpiochip0 (and its hidden request node) to `board`. With the configuration key
// "emulated-button-file" the button also follows that host file.
void attachGPIOChip(EmulatedBoard& board,
                    const std::map<std::string, std::string>& configuration = {});

} // namespace utils::platform::emulated
