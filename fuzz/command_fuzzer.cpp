// One command line dispatched and run on the emulated board, as the control channel hands it to
// the router: the text before the first carriage return, any route, any words.
#include "support/routerharness.h"
#include "utils/router/commandrouter.h"

#include <cstddef>
#include <cstdint>
#include <exception>
#include <memory>
#include <sstream>
#include <string>

namespace {

// The stream runs until a second thread stops it, and the harness runs routes synchronously on
// one thread (see docs/reliability.md).
bool excluded(const std::string& command)
{
    // The route is the first word as the router splits it (any white space separates).
    std::istringstream words(command);
    std::string route;
    words >> route;
    return route == "CaptureStreamStart";
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    // One board for the whole run: building it per input would dominate the run time, and
    // state left by one command is part of what the next one meets.
    static auto harness = std::make_unique<k52test::RouterHarness>();
    std::string payload(reinterpret_cast<const char*>(data), size);
    std::string command = payload.substr(0, payload.find('\r'));
    if (command.empty() || excluded(command))
        return 0;
    try {
        harness->run(command);
    } catch (const std::exception&) {
        // The daemon answers these with an error notice.
    }
    return 0;
}
