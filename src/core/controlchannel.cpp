// The control channel: one command per carriage-return-terminated payload.
#include "core/core.h"

#include "utils/log/logrecord.h"

#include <cerrno>
#include <cstring>

namespace k52app {

namespace {

constexpr uint32_t dispatchErrorColor = 0xC81919;

} // namespace

Core::Channel Core::controlChannel()
{
    return {"CTRL", resources_.controlSocket(), resources_.getMutex(K52ResourceGroups::CTRL_SOCKET), true};
}

void Core::ctrlSocketHandler() { acceptClients(controlChannel(), &Core::ctrlProducerTask); }

void Core::ctrlProducerTask(int client)
{
    receiveUntilGone(controlChannel(), client, [this, client](const std::string& payload) {
        auto end = payload.find('\r');
        if (end == std::string::npos) {
            K52_LOG(warn) << "CTRL client: No Delimiter in the command='" << payload << "'";
            return;
        }
        // Whatever follows the first carriage return (a line feed, more commands) is dropped.
        std::string command = payload.substr(0, end);
        K52_LOG(debug) << "CTRL client " << client << " Received message: '" << command << "'.";
        if (command.empty()) {
            K52_LOG(warn) << "-- skipping empty command.";
            return;
        }
        handleCommand(command);
    });
}

void Core::handleCommand(const std::string& command)
{
    try {
        utils::Spinner spinner = router_.dispatch(command);
        K52_LOG(debug) << "Dispatched Spinner: " << spinner.name();
        spinnerPool_.enqueue(spinner);
    } catch (const std::exception& e) {
        K52_LOG(err) << e.what();
        std::string text = std::string("Error : ") + std::strerror(errno) + " : " + e.what();
        try {
            ackReport_.sendColoredMessage(dispatchErrorColor, text);
        } catch (const std::exception& sendError) {
            K52_LOG(warn) << "CTRL client: error notice not sent: " << sendError.what();
        }
    }
}

} // namespace k52app
