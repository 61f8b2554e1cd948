#pragma once

#include "utils/io/iofile.h"
#include "utils/platform/mappedregion.h"

#include <linux/videodev2.h>

#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace utils {

// A crop request: the buffer type it applies to and the rectangle in sensor pixels. An empty
// rectangle (zero width or height) asks for the device's default crop.
struct IOV4L2Crop {
    uint32_t type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    v4l2_rect rect{};
};

// One pixel format with the frame sizes the device offers for it, in driver order. A device that
// describes its sizes as a range (stepwise or continuous) contributes the smallest and the
// largest size.
struct IOV4L2Format {
    v4l2_fmtdesc description{};
    std::vector<v4l2_frmsize_discrete> sizes;
};

// One control: its query record, its category ("user", "camera", ...) and, for menu controls,
// the entries the device accepts (each keeps its V4L2 menu index; skipped indexes are absent).
struct IOV4L2Control {
    v4l2_queryctrl query{};
    std::string category;
    std::vector<v4l2_querymenu> menu;
};

// A V4L2 video-capture device with memory-mapped streaming, reached through the kernel seam.
// Device failures throw IOError naming the ioctl and the reason; misuse (an unknown format,
// waiting while not streaming) throws UtilsRuntimeError.
class IOV4L2 : public IOFile {
public:
    // Opens the device at once.
    explicit IOV4L2(std::string path, int flags = O_RDWR);
    ~IOV4L2() override;
    IOV4L2(const IOV4L2&) = delete;
    IOV4L2& operator=(const IOV4L2&) = delete;

    // Releases the mappings before the descriptor: reopening starts from a clean device.
    void close() override;

    v4l2_capability getCapabilities() const;
    std::vector<IOV4L2Format> getCaptureResolutions() const;
    // Controls in ascending id, including the class controls that head each group.
    std::map<uint32_t, IOV4L2Control> getControls() const;

    v4l2_cropcap getCropCapabilities() const;
    void setCropCapabilities(IOV4L2Crop* crop);

    v4l2_pix_format getFormat() const;
    // Selects `fourcc` at its `resolutionIndex`-th frame size (as getCaptureResolutions lists
    // them). The device may pad rows: read bytesperline back from getFormat().
    void setFormat(uint32_t fourcc, uint32_t resolutionIndex);

    int32_t getCtrl(uint32_t id) const;
    void setCtrl(uint32_t id, int32_t value);

    // Requests `count` memory-mapped buffers and maps every one the device grants.
    void mapBuffers(uint32_t count);
    // Queues buffer `index` for capture.
    void queryBuffer(uint32_t index);
    // Stops streaming if needed, unmaps every buffer and frees them in the device.
    void unmapBuffers();
    size_t bufferCount() const { return buffers_.size(); }

    void streamOn();
    void streamOff();
    bool isStreaming() const { return streaming_; }

    // Waits up to `timeoutMs` (negative: forever) for a captured frame, hands it to
    // handler(const uint8_t* data, uint32_t bytesUsed, const v4l2_buffer& buffer) and queues
    // the buffer again, also when the handler throws. Throws UtilsTimeoutException when no
    // frame arrives in time.
    template <typename Handler>
    void awaitFrameMap(int timeoutMs, Handler&& handler);

    // The four-character code, blanks included ("Y10 "); a big-endian variant reads as its
    // little-endian sibling ("Y16 " for Y16_BE).
    static std::string fourccToString(uint32_t fourcc);
    // Bytes per pixel of a packed format; throws UtilsRuntimeError for formats it cannot size.
    static uint32_t channels(uint32_t fourcc);
    // "integer", "boolean", "menu", ... or "unknown".
    static std::string getControlType(uint32_t type);
    // The category of a control by its class: "user", "camera", "image-source", ... or "unknown".
    static std::string getControlCategory(uint32_t id);

private:
    // Waits for and dequeues one filled buffer into `buffer`.
    void dequeue(int timeoutMs, v4l2_buffer& buffer);
    void requeue(const v4l2_buffer& buffer);
    const uint8_t* bufferData(const v4l2_buffer& buffer) const;

    std::vector<MappedRegion> buffers_;
    bool streaming_ = false;
};

template <typename Handler>
void IOV4L2::awaitFrameMap(int timeoutMs, Handler&& handler)
{
    v4l2_buffer buffer{};
    dequeue(timeoutMs, buffer);
    try {
        handler(bufferData(buffer), buffer.bytesused, static_cast<const v4l2_buffer&>(buffer));
    } catch (...) {
        try {
            requeue(buffer);
        } catch (...) {
            // The handler's error is the one worth reporting.
        }
        throw;
    }
    requeue(buffer);
}

} // namespace utils
