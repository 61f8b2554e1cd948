// The capture middleware and its routes on the emulated board: row copies with and without line
// padding against zlib's checksum, size errors, the stream loop against a real stream client,
// and the capture routes' reply texts.
#include "client/framestream.h"
#include "core/middleware/capture.h"
#include "support/bytes.h"
#include "support/routerharness.h"
#include "support/syslogcapture.h"
#include "utils/base/exceptions.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <linux/videodev2.h>
#include <poll.h>
#include <zlib.h>

#include <atomic>
#include <thread>
#include <vector>

namespace {

using k52test::word;
using testing::ThrowsMessage;
using utils::IORTUTriggerMode;

constexpr uint32_t grey = V4L2_PIX_FMT_GREY;
constexpr uint32_t rgb3 = V4L2_PIX_FMT_RGB24;
constexpr size_t containerSize = 50333896;

v4l2_pix_format format(uint32_t fourcc, uint32_t width, uint32_t height)
{
    v4l2_pix_format f{};
    f.width = width, f.height = height, f.pixelformat = fourcc;
    return f;
}

class CaptureTest : public ::testing::Test {
protected:
    k52app::Capture& capture() { return *h.capture; }
    const uint8_t* container() { return reinterpret_cast<const uint8_t*>(&h.resources->containers().generalContainer()); }

    // Lengths, then the checksum at both of its places, against zlib.
    void expectFramed(size_t n)
    {
        EXPECT_EQ(word(container(), 4), 2248 + n);
        EXPECT_EQ(word(container(), 2240), n + 8);
        const auto crc = static_cast<uint32_t>(crc32(0, container(), static_cast<uInt>(2244 + n)));
        EXPECT_EQ(word(container(), 2244 + n), crc);
        EXPECT_EQ(word(container(), containerSize - 4), crc);
    }

    k52test::RouterHarness h;
};

// A stream on its own thread, stopped and joined however the test ends.
struct StreamThread {
    k52app::Capture& capture;
    std::thread thread;
    ~StreamThread()
    {
        capture.streamStop();
        if (thread.joinable())
            thread.join();
    }
};

TEST_F(CaptureTest, PaddingModeDecidesWhatOfEachRowIsStored)
{
    const struct { uint32_t fourcc, width, height, stride, channels, pixelFormat; } cases[] = {
        {grey, 5, 3, 8, 1, 1}, {rgb3, 3, 2, 12, 3, 7}, {grey, 8, 4, 8, 1, 1}};
    for (const auto& c : cases) {
        for (bool padding : {false, true}) {
            SCOPED_TRACE(::testing::Message() << c.width << " of " << c.stride << ", padding " << padding);
            const size_t rowBytes = size_t(c.width) * c.channels;
            std::vector<uint8_t> frame(size_t(c.stride) * c.height, 0xEE), expected; // 0xEE: padding
            for (size_t row = 0; row < c.height; ++row)
                for (size_t i = 0; i < rowBytes; ++i)
                    frame[row * c.stride + i] = uint8_t(16 * row + i);
            for (size_t row = 0; row < c.height; ++row) // padded rows are kept whole
                expected.insert(expected.end(), frame.begin() + row * c.stride,
                                frame.begin() + row * c.stride + (padding ? c.stride : rowBytes));
            capture().setPaddingMode(padding);
            capture().storeFrame(frame.data(), uint32_t(frame.size()), format(c.fourcc, c.width, c.height));

            EXPECT_EQ(std::vector<uint32_t>({word(container(), 2224), word(container(), 2228), word(container(), 2232)}),
                      std::vector<uint32_t>({padding ? c.stride / c.channels : c.width, c.height, c.pixelFormat}));
            EXPECT_EQ(std::vector<uint8_t>(container() + 2244, container() + 2244 + expected.size()), expected);
            expectFramed(expected.size());
        }
    }
}

TEST_F(CaptureTest, FrameSizeErrors)
{
    std::vector<uint8_t> small(64);
    auto store = [&](bool padding, v4l2_pix_format f, uint32_t usedSize) {
        capture().setPaddingMode(padding);
        capture().storeFrame(small.data(), usedSize, f);
    };
    // The checks come before any byte is read: `small` stands in for buffers far larger.
    EXPECT_THAT([&] { store(true, format(grey, 1, 1), 50331649); },
                ThrowsMessage<utils::UtilsError>("the desiered size 50331657 is invalid"));
    EXPECT_THAT([&] { store(false, format(rgb3, 8192, 8192), 8192u * 8192u * 3u); },
                ThrowsMessage<utils::UtilsError>("the desiered size 201326600 is invalid"));
    EXPECT_THAT([&] { store(false, format(grey, 8, 8), 63); },
                ThrowsMessage<utils::UtilsRuntimeError>("invalid frame buffer size."));
    EXPECT_THROW(store(false, format(V4L2_PIX_FMT_MJPEG, 8, 8), 64), std::out_of_range);

    // Exactly the capacity fits, and then both checksum stores are the same four bytes.
    std::vector<uint8_t> full(50331648, 0x5A);
    capture().setPaddingMode(true);
    capture().storeFrame(full.data(), uint32_t(full.size()), format(grey, 8192, 6144));
    expectFramed(full.size());
}

TEST_F(CaptureTest, StreamSendsEveryFrameUntilStoppedAndOffTheWireOnlyCounts)
{
    // Connected before the accept, so the accept finds it waiting; the socket owns what it accepted.
    k52client::FrameStream client("127.0.0.1", h.config.streamPort());
    h.resources->streamSocket().acceptConnection();
    const auto hasData = [&](int waitMs) {
        pollfd p{client.connection().descriptor(), POLLIN, 0};
        return ::poll(&p, 1, waitMs) == 1;
    };
    capture().setBenchmarkPeriod(100);
    std::atomic<int> reports{0};
    // An error of the stream becomes a failure.
    StreamThread stream{capture(), std::thread([&] {
                 try {
                     capture().streamStart(grey, 0, [&](float rate) { reports += rate > 0; });
                 } catch (const std::exception& e) {
                     ADD_FAILURE() << "stream ended with: " << e.what();
                 }
             })};
    for (int i = 0; i < 5; ++i) // each verified by the client: layout, lengths, CRC
        ASSERT_EQ(client.next(std::chrono::seconds(3)).size, 640u * 480u);

    capture().setStreamOverWire(false);
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    for (int i = 0; i < 50 && hasData(50); ++i) // frames sent before the switch; bounded, should sending go on
        client.next(std::chrono::seconds(1));
    const std::vector<uint8_t> before(container(), container() + 2244 + 640 * 480 + 4);
    const int reportsBefore = reports;
    std::this_thread::sleep_for(std::chrono::milliseconds(400));
    EXPECT_FALSE(hasData(0));
    EXPECT_EQ(std::vector<uint8_t>(container(), container() + before.size()), before);
    EXPECT_GT(reports.load(), reportsBefore) << "frames are still counted";

    capture().streamStop();
    stream.thread.join();
    EXPECT_FALSE(capture().isStreaming());
    EXPECT_FALSE(h.resources->v4l2().isStreaming()) << "the stream leaves the device stopped";
}

// A full frame leaves in parts while it is copied; a client that goes mid-stream ends the stream
// with the send's error, and the frame being stored is still completed in the container.
TEST_F(CaptureTest, AFailedSendEndsTheStreamAndLeavesTheFrameWhole)
{
    auto client = std::make_unique<k52client::FrameStream>("127.0.0.1", h.config.streamPort());
    h.resources->streamSocket().acceptConnection();
    std::string failure;
    StreamThread stream{capture(), std::thread([&] {
                            try {
                                capture().streamStart(grey, 2, [](float) {});
                            } catch (const utils::IOError& e) {
                                failure = e.what();
                            }
                        })};
    EXPECT_EQ(client->next(std::chrono::seconds(5)).size, 2472u * 2064u);
    client.reset();
    stream.thread.join();
    EXPECT_THAT(failure, testing::HasSubstr("Unable to send"));
    expectFramed(2472u * 2064u);
}

TEST_F(CaptureTest, ShortFrameEndsTheStreamAndFailedStartsAreLogged)
{
    k52test::SyslogCapture log;
    h.board().faults().inject("/dev/video0", utils::platform::emulated::Fault::shortFrame);
    const k52app::RouteReply failed{"ErrorRuntimeError", "CaptureStart: invalid frame buffer size."};
    EXPECT_EQ(h.run("CaptureStreamStart GREY 1"), failed);
    EXPECT_TRUE(capture().isStreaming());
    EXPECT_EQ(h.run("CaptureStreamStop").second, "CaptureStreamStop: CaptureStreamStop stopped.");
    EXPECT_FALSE(capture().isStreaming());
    EXPECT_EQ(h.run("CaptureStreamStart GREY 1"), failed) << "a stopped stream can start again";
    h.run("CaptureStreamStop");

    // The failed stream left the device clean: the next acquisition starts without complaint.
    h.board().faults().clear("/dev/video0");
    capture().startAquisition(grey, 0, 2, v4l2_rect{}, IORTUTriggerMode::continuous);
    capture().snapshotFrame(2000);
    capture().stopAquisition();
    const auto alert = testing::Contains(testing::AllOf(
        testing::Field(&k52test::SyslogRecord::text, testing::HasSubstr("Ignoring exception: ")),
        testing::Field(&k52test::SyslogRecord::priority, testing::ResultOf([](int p) { return p % 8; }, 1))));
    EXPECT_THAT(log.records(), testing::Not(alert));

    // A failure inside the start is logged as an alert and leaves nothing streaming.
    capture().startAquisition(grey, 7, 2, v4l2_rect{}, IORTUTriggerMode::continuous);
    EXPECT_THAT(log.records(), alert);
    EXPECT_FALSE(h.resources->v4l2().isStreaming());
    EXPECT_THROW(capture().snapshotFrame(50), utils::UtilsRuntimeError);
}

TEST_F(CaptureTest, RouteRepliesAndArgumentsTheHandlersDoNotConvert)
{
    k52test::expectExchanges(h, {
        {"SetCapturePaddingMode 1", "OK", "SetCapturePaddingMode: enable"},
        {"GetCapturePaddingMode", "OK", "GetCapturePaddingMode: enable"},
        {"SetCapturePaddingMode 0", "OK", "SetCapturePaddingMode: disable"},
        {"SetCaptureStreamOverWire 0", "OK", "SetCaptureStreamOverWire: disable"},
        {"GetCaptureStreamOverWire", "OK", "GetCapturePaddingMode: disable"},
        {"SetCaptureStreamOverWire -3", "OK", "SetCaptureStreamOverWire: enable"},
        {"SetCaptureBenchmarkPeriod", "OK", "SetCaptureBenchmarkPeriod: 1000 msec"},
        {"SetCaptureBenchmarkPeriod 250", "OK", "SetCaptureBenchmarkPeriod: 250 msec"},
        {"CaptureAcceleratedProcessing 0", "OK", "CaptureEnableAcceleratedProcessing: Accelerator disabled."},
    });
    EXPECT_TRUE(capture().streamOverWire());
    EXPECT_EQ(capture().benchmarkPeriod(), 250);

    // Refused by the fourcc or numeric validators before any handler runs (runtime error), left
    // missing for the handler's standard out-of-range error, or an impossible region.
    for (const char* command : {"CaptureStreamStart grey 1", "SetCapturePaddingMode on"})
        EXPECT_THROW(h.run(command), utils::UtilsRuntimeError) << command;
    for (const char* command : {"SetCapturePaddingMode", "SetCaptureStreamOverWire",
                                "CaptureStreamStart GREY", "CaptureAcceleratedProcessing 1 0 640 0"})
        EXPECT_THROW(h.run(command), std::out_of_range) << command;
    for (const char* bounds : {"1 10 20 30 25", "2 -1 20 0 10", "1 0 1457 0 10", "1 0 10 0 1089"})
        EXPECT_THAT([&] { h.run(std::string("CaptureAcceleratedProcessing ") + bounds); },
                    ThrowsMessage<utils::UtilsException>("Invalid ROI parameters."))
            << bounds;
    EXPECT_FALSE(capture().isAcceleratorProccessing());
}

} // namespace
