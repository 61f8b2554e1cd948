// The loops the control and the stream channel share: one client at a time, bounded waits so
// that a stop is noticed promptly, and a departing client ends any stream it may have started.
#include "core/core.h"

#include "utils/log/logrecord.h"
#include "utils/base/exceptions.h"

#include <pthread.h>

namespace k52app {

namespace {

constexpr auto retryPause = std::chrono::milliseconds(100);

} // namespace

void Core::acceptClients(const Channel& channel, void (Core::*serve)(int))
{
    const auto id = pthread_self();
    const std::string handler = std::string(channel.name) + "-HANDLER<";
    K52_LOG(info) << handler << id << ">: started.";
    while (running) {
        try {
            int client;
            if (channel.lockAccept) {
                std::lock_guard lock(channel.group);
                client = channel.socket.acceptConnection();
            } else {
                client = channel.socket.acceptConnection();
            }
            K52_LOG(info) << handler << id << ">: handle " << channel.name << " client spinner " << client;
            (this->*serve)(client);
            K52_LOG(info) << handler << id << ">: release " << channel.name << " client spinner " << client;
        } catch (const utils::UtilsTimeoutException&) {
            std::this_thread::sleep_for(retryPause);
        } catch (const utils::UtilsRuntimeError&) {
            K52_LOG(info) << handler << id << ">: Something went wrong in accepting connection";
            // A failure that persists (no descriptor left) must not spin on the log and the group.
            std::this_thread::sleep_for(retryPause);
        }
    }
    K52_LOG(info) << handler << id << ">: joined.";
}

void Core::receiveUntilGone(const Channel& channel, int client,
                            const std::function<void(const std::string&)>& consume)
{
    while (!channel.socket.isClosed(client)) {
        std::string payload;
        try {
            std::lock_guard lock(channel.group);
            payload = channel.socket.receive(client);
        } catch (const utils::UtilsTimeoutException&) {
            std::this_thread::sleep_for(retryPause);
            if (!running)
                break; // a silent client must not keep the daemon from stopping
            continue;
        } catch (const utils::UtilsException& e) {
            std::this_thread::sleep_for(retryPause);
            // Both channels report receive errors under this label.
            K52_LOG(warn) << "STREAM client: " << e.what();
            continue;
        }
        K52_LOG(debug) << channel.name << " client " << client << " Recevied payload : " << payload.size() << "B.";
        if (payload.empty() || !running)
            break;
        consume(payload);
    }
    K52_LOG(debug) << channel.name << " client disconnected.";
    capture_.streamStop();
    std::lock_guard lock(channel.group);
    channel.socket.close(client);
}

} // namespace k52app
