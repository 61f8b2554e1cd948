// The stream channel: frames go out on it; what a client sends is only logged, and its
// departure stops a running stream.
#include "core/core.h"

#include "k52app/logrecord.h"
#include "utils/base/exceptions.h"

#include <pthread.h>

namespace k52app {

namespace {

constexpr auto retryPause = std::chrono::milliseconds(100);

} // namespace

void Core::streamSocketHandler()
{
    const auto id = pthread_self();
    auto& socket = resources_.streamSocket();
    K52_LOG(info) << "STREAM-HANDLER<" << id << ">: started.";
    while (running) {
        try {
            int client = socket.acceptConnection();
            K52_LOG(info) << "STREAM-HANDLER<" << id << ">: handle STREAM client spinner " << client;
            streamConsumerTask(client);
            K52_LOG(info) << "STREAM-HANDLER<" << id << ">: release STREAM client spinner " << client;
        } catch (const utils::UtilsTimeoutException&) {
            std::this_thread::sleep_for(retryPause);
        } catch (const utils::UtilsRuntimeError&) {
            K52_LOG(info) << "STREAM-HANDLER<" << id << ">: Something went wrong in accepting connection";
        }
    }
    K52_LOG(info) << "STREAM-HANDLER<" << id << ">: joined.";
}

void Core::streamConsumerTask(int client)
{
    auto& socket = resources_.streamSocket();
    std::mutex& group = resources_.getMutex(K52ResourceGroups::STREAM_SOCKET);
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
        K52_LOG(debug) << "STREAM client " << client << " Recevied payload : " << payload.size() << "B.";
        if (payload.empty() || !running)
            break;
        K52_LOG(debug) << "STREAM client " << client << " Received message: '" << payload << "'.";
    }
    K52_LOG(debug) << "STREAM client disconnected.";
    capture_.streamStop();
    std::lock_guard lock(group);
    socket.close(client);
}

} // namespace k52app
