#include "utils/io/iov4l2.h"

#include "utils/base/exceptions.h"
#include "utils/platform/kernel.h"

#include <poll.h>
#include <sys/mman.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <utility>

namespace utils {

namespace {

bool isMenu(uint32_t type)
{
    return type == V4L2_CTRL_TYPE_MENU || type == V4L2_CTRL_TYPE_INTEGER_MENU;
}

} // namespace

IOV4L2::IOV4L2(std::string path, int flags) : IOFile(std::move(path), flags) { open(); }

IOV4L2::~IOV4L2() { close(); }

void IOV4L2::close()
{
    buffers_.clear();
    streaming_ = false;
    IOFile::close();
}

v4l2_capability IOV4L2::getCapabilities() const
{
    v4l2_capability capability{};
    control(VIDIOC_QUERYCAP, &capability, "VIDIOC_QUERYCAP");
    return capability;
}

std::vector<IOV4L2Format> IOV4L2::getCaptureResolutions() const
{
    std::vector<IOV4L2Format> formats;
    for (uint32_t index = 0;; ++index) {
        IOV4L2Format format;
        format.description.index = index;
        format.description.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
        if (!tryControl(VIDIOC_ENUM_FMT, &format.description)) {
            if (errno == EINVAL)
                break; // past the last format
            fail("VIDIOC_ENUM_FMT");
        }
        for (uint32_t sizeIndex = 0;; ++sizeIndex) {
            v4l2_frmsizeenum size{};
            size.index = sizeIndex;
            size.pixel_format = format.description.pixelformat;
            if (!tryControl(VIDIOC_ENUM_FRAMESIZES, &size)) {
                if (errno == EINVAL)
                    break;
                fail("VIDIOC_ENUM_FRAMESIZES");
            }
            if (size.type == V4L2_FRMSIZE_TYPE_DISCRETE) {
                format.sizes.push_back(size.discrete);
            } else {
                // A range is described by its first entry alone.
                format.sizes.push_back({size.stepwise.min_width, size.stepwise.min_height});
                format.sizes.push_back({size.stepwise.max_width, size.stepwise.max_height});
                break;
            }
        }
        formats.push_back(std::move(format));
    }
    return formats;
}

std::map<uint32_t, IOV4L2Control> IOV4L2::getControls() const
{
    std::map<uint32_t, IOV4L2Control> controls;
    v4l2_queryctrl query{};
    query.id = V4L2_CTRL_FLAG_NEXT_CTRL;
    for (;;) {
        if (!tryControl(VIDIOC_QUERYCTRL, &query)) {
            if (errno == EINVAL)
                break; // past the last control
            fail("VIDIOC_QUERYCTRL");
        }
        if (!(query.flags & V4L2_CTRL_FLAG_DISABLED)) {
            IOV4L2Control control;
            control.query = query;
            control.category = getControlCategory(query.id);
            if (isMenu(query.type)) {
                for (int64_t index = query.minimum; index <= query.maximum; ++index) {
                    v4l2_querymenu entry{};
                    entry.id = query.id;
                    entry.index = static_cast<uint32_t>(index);
                    if (tryControl(VIDIOC_QUERYMENU, &entry))
                        control.menu.push_back(entry);
                    else if (errno != EINVAL) // EINVAL: an index the device skips
                        fail("VIDIOC_QUERYMENU");
                }
            }
            controls.emplace(query.id, std::move(control));
        }
        query.id |= V4L2_CTRL_FLAG_NEXT_CTRL;
    }
    return controls;
}

v4l2_cropcap IOV4L2::getCropCapabilities() const
{
    v4l2_cropcap capabilities{};
    capabilities.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    control(VIDIOC_CROPCAP, &capabilities, "VIDIOC_CROPCAP");
    return capabilities;
}

void IOV4L2::setCropCapabilities(IOV4L2Crop* crop)
{
    if (!crop)
        throw UtilsRuntimeError(path() + ": no crop rectangle given.");
    v4l2_crop request{};
    request.type = crop->type;
    request.c = crop->rect;
    if (request.c.width == 0 || request.c.height == 0)
        request.c = getCropCapabilities().defrect;
    control(VIDIOC_S_CROP, &request, "VIDIOC_S_CROP");
}

v4l2_pix_format IOV4L2::getFormat() const
{
    v4l2_format format{};
    format.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    control(VIDIOC_G_FMT, &format, "VIDIOC_G_FMT");
    return format.fmt.pix;
}

void IOV4L2::setFormat(uint32_t fourcc, uint32_t resolutionIndex)
{
    const auto formats = getCaptureResolutions();
    const IOV4L2Format* chosen = nullptr;
    for (const auto& candidate : formats) {
        if (candidate.description.pixelformat == fourcc) {
            chosen = &candidate;
            break;
        }
    }
    if (!chosen)
        throw UtilsRuntimeError(path() + ": pixel format '" + fourccToString(fourcc) +
                                "' is not offered by the device.");
    if (resolutionIndex >= chosen->sizes.size())
        throw UtilsRuntimeError(path() + ": pixel format '" + fourccToString(fourcc) +
                                "' has no resolution index " + std::to_string(resolutionIndex) +
                                " (it has " + std::to_string(chosen->sizes.size()) + ").");
    const v4l2_frmsize_discrete size = chosen->sizes[resolutionIndex];

    v4l2_format format{};
    format.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    format.fmt.pix.pixelformat = fourcc;
    format.fmt.pix.width = size.width;
    format.fmt.pix.height = size.height;
    format.fmt.pix.field = V4L2_FIELD_NONE;
    control(VIDIOC_S_FMT, &format, "VIDIOC_S_FMT");
    const v4l2_pix_format& granted = format.fmt.pix;
    if (granted.pixelformat != fourcc || granted.width != size.width ||
        granted.height != size.height)
        throw UtilsRuntimeError(path() + ": the device changed the requested format " +
                                fourccToString(fourcc) + " " + std::to_string(size.width) + "x" +
                                std::to_string(size.height) + " to " +
                                fourccToString(granted.pixelformat) + " " +
                                std::to_string(granted.width) + "x" +
                                std::to_string(granted.height) + ".");
}

int32_t IOV4L2::getCtrl(uint32_t id) const
{
    v4l2_control request{};
    request.id = id;
    control(VIDIOC_G_CTRL, &request, "VIDIOC_G_CTRL");
    return request.value;
}

void IOV4L2::setCtrl(uint32_t id, int32_t value)
{
    v4l2_control request{};
    request.id = id;
    request.value = value;
    control(VIDIOC_S_CTRL, &request, "VIDIOC_S_CTRL");
}

void IOV4L2::mapBuffers(uint32_t count)
{
    if (count == 0)
        throw UtilsRuntimeError(path() + ": at least one buffer is needed.");
    unmapBuffers();

    v4l2_requestbuffers request{};
    request.count = count;
    request.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    request.memory = V4L2_MEMORY_MMAP;
    control(VIDIOC_REQBUFS, &request, "VIDIOC_REQBUFS");
    if (request.count == 0) {
        errno = ENOMEM;
        fail("VIDIOC_REQBUFS granted no buffers on");
    }

    std::vector<MappedRegion> mapped;
    mapped.reserve(request.count);
    for (uint32_t index = 0; index < request.count; ++index) {
        v4l2_buffer buffer{};
        buffer.index = index;
        buffer.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
        buffer.memory = V4L2_MEMORY_MMAP;
        control(VIDIOC_QUERYBUF, &buffer, "VIDIOC_QUERYBUF");
        MappedRegion region(platform::kernel().mmap(nullptr, buffer.length, PROT_READ | PROT_WRITE,
                                                    MAP_SHARED, descriptor(), buffer.m.offset),
                            buffer.length);
        if (!region)
            fail("mmap of buffer " + std::to_string(index) + " of");
        mapped.push_back(std::move(region));
    }
    buffers_ = std::move(mapped);
}

void IOV4L2::queryBuffer(uint32_t index)
{
    if (index >= buffers_.size())
        throw UtilsRuntimeError(path() + ": buffer " + std::to_string(index) +
                                " does not exist (" + std::to_string(buffers_.size()) +
                                " mapped).");
    v4l2_buffer buffer{};
    buffer.index = index;
    buffer.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    buffer.memory = V4L2_MEMORY_MMAP;
    control(VIDIOC_QBUF, &buffer, "VIDIOC_QBUF");
}

void IOV4L2::unmapBuffers()
{
    if (streaming_)
        streamOff();
    const bool hadBuffers = !buffers_.empty();
    buffers_.clear();
    if (hadBuffers) {
        v4l2_requestbuffers request{};
        request.count = 0;
        request.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
        request.memory = V4L2_MEMORY_MMAP;
        control(VIDIOC_REQBUFS, &request, "VIDIOC_REQBUFS");
    }
}

void IOV4L2::streamOn()
{
    int type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    control(VIDIOC_STREAMON, &type, "VIDIOC_STREAMON");
    streaming_ = true;
}

void IOV4L2::streamOff()
{
    int type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    control(VIDIOC_STREAMOFF, &type, "VIDIOC_STREAMOFF");
    streaming_ = false;
}

void IOV4L2::dequeue(int timeoutMs, v4l2_buffer& buffer)
{
    if (!streaming_ || buffers_.empty())
        throw UtilsRuntimeError(path() + ": cannot wait for a frame, the device is not streaming.");

    using Clock = std::chrono::steady_clock;
    const auto deadline = Clock::now() + std::chrono::milliseconds(timeoutMs);
    for (;;) {
        int remaining = -1;
        if (timeoutMs >= 0) {
            auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now());
            remaining = left.count() > 0 ? static_cast<int>(left.count()) : 0;
        }
        pollfd waiter{descriptor(), POLLIN, 0};
        const int ready = platform::kernel().poll(&waiter, 1, remaining);
        if (ready < 0) {
            if (errno == EINTR)
                continue;
            fail("poll");
        }
        if (ready == 0)
            throw UtilsTimeoutException(path() + ": no frame within " + std::to_string(timeoutMs) +
                                        " ms.");
        if (waiter.revents & (POLLERR | POLLNVAL)) {
            errno = EIO;
            fail("poll reported an error on");
        }

        buffer = v4l2_buffer{};
        buffer.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
        buffer.memory = V4L2_MEMORY_MMAP;
        if (tryControl(VIDIOC_DQBUF, &buffer))
            break;
        if (errno != EAGAIN) // EAGAIN: another reader took the frame; wait for the next
            fail("VIDIOC_DQBUF");
    }
    if (buffer.index >= buffers_.size()) {
        errno = EINVAL;
        fail("VIDIOC_DQBUF returned buffer " + std::to_string(buffer.index) + " unknown to");
    }
}

void IOV4L2::requeue(const v4l2_buffer& buffer)
{
    v4l2_buffer again{};
    again.index = buffer.index;
    again.type = buffer.type;
    again.memory = buffer.memory;
    control(VIDIOC_QBUF, &again, "VIDIOC_QBUF");
}

const uint8_t* IOV4L2::bufferData(const v4l2_buffer& buffer) const
{
    return buffers_[buffer.index].as<const uint8_t>();
}

std::string IOV4L2::fourccToString(uint32_t fourcc)
{
    std::string text;
    // Bit 31 marks the big-endian variant of a format; it is not part of the fourth character.
    for (int shift = 0; shift < 32; shift += 8)
        text += static_cast<char>((fourcc >> shift) & (shift == 24 ? 0x7f : 0xff));
    return text;
}

uint32_t IOV4L2::channels(uint32_t fourcc)
{
    switch (fourcc) {
    case V4L2_PIX_FMT_GREY:
    case V4L2_PIX_FMT_SBGGR8:
    case V4L2_PIX_FMT_SGBRG8:
    case V4L2_PIX_FMT_SGRBG8:
    case V4L2_PIX_FMT_SRGGB8:
        return 1;
    case V4L2_PIX_FMT_Y10:
    case V4L2_PIX_FMT_Y12:
    case V4L2_PIX_FMT_Y16:
    case V4L2_PIX_FMT_SRGGB10:
    case V4L2_PIX_FMT_SRGGB12:
    case V4L2_PIX_FMT_SRGGB16:
    case V4L2_PIX_FMT_YUYV:
    case V4L2_PIX_FMT_YVYU:
    case V4L2_PIX_FMT_UYVY:
    case V4L2_PIX_FMT_VYUY:
    case V4L2_PIX_FMT_RGB565:
        return 2;
    case V4L2_PIX_FMT_RGB24:
    case V4L2_PIX_FMT_BGR24:
        return 3;
    case V4L2_PIX_FMT_RGB32:
    case V4L2_PIX_FMT_BGR32:
    case V4L2_PIX_FMT_XRGB32:
    case V4L2_PIX_FMT_XBGR32:
    case V4L2_PIX_FMT_ARGB32:
    case V4L2_PIX_FMT_ABGR32:
    case V4L2_PIX_FMT_RGBA32:
    case V4L2_PIX_FMT_BGRA32:
    case V4L2_PIX_FMT_RGBX32:
    case V4L2_PIX_FMT_BGRX32:
        return 4;
    default:
        throw UtilsRuntimeError("No bytes-per-pixel size known for the pixel format '" +
                                fourccToString(fourcc) + "'.");
    }
}

std::string IOV4L2::getControlType(uint32_t type)
{
    switch (type) {
    case V4L2_CTRL_TYPE_INTEGER: return "integer";
    case V4L2_CTRL_TYPE_BOOLEAN: return "boolean";
    case V4L2_CTRL_TYPE_MENU: return "menu";
    case V4L2_CTRL_TYPE_BUTTON: return "button";
    case V4L2_CTRL_TYPE_INTEGER64: return "integer64";
    case V4L2_CTRL_TYPE_CTRL_CLASS: return "ctrl-class";
    case V4L2_CTRL_TYPE_STRING: return "string";
    case V4L2_CTRL_TYPE_BITMASK: return "bitmask";
    case V4L2_CTRL_TYPE_INTEGER_MENU: return "integer-menu";
    case V4L2_CTRL_TYPE_U8: return "u8";
    case V4L2_CTRL_TYPE_U16: return "u16";
    case V4L2_CTRL_TYPE_U32: return "u32";
    case V4L2_CTRL_TYPE_AREA: return "area";
    default: return "unknown";
    }
}

std::string IOV4L2::getControlCategory(uint32_t id)
{
    switch (V4L2_CTRL_ID2CLASS(id)) {
    case V4L2_CTRL_CLASS_USER: return "user";
    case V4L2_CTRL_CLASS_CODEC: return "codec";
    case V4L2_CTRL_CLASS_CAMERA: return "camera";
    case V4L2_CTRL_CLASS_FM_TX: return "fm-transmitter";
    case V4L2_CTRL_CLASS_FLASH: return "flash";
    case V4L2_CTRL_CLASS_JPEG: return "jpeg";
    case V4L2_CTRL_CLASS_IMAGE_SOURCE: return "image-source";
    case V4L2_CTRL_CLASS_IMAGE_PROC: return "image-processing";
    case V4L2_CTRL_CLASS_DV: return "digital-video";
    case V4L2_CTRL_CLASS_FM_RX: return "fm-receiver";
    case V4L2_CTRL_CLASS_RF_TUNER: return "rf-tuner";
    case V4L2_CTRL_CLASS_DETECT: return "detection";
    case V4L2_CTRL_CLASS_CODEC_STATELESS: return "codec-stateless";
    case V4L2_CTRL_CLASS_COLORIMETRY: return "colorimetry";
    default: return "unknown";
    }
}

} // namespace utils
