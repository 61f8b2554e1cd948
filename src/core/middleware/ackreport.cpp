#include "core/middleware/ackreport.h"

#include "core/k52resourcemanager.h"
#include "k52app/logrecord.h"
#include "utils/base/crc.h"
#include "utils/base/exceptions.h"
#include "utils/net/tcpsocket.h"
#include "utils/version.h"

#include <unistd.h>

#include <array>
#include <chrono>
#include <cstring>
#include <ctime>

namespace k52app {

namespace {

constexpr const char* headingColor = "121212";

void putWord(uint8_t* frame, size_t offset, uint32_t value)
{
    std::memcpy(frame + offset, &value, sizeof value);
}

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
    std::array<uint8_t, frameSize> frame{};
    putWord(frame.data(), 0, frameMagic);
    putWord(frame.data(), 4, static_cast<uint32_t>(frameSize));
    putWord(frame.data(), 8, frameKind);
    putWord(frame.data(), 12, static_cast<uint32_t>(frameSize - 12));

    std::string text = formatNotice(color, message);
    K52_LOG(debug) << "AckReport content:" << text;

    size_t n = text.size() + 1;
    if (n > maxTextSize)
        throw utils::UtilsError("Acknowledgement message is too big.");
    std::memcpy(frame.data() + 16, text.c_str(), n);
    putWord(frame.data(), 4, static_cast<uint32_t>(20 + n));
    putWord(frame.data(), 12, static_cast<uint32_t>(8 + n));
    uint32_t checksum = utils::CRCSum32(frame.data(), 16 + n, 0xFFFFFFFF);
    putWord(frame.data(), 16 + n, checksum);
    putWord(frame.data(), frameSize - 4, checksum);
    socket_->send(frame.data(), 20 + n);
}

} // namespace k52app
