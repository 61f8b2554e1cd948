#pragma once

#include <cstdint>
#include <mutex>
#include <string>

namespace utils {
class TCPSocket;
}

namespace k52app {

class K52ResourceManager;

// Sends coloured notices to the control client: framed, checksummed, one write each, under
// the control socket's group so that they never interleave with other traffic.
class AckReport {
public:
    enum Color : uint32_t {
        Orange = 0xFF9D00,
        Olive = 0x788A3D,
        Red = 0xF2351F,
        Blue = 0x3B65E3,
    };

    explicit AckReport(K52ResourceManager& resources);
    AckReport(utils::TCPSocket& socket, std::mutex& socketMutex);

    // Throws UtilsError "Acknowledgement message is too big." when the notice does not fit
    // the frame, and the socket's errors when sending fails.
    void sendColoredMessage(uint32_t color, const std::string& message);
    void sendColoredMessage(Color color, const std::string& message);

    // The notice text, heading included, as it goes on the wire (without the frame).
    static std::string formatNotice(uint32_t color, const std::string& message);

private:
    utils::TCPSocket* socket_;
    std::mutex* socketMutex_;
};

} // namespace k52app
