#pragma once

#include "core/commandrouter.h"
#include "core/k52resourcemanager.h"
#include "core/middleware/ackreport.h"
#include "core/middleware/capture.h"
#include "k52app/configparser.h"
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
    std::unique_ptr<k52app::K52ResourceManager> resources;
    std::unique_ptr<k52app::Capture> capture;
    std::unique_ptr<k52app::AckReport> ackReport;
    std::unique_ptr<k52app::K52CommandRouter> router;

private:
    std::shared_ptr<utils::platform::emulated::EmulatedBoard> board_;
};

// Runs each command in turn on `h` and checks its reply.
void expectExchanges(RouterHarness& h, const std::vector<Exchange>& exchanges);

} // namespace k52test
