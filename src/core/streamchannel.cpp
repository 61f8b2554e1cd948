// The stream channel: frames go out on it; what a client sends is only logged.
#include "core/core.h"

#include "utils/log/logrecord.h"

namespace k52app {

Core::Channel Core::streamChannel()
{
    return {"STREAM", resources_.streamSocket(), resources_.getMutex(K52ResourceGroups::STREAM_SOCKET), false};
}

void Core::streamSocketHandler() { acceptClients(streamChannel(), &Core::streamConsumerTask); }

void Core::streamConsumerTask(int client)
{
    receiveUntilGone(streamChannel(), client, [client](const std::string& payload) {
        K52_LOG(debug) << "STREAM client " << client << " Received message: '" << payload << "'.";
    });
}

} // namespace k52app
