#pragma once

#include "utils/container/container.h"
#include "utils/io/iortu.h"
#include "utils/wire/framemessage.h"

#include <linux/videodev2.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <exception>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

namespace utils {
class TCPSocket;
}

namespace k52app {

class AcceleratedProcessing;
class K52ResourceManager;

// The latest frame's place in the general container, as readers find it: the frame header
// fields, the data, and the checksum stored both right after the data and at the end of the
// capacity. The used part (header, data, checksum) is what goes on the wire.
class FrameArea {
public:
    static constexpr uint32_t capacity = utils::wire::frameCapacity;
    static constexpr size_t dataOffset = utils::wire::frameDataOffset;
    static constexpr size_t overhead = utils::wire::frameOverhead;
    // Data is checksummed in runs of this size, small enough to stay in cache after the copy.
    static constexpr size_t chunk = 64 * 1024;
    static constexpr size_t sendRun = 4 * 1024 * 1024;

    explicit FrameArea(utils::GeneralContainer& container);

    // Starts a frame of `n` data bytes: checks that they fit (UtilsError "the desiered size
    // <n + 8> is invalid"), writes the header fields and both lengths.
    void begin(uint32_t width, uint32_t height, uint32_t pixelFormat, uint64_t n);
    // Copies the next data bytes in and folds them into the checksum while they are still in
    // cache, which saves a second pass over the frame.
    void append(const uint8_t* bytes, size_t length);
    // The same for data bytes already written in place, after those appended so far.
    void appendInPlace(size_t length);
    // Stores the checksum right after the data and at the end of the capacity.
    void finish();

    uint8_t* data();
    static void checkSize(uint64_t n);

    // The used part, as the last finish() left it.
    const uint8_t* usedPart() const;
    uint32_t usedLength() const;

    // While set, the frame message goes to `socket` in parts of at least sendRun bytes as soon
    // as they are final (header and checksummed data; the rest and the checksum at finish()), so
    // that the reader takes the first part while the next is copied. Smaller parts cost more in
    // wake-ups than the overlap gains. A failed send stops the sending, not the frame: finish()
    // completes the frame area and then throws the send's error.
    void sendTo(utils::TCPSocket* socket);

private:
    void forward(const uint8_t* bytes, size_t length, bool last);

    utils::GeneralContainer* container_;
    utils::TCPSocket* socket_ = nullptr;
    size_t unsent_ = 0; // where the part not yet sent begins
    std::exception_ptr sendFailure_;
    uint32_t length_ = 0;
    uint32_t written_ = 0;
    uint32_t crc_ = 0;
};

// Turns the image sensor into a frame source: starts and stops acquisition (capture device and
// the RTU that triggers exposures), stores one frame at a time in the general container,
// and streams frames to the stream client with a periodic frame-rate report. The accelerated
// path (a GPU kernel over a region of each frame) replaces the plain copy when enabled.
class Capture {
public:
    // Receives the measured frames per second once per benchmark period.
    using Progress = std::function<void(float framesPerSecond)>;

    explicit Capture(K52ResourceManager& resources);
    ~Capture();
    Capture(const Capture&) = delete;
    Capture& operator=(const Capture&) = delete;

    // Failures are logged and swallowed: the frame wait's own timeout governs what follows.
    void startAquisition(uint32_t fourcc, uint32_t resolutionIndex, uint32_t bufferCount,
                         const v4l2_rect& crop, utils::IORTUTriggerMode triggerMode);
    void stopAquisition();

    // Waits up to `timeoutMs` for one frame and stores it in the frame area (or, with stream
    // over wire off, only waits). Throws UtilsTimeoutException when no frame came.
    void snapshotFrame(int timeoutMs);

    // The plain copy of one frame buffer of the device's current `format` into the frame area.
    void storeFrame(const uint8_t* frame, uint32_t usedSize, const v4l2_pix_format& format);

    // Streams on the calling thread until streamStop(). Throws UtilsException "Streaming is
    // already on." when a stream runs; any error of the loop ends the stream and leaves the
    // streaming flag set until streamStop().
    void streamStart(uint32_t fourcc, uint32_t resolutionIndex, const Progress& progress);
    // Ends a running stream after its current frame; harmless when no stream runs.
    void streamStop();
    bool isStreaming() const { return streaming_.load() != 0; }

    // The GPU path: a region given as x start, x end, y start, y end of the current format.
    void enableAcceleratorProccessing(const std::string& kernelFile, const std::string& kernelName,
                                      int32_t p1, int32_t p2, int32_t p3, int32_t p4);
    void disableAcceleratorProccessing();
    bool isAcceleratorProccessing() const;

    // Settings the routes change, also while a stream runs; the next frame or period sees them.
    void setPaddingMode(bool on) { paddingMode_.store(on ? 1 : 0); }
    bool paddingMode() const { return paddingMode_.load() != 0; }
    void setStreamOverWire(bool on) { streamOverWire_.store(on ? 1 : 0); }
    bool streamOverWire() const { return streamOverWire_.load() != 0; }
    void setBenchmarkPeriod(int32_t milliseconds) { benchmarkPeriod_.store(milliseconds); }
    int32_t benchmarkPeriod() const { return benchmarkPeriod_.load(); }

    AcceleratedProcessing& acceleratedProcessing() { return *accelerated_; }

private:
    // Waits for one frame; stores it only when `store` is set, and then first locks the device
    // records' group into `recordsLock`: the frame's checksum covers those records, so they must
    // stay as they are until the caller is done with the frame. `format` is the device's
    // current format, read on the first stored frame and kept by the caller for the next.
    void awaitFrame(int timeoutMs, bool store, std::unique_lock<std::mutex>& recordsLock,
                    std::optional<v4l2_pix_format>& format);
    // The stream loop: sends each frame until streamStop(), reporting the rate once per period.
    void streamFrames(const Progress& progress);
    // Stops acquisition and reopens the capture device so that the next stream starts clean.
    void endStream();

    std::atomic<uint8_t> paddingMode_{0};
    std::atomic<uint8_t> streamOverWire_{1};
    std::atomic<int32_t> benchmarkPeriod_{1000};
    K52ResourceManager* resources_;
    std::atomic<uint8_t> streaming_{0};
    FrameArea frameArea_;
    std::unique_ptr<AcceleratedProcessing> accelerated_;
};

} // namespace k52app
