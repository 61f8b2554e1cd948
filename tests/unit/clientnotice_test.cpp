#include "client/notice.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <zlib.h>

#include <cstring>
#include <stdexcept>

namespace {

void put(std::string& bytes, size_t offset, uint32_t value)
{
    std::memcpy(bytes.data() + offset, &value, sizeof value);
}

// A frame built the way the wire description says, checksummed with zlib.
std::string frame(const std::string& text)
{
    size_t n = text.size() + 1;
    std::string bytes(20 + n, '\0');
    put(bytes, 0, 0x0510FFFF);
    put(bytes, 4, static_cast<uint32_t>(20 + n));
    put(bytes, 8, 0x052A1001);
    put(bytes, 12, static_cast<uint32_t>(8 + n));
    std::memcpy(bytes.data() + 16, text.c_str(), n);
    auto crc = crc32(0, reinterpret_cast<const Bytef*>(bytes.data()), static_cast<uInt>(16 + n));
    put(bytes, 16 + n, static_cast<uint32_t>(crc));
    return bytes;
}

const std::string example = "<font color=#121212>[26-11-14 00:05:09] k52app-v1.3.1@unknown-host "
                            "<\\font><font color=#3b65e3>Hello<\\font>";

TEST(ClientNotice, UnpacksAndParsesAWellFormedFrame)
{
    std::string text = k52client::unpackFrame(frame(example));
    EXPECT_EQ(text, example);
    auto notice = k52client::parseNotice(text);
    ASSERT_TRUE(notice);
    EXPECT_EQ(notice->color, 0x3B65E3u);
    EXPECT_EQ(notice->time, "26-11-14 00:05:09");
    EXPECT_EQ(notice->origin, "k52app-v1.3.1@unknown-host");
    EXPECT_EQ(notice->message, "Hello");
    EXPECT_FALSE(notice->isAcknowledgement());
}

TEST(ClientNotice, RejectsDamagedFrames)
{
    struct Case {
        const char* what;
        size_t offset;
        char value;
        const char* error;
    };
    const Case cases[] = {
        {"magic", 0, 0x00, "bad frame magic"},
        {"kind", 8, 0x00, "bad frame kind"},
        {"remaining", 12, 0x7F, "remaining length"},
        {"text", 40, 'X', "frame checksum"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        std::string bytes = frame(example);
        bytes[c.offset] = c.value;
        EXPECT_THAT([&] { k52client::unpackFrame(bytes); },
                    testing::ThrowsMessage<std::runtime_error>(testing::HasSubstr(c.error)));
    }
    EXPECT_THROW(k52client::unpackFrame(frame(example).substr(0, 30)), std::runtime_error);
}

TEST(ClientNotice, TellsAcknowledgementsFromNotices)
{
    struct Case {
        uint32_t color;
        const char* message;
        bool acknowledgement;
        const char* status;
        const char* reply;
    };
    const Case cases[] = {
        {0x788A3D, "OK : GetRTUFPS: FPS: 30", true, "OK", "GetRTUFPS: FPS: 30"},
        {0xFF9D00, "ErrorIOException : GetRTUFPS: Input/output error", true, "ErrorIOException",
         "GetRTUFPS: Input/output error"},
        {0xC81919, "Error : Success : Unknown route 'X'.", true, "Error", "Success : Unknown route 'X'."},
        {0xFF9D00, "Button : Rising Edge Detected.", false, "Button", "Rising Edge Detected."},
        {0x3B65E3, "Button : Falling Edge Detected.", false, "Button", "Falling Edge Detected."},
        {0x3B65E3, "Benchmark = '30.0' FPS", false, "", "Benchmark = '30.0' FPS"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.message);
        char color[8];
        std::snprintf(color, sizeof color, "%x", c.color);
        auto notice = k52client::parseNotice(
            std::string("<font color=#121212>[26-11-14 00:05:09] k52app-v1.3.1@cam <\\font><font color=#") +
            color + ">" + c.message + "<\\font>");
        ASSERT_TRUE(notice);
        EXPECT_EQ(notice->origin, "k52app-v1.3.1@cam");
        EXPECT_EQ(notice->isAcknowledgement(), c.acknowledgement);
        EXPECT_EQ(notice->status(), c.status);
        EXPECT_EQ(notice->reply(), c.reply);
    }
}

TEST(ClientNotice, RefusesTextOfAnotherShape)
{
    for (const char* text : {"", "hello", "<font color=#121212>[x] y <\\font>",
                             "<font color=#121212>[t] o <\\font><font color=#zz>m<\\font>"}) {
        SCOPED_TRACE(text);
        EXPECT_FALSE(k52client::parseNotice(text));
    }
}

} // namespace
