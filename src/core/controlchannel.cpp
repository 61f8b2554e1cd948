// The control channel: one client at a time, one command per carriage-return-terminated payload.
#include "core/core.h"

#include "k52app/logrecord.h"
#include "utils/base/exceptions.h"

#include <pthread.h>

#include <cerrno>
#include <cstring>

namespace k52app {

namespace {

constexpr auto retryPause = std::chrono::milliseconds(100);
constexpr uint32_t dispatchErrorColor = 0xC81919;

} // namespace

void Core::ctrlSocketHandler()
{
    const auto id = pthread_self();
    auto& socket = resources_.controlSocket();
    std::mutex& group = resources_.getMutex(K52ResourceGroups::CTRL_SOCKET);
    K52_LOG(info) << "CTRL-HANDLER<" << id << ">: started.";
    while (running) {
        try {
            int client;
            {
                std::lock_guard lock(group);
                client = socket.acceptConnection();
            }
            K52_LOG(info) << "CTRL-HANDLER<" << id << ">: handle CTRL client spinner " << client;
            ctrlProducerTask(client);
            K52_LOG(info) << "CTRL-HANDLER<" << id << ">: release CTRL client spinner " << client;
        } catch (const utils::UtilsTimeoutException&) {
            std::this_thread::sleep_for(retryPause);
        } catch (const utils::UtilsRuntimeError&) {
            K52_LOG(info) << "CTRL-HANDLER<" << id << ">: Something went wrong in accepting connection";
        }
    }
    K52_LOG(info) << "CTRL-HANDLER<" << id << ">: joined.";
}

void Core::ctrlProducerTask(int client)
{
    auto& socket = resources_.controlSocket();
    std::mutex& group = resources_.getMutex(K52ResourceGroups::CTRL_SOCKET);
    while (!socket.isClosed(client)) {
        std::string payload;
        try {
            std::lock_guard lock(group);
            payload = socket.receive(client);
        } catch (const utils::UtilsTimeoutException&) {
            std::this_thread::sleep_for(retryPause);
            if (!running)
                break;
            continue;
        } catch (const utils::UtilsException& e) {
            std::this_thread::sleep_for(retryPause);
            K52_LOG(warn) << "STREAM client: " << e.what();
            continue;
        }
        K52_LOG(debug) << "CTRL client " << client << " Recevied payload : " << payload.size() << "B.";
        if (payload.empty() || !running)
            break;

        auto end = payload.find('\r');
        if (end == std::string::npos) {
            K52_LOG(warn) << "CTRL client: No Delimiter in the command='" << payload << "'";
            continue;
        }
        std::string command = payload.substr(0, end);
        K52_LOG(debug) << "CTRL client " << client << " Received message: '" << command << "'.";
        if (command.empty()) {
            K52_LOG(warn) << "-- skipping empty command.";
            continue;
        }
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
    K52_LOG(debug) << "CTRL client disconnected.";
    capture_.streamStop();
    std::lock_guard lock(group);
    socket.close(client);
}

} // namespace k52app
