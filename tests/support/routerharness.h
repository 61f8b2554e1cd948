#pragma once

#include "core/core.h"
#include "utils/config/configparser.h"
#include "support/emulatedconfig.h"
#include "utils/platform/emulated/board.h"

#include <memory>
#include <vector>

namespace k52test {

// One command and its exact reply; a null message checks only the status.
struct Exchange {
    const char* command;
    const char* status;
    const char* message;
};

// The daemon's components without its threads: an emulated board, the resource manager built
// from a private copy of the example configuration, the capture, the reporter and the router
// with every family registered. Routes run synchronously through run().
class RouterHarness {
public:
    explicit RouterHarness(const EmulatedConfig::Overrides& overrides = {});
    ~RouterHarness();

    // Dispatches `command` and spins it on the calling thread.
    k52app::RouteReply run(const std::string& command);

    // The emulated board behind the daemon (inject faults, press the button, read models).
    utils::platform::emulated::EmulatedBoard& board() { return *board_; }

    EmulatedConfig config;
    std::unique_ptr<k52app::ConfigParser> parser;

private:
    std::shared_ptr<utils::platform::emulated::EmulatedBoard> board_;
    std::unique_ptr<k52app::CoreComponents> components_;

public:
    // The daemon's own components, wired as its core wires them.
    k52app::K52ResourceManager* resources = nullptr;
    k52app::Capture* capture = nullptr;
    k52app::K52CommandRouter* router = nullptr;
};

// Runs each command in turn on `h` and checks its reply.
void expectExchanges(RouterHarness& h, const std::vector<Exchange>& exchanges);

} // namespace k52test
