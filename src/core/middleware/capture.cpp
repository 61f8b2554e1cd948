#include "core/middleware/capture.h"

#include "core/k52resourcemanager.h"
#include "core/middleware/acceleratedprocessing.h"
#include "core/routereply.h"
#include "utils/log/logrecord.h"
#include "utils/base/crc.h"
#include "utils/base/exceptions.h"
#include "utils/net/tcpsocket.h"
#include "utils/wire/framemessage.h"

#include <algorithm>
#include <chrono>
#include <cstring>
#include <mutex>
#include <optional>
#include <utility>

namespace k52app {

namespace {

using utils::GeneralSubContainer;

// A stream keeps this many buffers queued so that a slow send does not lose frames.
constexpr uint32_t streamBufferCount = 6;
// Short, so that a stopped stream ends promptly even when no frame comes.
constexpr int streamFrameWaitMs = 20;

// The wire's frame header lies over the container's frame sub-containers.
static_assert(utils::GeneralContainer::offsetOf<GeneralSubContainer::frameMetadata>() + 8 ==
              utils::wire::frameWidthOffset);
static_assert(utils::GeneralContainer::offsetOf<GeneralSubContainer::frameData>() + 4 ==
              utils::wire::frameDataLengthOffset);
static_assert(FrameArea::overhead + FrameArea::capacity == sizeof(utils::GeneralContainer));

bool isEmpty(const v4l2_rect& rect)
{
    return rect.left == 0 && rect.top == 0 && rect.width == 0 && rect.height == 0;
}

} // namespace

FrameArea::FrameArea(utils::GeneralContainer& container) : container_(&container) {}

void FrameArea::begin(uint32_t width, uint32_t height, uint32_t pixelFormat, uint64_t n)
{
    checkSize(n);
    length_ = static_cast<uint32_t>(n);
    written_ = 0;
    utils::wire::encodeFrameHeader(container_, width, height, pixelFormat, length_);
    crc_ = utils::CRCSum32(container_, dataOffset, utils::GeneralContainer::seed);
    sendFailure_ = nullptr;
    forward(usedPart(), dataOffset, false);
}

uint8_t* FrameArea::data()
{
    return container_->subContainer<GeneralSubContainer::frameData>().payload.bytes;
}

void FrameArea::checkSize(uint64_t n)
{
    // The frame area ends where the container does (a compile-time check pins that).
    if (n > capacity)
        throw utils::UtilsError("the desiered size " + std::to_string(n + 8) + " is invalid");
}

void FrameArea::append(const uint8_t* bytes, size_t length)
{
    for (size_t done = 0; done < length;) {
        const size_t part = std::min(chunk, length - done);
        std::memcpy(data() + written_, bytes + done, part);
        appendInPlace(part);
        done += part;
    }
}

void FrameArea::appendInPlace(size_t length)
{
    if (written_ + length > length_)
        throw utils::UtilsRuntimeError("frame data beyond the announced " + std::to_string(length_) +
                                       " bytes.");
    // Continuing a CRC: the register starts from the previous result, inverted back.
    crc_ = utils::CRCSum32(data() + written_, length, ~crc_);
    forward(data() + written_, length, false);
    written_ += static_cast<uint32_t>(length);
}

void FrameArea::finish()
{
    if (written_ != length_)
        throw utils::UtilsRuntimeError("frame data incomplete: " + std::to_string(written_) + " of " +
                                       std::to_string(length_) + " bytes.");
    // Readers of the wire find it right after the data; readers of the file also at its end.
    std::memcpy(data() + length_, &crc_, sizeof crc_);
    container_->checksum = crc_;
    forward(data() + length_, sizeof crc_, true);
    if (sendFailure_)
        std::rethrow_exception(std::exchange(sendFailure_, nullptr));
}

void FrameArea::sendTo(utils::TCPSocket* socket) { socket_ = socket; }

void FrameArea::forward(const uint8_t* bytes, size_t length, bool last)
{
    if (!socket_ || sendFailure_)
        return;
    const uint8_t* start = usedPart();
    if (bytes == start)
        unsent_ = 0;
    const size_t end = size_t(bytes - start) + length;
    if (!last && end - unsent_ < sendRun)
        return;
    try {
        socket_->send(start + unsent_, end - unsent_, !last);
    } catch (...) {
        sendFailure_ = std::current_exception();
    }
    unsent_ = end;
}

const uint8_t* FrameArea::usedPart() const { return reinterpret_cast<const uint8_t*>(container_); }

uint32_t FrameArea::usedLength() const { return container_->size; }

Capture::Capture(K52ResourceManager& resources)
    : resources_(&resources),
      frameArea_(resources.containers().generalContainer()),
      accelerated_(std::make_unique<AcceleratedProcessing>(resources.openCL(), resources.v4l2()))
{
}

Capture::~Capture() = default;

void Capture::startAquisition(uint32_t fourcc, uint32_t resolutionIndex, uint32_t bufferCount,
                              const v4l2_rect& crop, utils::IORTUTriggerMode triggerMode)
{
    // The sensor's group too: no exposure or ROI change may land while the acquisition starts.
    auto held = resources_->hold({K52ResourceGroups::IMX, K52ResourceGroups::V4L2, K52ResourceGroups::RTU});
    auto& device = held.device<utils::IOV4L2>();
    auto& rtu = held.device<utils::IORTU>();

    if (!isEmpty(crop)) {
        try {
            utils::IOV4L2Crop request;
            request.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
            request.rect = crop;
            device.setCropCapabilities(&request);
        } catch (const std::exception& e) {
            K52_LOG(alert) << "Ignoring exception: " << e.what();
        }
    }
    try {
        device.setFormat(fourcc, resolutionIndex);
        device.mapBuffers(bufferCount);
        for (uint32_t index = 0; index < bufferCount; ++index)
            device.queryBuffer(index);
        rtu.enableAcquisition(true);
        device.streamOn();
        rtu.setAutoTrigger(triggerMode);
    } catch (const std::exception& e) {
        K52_LOG(alert) << "Ignoring exception: " << e.what();
    }
}

void Capture::stopAquisition()
{
    resources_->lock<utils::IORTU>()->enableAcquisition(false);
    // Device before RTU, as acquisition start takes them, so that the two never deadlock.
    auto held = resources_->hold({K52ResourceGroups::V4L2, K52ResourceGroups::RTU});
    held.device<utils::IORTU>().setAutoTrigger(utils::IORTUTriggerMode::manual);
    held.device<utils::IOV4L2>().streamOff();
    held.device<utils::IOV4L2>().unmapBuffers();
}

void Capture::snapshotFrame(int timeoutMs)
{
    std::unique_lock recordsLock(resources_->getMutex(K52ResourceGroups::DEVICE_STATUS), std::defer_lock);
    std::optional<v4l2_pix_format> format;
    awaitFrame(timeoutMs, streamOverWire(), recordsLock, format);
}

void Capture::awaitFrame(int timeoutMs, bool store, std::unique_lock<std::mutex>& recordsLock,
                         std::optional<v4l2_pix_format>& format)
{
    auto& device = resources_->v4l2();
    device.awaitFrameMap(timeoutMs, [&](const uint8_t* frame, uint32_t usedSize, const v4l2_buffer&) {
        if (!store)
            return;
        // Only once the frame is here, so that the descriptor's refresh waits for a frame's
        // copy, not for the sensor.
        recordsLock.lock();
        // The device refuses a format change while its buffers exist: once per acquisition.
        if (!format)
            format = device.getFormat();
        if (!accelerated_->processFrame(frame, usedSize, *format, frameArea_))
            storeFrame(frame, usedSize, *format);
    });
}

void Capture::storeFrame(const uint8_t* frame, uint32_t usedSize, const v4l2_pix_format& format)
{
    const uint32_t width = format.width;
    const uint32_t height = format.height;
    const uint32_t pixelFormat = PixelFomatMap.at(format.pixelformat);
    if (usedSize < uint64_t(width) * height)
        throw utils::UtilsRuntimeError("invalid frame buffer size.");
    const uint32_t stride = height == 0 ? 0 : usedSize / height;
    const uint32_t channels = utils::IOV4L2::channels(format.pixelformat);

    if (paddingMode()) {
        frameArea_.begin(stride / channels, height, pixelFormat, usedSize);
        frameArea_.append(frame, usedSize);
        frameArea_.finish();
        return;
    }

    const uint64_t rowBytes = uint64_t(width) * channels;
    const uint64_t n = rowBytes * height;
    FrameArea::checkSize(n);
    // Rows narrower than the format says would be read past the buffer.
    if (stride < rowBytes && height > 0)
        throw utils::UtilsRuntimeError("invalid frame buffer size.");
    frameArea_.begin(width, height, pixelFormat, n);
    if (stride == rowBytes) {
        frameArea_.append(frame, n); // no line padding: one run
    } else {
        // Rows are gathered into cache-sized runs, so that the checksum is taken once per run
        // rather than once per row.
        uint8_t* out = frameArea_.data();
        size_t pending = 0;
        for (uint32_t row = 0; row < height; ++row) {
            std::memcpy(out + row * rowBytes, frame + uint64_t(row) * stride, rowBytes);
            pending += rowBytes;
            if (pending >= FrameArea::chunk) {
                frameArea_.appendInPlace(pending);
                pending = 0;
            }
        }
        frameArea_.appendInPlace(pending);
    }
    frameArea_.finish();
}

void Capture::streamStart(uint32_t fourcc, uint32_t resolutionIndex, const Progress& progress)
{
    uint8_t idle = 0;
    if (!streaming_.compare_exchange_strong(idle, 1))
        throw utils::UtilsException("Streaming is already on.");

    startAquisition(fourcc, resolutionIndex, streamBufferCount, v4l2_rect{},
                    utils::IORTUTriggerMode::continuous);
    std::lock_guard containerLock(resources_->getMutex(K52ResourceGroups::GENERAL_CONTAINER));
    std::lock_guard socketLock(resources_->getMutex(K52ResourceGroups::STREAM_SOCKET));

    // The device is returned to a clean state however the loop ends; an error of the loop
    // itself is the one worth reporting.
    struct StreamEnd {
        Capture& capture;
        bool done = false;
        ~StreamEnd()
        {
            if (done)
                return;
            try {
                capture.endStream();
            } catch (const std::exception& e) {
                K52_LOG(warn) << "Stream clean-up failed: " << e.what();
            }
        }
    } streamEnd{*this};

    streamFrames(progress);
    streamEnd.done = true;
    endStream();
}

void Capture::streamFrames(const Progress& progress)
{
    auto& socket = resources_->streamSocket();
    std::mutex& recordsMutex = resources_->getMutex(K52ResourceGroups::DEVICE_STATUS);
    using Clock = std::chrono::steady_clock;
    auto periodStart = Clock::now();
    uint32_t frames = 0;
    std::optional<v4l2_pix_format> format;
    while (streaming_.load()) {
        const bool overWire = streamOverWire();
        {
            // Held from the frame's checksum through its send; released before the rate
            // notice, which waits for the control socket that the descriptor route holds.
            std::unique_lock recordsLock(recordsMutex, std::defer_lock);
            // The frame goes out part by part while it is stored (FrameArea::sendTo).
            struct Sending {
                FrameArea& area;
                ~Sending() { area.sendTo(nullptr); }
            } sending{frameArea_};
            frameArea_.sendTo(overWire ? &socket : nullptr);
            try {
                awaitFrame(streamFrameWaitMs, overWire, recordsLock, format);
            } catch (const utils::UtilsTimeoutException&) {
                continue; // no frame yet: look at the flag again
            }
        }
        ++frames;
        if (Clock::now() - periodStart > std::chrono::milliseconds(benchmarkPeriod())) {
            const std::chrono::duration<double> elapsed = Clock::now() - periodStart;
            progress(static_cast<float>(frames / elapsed.count()));
            periodStart = Clock::now();
            frames = 0;
        }
    }
}

void Capture::endStream()
{
    stopAquisition();
    std::lock_guard deviceLock(resources_->getMutex(K52ResourceGroups::V4L2));
    auto& device = resources_->v4l2();
    device.close();
    device.open();
}

void Capture::streamStop() { streaming_.store(0); }

void Capture::enableAcceleratorProccessing(const std::string& kernelFile,
                                           const std::string& kernelName, int32_t p1, int32_t p2,
                                           int32_t p3, int32_t p4)
{
    accelerated_->enable(kernelFile, kernelName, p1, p2, p3, p4);
}

void Capture::disableAcceleratorProccessing() { accelerated_->disable(); }

bool Capture::isAcceleratorProccessing() const { return accelerated_->isEnabled(); }

} // namespace k52app
