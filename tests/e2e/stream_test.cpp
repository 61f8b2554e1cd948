// Frame streams end to end: the real daemon on the emulated board, a control client that starts
// and stops streams, and a stream client that checks every frame against zlib and the sensor's
// frame counter. Covers stopping by command (several workers) and by disconnect (one worker),
// a refused second stream, the descriptor asked for mid-stream, rate notices and SIGTERM.
#include "client/connection.h"
#include "client/descriptor.h"
#include "client/framestream.h"
#include "client/notice.h"
#include "support/bytes.h"
#include "support/daemonprocess.h"

#include <gtest/gtest.h>
#include <zlib.h>

#include <poll.h>

#include <atomic>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <mutex>
#include <regex>
#include <thread>

using k52client::ControlClient;
using k52client::FrameStream;
using k52client::Milliseconds;
using k52client::Notice;
using k52test::DaemonProcess;

namespace {

using k52test::word;

constexpr uint32_t blue = 0x3B65E3;

// A stream client the daemon has accepted, so that a stream started now has its receiver.
std::unique_ptr<FrameStream> connectStream(const DaemonProcess& daemon)
{
    const size_t seen = daemon.records().size();
    auto stream = std::make_unique<FrameStream>("127.0.0.1", daemon.config().streamPort());
    EXPECT_TRUE(daemon.waitForRecord("handle STREAM client spinner", seen));
    return stream;
}

// Reads frames on its own thread for as long as it lives, as a real client must (a client that
// stops reading stalls the stream), checking each GREY 1456x1088 frame's header, its checksum
// with zlib and that the sensor's frame counter only moves forward.
class FrameReader {
public:
    explicit FrameReader(FrameStream& stream) : thread_([this, &stream] { run(stream); }) {}
    ~FrameReader()
    {
        stop_ = true;
        thread_.join();
    }

    // Waits until `count` more frames than now have been checked.
    bool waitForMore(int count)
    {
        const int target = frames_ + count;
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
        while (frames_ < target && failure().empty() && std::chrono::steady_clock::now() < deadline)
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        return frames_ >= target;
    }
    // A new stream is coming: its frame counter starts again.
    void expectRestart() { restarts_ += 1; }
    std::string failure() const
    {
        std::lock_guard lock(mutex_);
        return failure_;
    }

private:
    void fail(const std::string& what)
    {
        std::lock_guard lock(mutex_);
        if (failure_.empty())
            failure_ = "frame " + std::to_string(frames_) + ": " + what;
    }

    void run(FrameStream& stream)
    {
        const size_t n = 1456 * 1088;
        uint32_t previous = 0;
        while (!stop_) {
            pollfd ready{stream.connection().descriptor(), POLLIN, 0};
            if (::poll(&ready, 1, 50) != 1)
                continue;
            try {
                const k52client::Frame& frame = stream.next(Milliseconds(5000));
                const uint8_t* bytes = frame.message;
                if (frame.messageSize != 2248 + n || word(bytes, 0) != 0x0510FFFFu ||
                    word(bytes, 4) != 2248 + n || word(bytes, 2224) != 1456 ||
                    word(bytes, 2228) != 1088 || word(bytes, 2232) != 1 ||
                    word(bytes, 2240) != n + 8)
                    fail("header fields");
                if (word(bytes, 2244 + n) != uint32_t(crc32(0, bytes, uInt(2244 + n))))
                    fail("checksum differs from zlib's");
                const uint32_t counter = word(bytes, 2244);
                if (counter != ~word(bytes, 2248))
                    fail("frame counter and its complement disagree");
                if (frames_ > 0 && counter <= previous && restarts_ > 0)
                    restarts_ -= 1;
                else if (frames_ > 0 && counter <= previous)
                    fail("frame counter " + std::to_string(counter) + " after " +
                         std::to_string(previous) + ": a frame arrived twice");
                previous = counter;
                ++frames_;
            } catch (const std::runtime_error& e) {
                if (std::string(e.what()).find("closed") == std::string::npos)
                    fail(e.what());
                return;
            }
        }
    }

    std::atomic<bool> stop_{false};
    std::atomic<int> frames_{0};
    std::atomic<int> restarts_{0};
    mutable std::mutex mutex_;
    std::string failure_;
    std::thread thread_;
};

// Reads notices until an acknowledgement containing `text` arrives; the others are kept.
Notice awaitAcknowledgement(ControlClient& control, const std::string& text,
                            std::vector<Notice>& others)
{
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(8);
    while (std::chrono::steady_clock::now() < deadline) {
        Notice notice = control.readNotice(Milliseconds(8000));
        if (notice.isAcknowledgement() && notice.message.find(text) != std::string::npos)
            return notice;
        others.push_back(std::move(notice));
    }
    throw std::runtime_error("no acknowledgement with '" + text + "'");
}

TEST(Stream, StopByCommandWithSeveralWorkers)
{
    K52_SKIP_ON_REAL_KERNEL("its frame size and its processor count");
    DaemonProcess daemon(k52test::EmulatedConfig::Overrides{{"emulated-hardware-concurrency", "8"}});
    ControlClient control("127.0.0.1", daemon.config().controlPort());
    EXPECT_EQ(control.command("SetCaptureBenchmarkPeriod 250").reply(),
              "SetCaptureBenchmarkPeriod: 250 msec");
    auto stream = connectStream(daemon);
    FrameReader reader(*stream);

    const auto started = std::chrono::steady_clock::now();
    control.send("CaptureStreamStart GREY 1");
    ASSERT_TRUE(reader.waitForMore(10)) << reader.failure();

    // The first stream goes on while a second one is refused.
    std::vector<Notice> notices;
    control.send("CaptureStreamStart RGB3 1");
    Notice refused = awaitAcknowledgement(control, "Streaming is already on.", notices);
    EXPECT_EQ(refused.color, 0xF2351Fu);
    ASSERT_TRUE(reader.waitForMore(20)) << reader.failure();

    control.send("CaptureStreamStop");
    Notice stopped = awaitAcknowledgement(control, "CaptureStreamStop", notices);
    EXPECT_EQ(stopped.status(), "OK");
    EXPECT_EQ(stopped.reply(), "CaptureStreamStop: CaptureStreamStop stopped.");
    Notice finished = awaitAcknowledgement(control, "CaptureStart", notices);
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
    EXPECT_EQ(finished.status(), "OK");
    EXPECT_EQ(finished.reply(), "CaptureStart: Capture Stream finished.");

    // One rate notice per period: about seconds / 0.25 of them.
    const std::regex rate(R"(Benchmark = '(\d+\.\d{6})' FPS)");
    int reports = 0;
    for (const auto& notice : notices) {
        std::smatch match;
        if (notice.color != blue || !std::regex_match(notice.message, match, rate))
            continue;
        ++reports;
        EXPECT_GT(std::stod(match[1]), 5.0) << notice.message;
        EXPECT_LT(std::stod(match[1]), 40.0) << notice.message << ": the RTU runs at 30 fps";
    }
    EXPECT_GE(reports, int(seconds / 0.25) - 3) << seconds << " s";
    EXPECT_LE(reports, int(seconds / 0.25) + 1) << seconds << " s";

    // Neither the frame area nor the stream socket stays locked: the next stream runs. The
    // descriptor rewrites device records that frame checksums cover, on the wire and in the file.
    reader.expectRestart();
    control.send("CaptureStreamStart GREY 1");
    ASSERT_TRUE(reader.waitForMore(3)) << reader.failure();
    for (int led = 0; led < 32; ++led) {
        if (led == 31)
            control.command("SetCaptureStreamOverWire 0");
        control.command("SetRTUStatusLED " + std::to_string(led));
        k52client::fetchXmlDescriptor(control);
    }
    const std::string general = k52test::fileBytes(daemon.config().containerDir() + "k52generalContainer");
    const auto* bytes = reinterpret_cast<const uint8_t*>(general.data());
    const uint32_t used = word(bytes, 4), crc = uint32_t(crc32(0, bytes, used - 4));
    EXPECT_EQ(word(bytes, used - 4), crc);
    EXPECT_EQ(word(bytes, general.size() - 4), crc);
    control.send("CaptureStreamStop");
    awaitAcknowledgement(control, "Capture Stream finished.", notices);
    EXPECT_EQ(reader.failure(), "");
}

// With one worker a running stream holds it; the stream client's departure ends the stream.
TEST(Stream, DisconnectStopsTheStreamWithOneWorkerAndSigtermEndsAStreamCleanly)
{
    K52_SKIP_ON_REAL_KERNEL("its frame size");
    DaemonProcess daemon(k52test::EmulatedConfig::Overrides{{"emulated-hardware-concurrency", "2"}});
    ControlClient control("127.0.0.1", daemon.config().controlPort());
    std::vector<Notice> notices;
    {
        auto stream = connectStream(daemon);
        {
            FrameReader reader(*stream);
            control.send("CaptureStreamStart GREY 1");
            ASSERT_TRUE(reader.waitForMore(5)) << reader.failure();
        }
        const size_t seen = daemon.records().size();
        stream.reset();
        ASSERT_TRUE(daemon.waitForRecord("STREAM client disconnected.", seen));
    }
    // The stream ended with the failed send; the worker is free for the next command.
    awaitAcknowledgement(control, "TCPSocket", notices);
    EXPECT_EQ(control.command("GetCapturePaddingMode").reply(), "GetCapturePaddingMode: disable");

    auto stream = connectStream(daemon);
    FrameReader reader(*stream);
    control.send("CaptureStreamStart GREY 1");
    ASSERT_TRUE(reader.waitForMore(5)) << reader.failure();

    const std::string xml = daemon.config().containerDir() + "k52XMLContainer";
    const std::string general = daemon.config().containerDir() + "k52generalContainer";
    ASSERT_TRUE(std::filesystem::exists(xml));
    ASSERT_TRUE(std::filesystem::exists(general));
    EXPECT_EQ(daemon.stop(SIGTERM, std::chrono::seconds(15)), 0) << daemon.standardError();
    EXPECT_FALSE(std::filesystem::exists(xml));
    EXPECT_FALSE(std::filesystem::exists(general));
    EXPECT_EQ(reader.failure(), "");
}

} // namespace
