#include "client/framestream.h"
#include "client/notice.h"
#include "support/bytes.h"
#include "utils/base/exceptions.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <zlib.h>

#include <cstring>
#include <functional>
#include <tuple>
#include <stdexcept>

namespace {

using k52test::word;
using testing::HasSubstr;

void put(std::string& bytes, size_t offset, uint32_t value) { std::memcpy(bytes.data() + offset, &value, 4); }

uint32_t zlibCrc(const std::string& bytes, size_t length)
{
    return static_cast<uint32_t>(crc32(0, reinterpret_cast<const Bytef*>(bytes.data()), static_cast<uInt>(length)));
}

// The messages as the protocol page draws them, checksummed with zlib.
std::string ackFrame(const std::string& text)
{
    const size_t n = text.size() + 1;
    std::string bytes(20 + n, '\0');
    for (const auto& [offset, value] :
         {std::pair<size_t, size_t>{0, 0x0510FFFF}, {4, 20 + n}, {8, 0x052A1001}, {12, 8 + n}})
        put(bytes, offset, static_cast<uint32_t>(value));
    std::memcpy(bytes.data() + 16, text.c_str(), n);
    put(bytes, 16 + n, zlibCrc(bytes, 16 + n));
    return bytes;
}

std::string frameMessage(uint32_t width, uint32_t height, uint32_t pixelFormat)
{
    const uint32_t n = width * height;
    std::string bytes(2248 + n, '\0');
    for (const auto& [offset, value] : {std::pair<size_t, uint32_t>{0, 0x0510FFFF}, {4, 2248 + n}, {2216, 0x051A0801},
                                        {2220, 20}, {2224, width}, {2228, height}, {2232, pixelFormat},
                                        {2236, 0x051A0601}, {2240, n + 8}})
        put(bytes, offset, value);
    for (uint32_t i = 0; i < n; ++i)
        bytes[2244 + i] = static_cast<char>(i * 7);
    put(bytes, 2244 + n, zlibCrc(bytes, 2244 + n));
    return bytes;
}

const std::string example = "<font color=#121212>[26-11-14 00:05:09] k52app-v1.3.1@unknown-host "
                            "<\\font><font color=#3b65e3>Hello<\\font>";

// Each check of the decoders, by one damaged byte; npos: the message as built, accepted.
TEST(Wire, DecodersAcceptWellFormedMessagesAndNameEachDamage)
{
    const std::string ack = ackFrame(example), frame = frameMessage(4, 3, 1);
    auto unpackFrame = [](const std::string& m) { EXPECT_EQ(k52client::unpackFrame(m), example); };
    auto verify = [](const std::string& m) {
        auto f = k52client::FrameStream::verify(reinterpret_cast<const uint8_t*>(m.data()), m.size());
        EXPECT_EQ(std::vector<uint32_t>({f.width, f.height, f.pixelFormat, static_cast<uint32_t>(f.size), f.crc}),
                  std::vector<uint32_t>({4, 3, 1, 12, word(m, 2256)}));
        EXPECT_EQ(f.data, reinterpret_cast<const uint8_t*>(m.data()) + 2244);
    };
    const struct {
        const std::string& message;
        std::function<void(const std::string&)> decode;
        size_t offset;
        const char* error;
    } cases[] = {
        {ack, unpackFrame, std::string::npos, ""},
        {ack, unpackFrame, 0, "bad frame magic"},
        {ack, unpackFrame, 4, "frame length"},
        {ack, unpackFrame, 8, "bad frame kind"},
        {ack, unpackFrame, 12, "remaining length"},
        {ack, unpackFrame, 40, "frame checksum"},
        {frame, verify, std::string::npos, ""},
        {frame, verify, 0, "no frame magic"},
        {frame, verify, 4, "total length"},
        {frame, verify, 2216, "frame metadata identifier"},
        {frame, verify, 2232, "unknown pixel format"},
        {frame, verify, 2236, "frame data identifier"},
        {frame, verify, 2240, "data length field"},
        {frame, verify, 2250, "CRC"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << c.error << " at " << c.offset);
        std::string bytes = c.message;
        if (c.offset == std::string::npos) {
            c.decode(bytes);
            continue;
        }
        bytes[c.offset] ^= 0x20;
        EXPECT_THAT([&] { c.decode(bytes); }, testing::ThrowsMessage<std::runtime_error>(HasSubstr(c.error)));
    }
}

TEST(Wire, EncodersWriteTheDocumentedBytes)
{
    for (const std::string& text : {std::string(), example, std::string(4075, 'x')}) {
        SCOPED_TRACE(text.size());
        utils::wire::AckFrameBuffer buffer{};
        const size_t length = utils::wire::encodeAckFrame(buffer, text);
        const std::string expected = ackFrame(text);
        EXPECT_EQ(std::string(reinterpret_cast<const char*>(buffer.data()), length), expected);
        EXPECT_EQ(word(buffer.data(), 4092), word(expected, expected.size() - 4)) << "second copy";
    }
    utils::wire::AckFrameBuffer buffer{};
    EXPECT_THAT([&] { utils::wire::encodeAckFrame(buffer, std::string(4076, 'x')); },
                testing::ThrowsMessage<utils::UtilsError>("Acknowledgement message is too big."));
}

// Replies and their colours are checked end to end; here the notices a stream client must skip
// while it waits for its acknowledgement, and texts that are no notice.
TEST(ClientNotice, TellsAcknowledgementsFromNotices)
{
    const auto notice = [](const std::string& color, const std::string& message) {
        return k52client::parseNotice("<font color=#121212>[26-11-14 00:05:09] k52app-v1.3.1@cam <\\font><font color=#" +
                                      color + ">" + message + "<\\font>");
    };
    for (const auto& [color, message, acknowledgement] :
         {std::tuple{"788a3d", "OK : GetRTUFPS: FPS: 30", true}, {"c81919", "Error : Success : Unknown route.", true},
          {"ff9d00", "Button : Rising Edge Detected.", false}, {"3b65e3", "Benchmark = '30.0' FPS", false}}) {
        SCOPED_TRACE(message);
        const auto parsed = notice(color, message);
        ASSERT_TRUE(parsed);
        EXPECT_EQ(parsed->isAcknowledgement(), acknowledgement);
        EXPECT_EQ(parsed->time, "26-11-14 00:05:09");
        EXPECT_EQ(parsed->origin, "k52app-v1.3.1@cam");
    }
    EXPECT_EQ(notice("ff9d00", "Button : Falling Edge Detected.")->reply(), "Falling Edge Detected.");
    for (const char* text : {"", "hello", "<font color=#121212>[x] y <\\font>"})
        EXPECT_FALSE(k52client::parseNotice(text)) << text;
    EXPECT_FALSE(notice("zz", "m"));
}

} // namespace
