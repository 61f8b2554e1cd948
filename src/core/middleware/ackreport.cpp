#include "core/middleware/ackreport.h"

#include "core/k52resourcemanager.h"
#include "utils/log/logrecord.h"
#include "utils/net/tcpsocket.h"
#include "utils/version.h"
#include "utils/wire/ackframe.h"

#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <ctime>

namespace k52app {

namespace {

constexpr const char* headingColor = "121212";

std::string hostPart()
{
    char name[256] = {};
    if (::gethostname(name, sizeof name) != 0)
        return "@unknown-host ";
    name[sizeof name - 1] = '\0';
    return std::string("@") + name + " ";
}

std::string localTime()
{
    std::time_t now = std::chrono::system_clock::to_time_t(std::chrono::system_clock::now());
    std::tm local{};
    ::localtime_r(&now, &local);
    char text[32];
    std::strftime(text, sizeof text, "%y-%m-%d %H:%M:%S", &local);
    return text;
}

std::string lowerHex(uint32_t value)
{
    char text[16];
    std::snprintf(text, sizeof text, "%x", value);
    return text;
}

} // namespace

AckReport::AckReport(K52ResourceManager& resources)
    : AckReport(resources.controlSocket(), resources.getMutex(K52ResourceGroups::CTRL_SOCKET))
{
}

AckReport::AckReport(utils::TCPSocket& socket, std::mutex& socketMutex)
    : socket_(&socket), socketMutex_(&socketMutex)
{
}

std::string AckReport::formatNotice(uint32_t color, const std::string& message)
{
    return std::string("<font color=#") + headingColor + ">[" + localTime() + "] k52app-v" +
           utils::programVersion + hostPart() + "<\\font><font color=#" + lowerHex(color) + ">" +
           message + "<\\font>";
}

void AckReport::sendColoredMessage(Color color, const std::string& message)
{
    sendColoredMessage(static_cast<uint32_t>(color), message);
}

void AckReport::sendColoredMessage(uint32_t color, const std::string& message)
{
    std::lock_guard lock(*socketMutex_);
    const std::string text = formatNotice(color, message);
    K52_LOG(debug) << "AckReport content:" << text;
    utils::wire::AckFrameBuffer frame{};
    const size_t length = utils::wire::encodeAckFrame(frame, text);
    socket_->send(frame.data(), length);
}

} // namespace k52app
