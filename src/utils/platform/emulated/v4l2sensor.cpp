#include "utils/platform/emulated/v4l2sensor.h"

#include <fcntl.h>
#include <linux/videodev2.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cmath>
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <map>
#include <mutex>
#include <stop_token>
#include <thread>
#include <vector>

namespace utils::platform::emulated {

namespace {

using Clock = std::chrono::steady_clock;

// The sensor's pixel array; crop rectangles and the scene live in these coordinates.
constexpr uint32_t sensorWidth = 2472;
constexpr uint32_t sensorHeight = 2064;
// Rows are padded to this many bytes, as a DMA engine with 64-byte bursts would.
constexpr uint32_t rowAlignment = 64;
constexpr uint32_t pageSize = 4096;
constexpr uint32_t maxBuffers = 16;
constexpr uint32_t minCropSize = 16;
// Exposure at which the scene shows its nominal brightness.
constexpr uint32_t nominalExposureUs = 10000;
// How long the producer sleeps before it looks at the bus and its stop request again.
constexpr auto pollSlice = std::chrono::milliseconds(10);

constexpr std::array<v4l2_frmsize_discrete, 3> frameSizes{{{640, 480}, {1456, 1088}, {2472, 2064}}};

struct PixelFormat {
    uint32_t fourcc;
    uint32_t channels;
    const char* description;
};
constexpr std::array<PixelFormat, 2> pixelFormats{{
    {V4L2_PIX_FMT_GREY, 1, "8-bit Greyscale"},
    {V4L2_PIX_FMT_RGB24, 3, "24-bit RGB 8-8-8"},
}};

const PixelFormat* findFormat(uint32_t fourcc)
{
    for (const auto& format : pixelFormats)
        if (format.fourcc == fourcc)
            return &format;
    return nullptr;
}

enum TestPattern : int32_t { gradient = 0, colorBars = 1, checkerboard = 2, flatField = 3 };

struct ControlSpec {
    uint32_t id;
    uint32_t type;
    const char* name;
    int32_t minimum;
    int32_t maximum;
    int32_t step;
    int32_t defaultValue;
    uint32_t flags;
    std::array<const char*, 4> menu; // by menu index; null marks an index the device skips
    std::array<int64_t, 2> integerMenu{}; // the values of an integer menu, by index
};

constexpr uint32_t classFlags = V4L2_CTRL_FLAG_READ_ONLY | V4L2_CTRL_FLAG_WRITE_ONLY;

// In ascending id, as the NEXT_CTRL enumeration walks them.
constexpr std::array<ControlSpec, 10> controlSpecs{{
    {V4L2_CID_USER_CLASS, V4L2_CTRL_TYPE_CTRL_CLASS, "User Controls", 0, 0, 0, 0, classFlags, {}},
    {V4L2_CID_BRIGHTNESS, V4L2_CTRL_TYPE_INTEGER, "Brightness", -64, 64, 1, 0, 0, {}},
    {V4L2_CID_GAIN, V4L2_CTRL_TYPE_INTEGER, "Gain", 0, 24, 1, 0, 0, {}},
    {V4L2_CID_HFLIP, V4L2_CTRL_TYPE_BOOLEAN, "Horizontal Flip", 0, 1, 1, 0, 0, {}},
    {V4L2_CID_VFLIP, V4L2_CTRL_TYPE_BOOLEAN, "Vertical Flip", 0, 1, 1, 0, 0, {}},
    {V4L2_CID_CAMERA_CLASS, V4L2_CTRL_TYPE_CTRL_CLASS, "Camera Controls", 0, 0, 0, 0, classFlags,
     {}},
    {V4L2_CID_EXPOSURE_AUTO, V4L2_CTRL_TYPE_MENU, "Auto Exposure", 0, 3, 1, 1, 0,
     {"Auto Mode", "Manual Mode", nullptr, "Aperture Priority Mode"}},
    {V4L2_CID_IMAGE_PROC_CLASS, V4L2_CTRL_TYPE_CTRL_CLASS, "Image Processing Controls", 0, 0, 0,
     0, classFlags, {}},
    // The sensor's data-lane frequencies in Hz, as sensor drivers report them.
    {V4L2_CID_LINK_FREQ, V4L2_CTRL_TYPE_INTEGER_MENU, "Link Frequency", 0, 1, 1, 0,
     V4L2_CTRL_FLAG_READ_ONLY, {}, {594000000, 297000000}},
    {V4L2_CID_TEST_PATTERN, V4L2_CTRL_TYPE_MENU, "Test Pattern", 0, 3, 1, gradient, 0,
     {"Gradient", "Color Bars", "Checkerboard", "Flat Field"}},
}};

const ControlSpec* findControl(uint32_t id)
{
    for (const auto& described : controlSpecs)
        if (described.id == id)
            return &described;
    return nullptr;
}

// A zero-terminated text in a fixed-size field (some of them sit in packed records).
void copyText(uint8_t* field, size_t size, const char* text)
{
    std::memset(field, 0, size);
    std::strncpy(reinterpret_cast<char*>(field), text, size - 1);
}

uint32_t roundUp(uint32_t value, uint32_t alignment)
{
    return (value + alignment - 1) / alignment * alignment;
}

// The padded layout of one frame at `format` and `size`.
v4l2_pix_format layout(const PixelFormat& format, v4l2_frmsize_discrete size)
{
    v4l2_pix_format pix{};
    pix.width = size.width;
    pix.height = size.height;
    pix.pixelformat = format.fourcc;
    pix.field = V4L2_FIELD_NONE;
    pix.bytesperline = roundUp(size.width * format.channels, rowAlignment);
    pix.sizeimage = pix.bytesperline * size.height;
    pix.colorspace = format.channels == 1 ? V4L2_COLORSPACE_RAW : V4L2_COLORSPACE_SRGB;
    return pix;
}

// The format the device grants for a request: an offered fourcc (GREY otherwise) at the nearest
// offered size, as drivers adjust rather than refuse.
v4l2_pix_format adjustFormat(const v4l2_pix_format& wanted)
{
    const PixelFormat* format = findFormat(wanted.pixelformat);
    if (!format)
        format = &pixelFormats[0];
    auto distance = [&](const v4l2_frmsize_discrete& size) {
        return std::abs(int64_t(size.width) - wanted.width) +
               std::abs(int64_t(size.height) - wanted.height);
    };
    auto nearest = std::min_element(frameSizes.begin(), frameSizes.end(),
                                    [&](const auto& a, const auto& b) {
                                        return distance(a) < distance(b);
                                    });
    return layout(*format, *nearest);
}

// Device memory behind one buffer. It outlives the queue while a descriptor still maps it,
// and remembers what was painted into it so that the next frame only touches what changes.
struct BufferMemory {
    struct Free {
        void operator()(uint8_t* bytes) const { std::free(bytes); }
    };
    explicit BufferMemory(size_t length)
        : bytes(static_cast<uint8_t*>(std::aligned_alloc(pageSize, length))), size(length)
    {
        if (!bytes)
            throw std::bad_alloc();
        std::memset(bytes.get(), 0, size);
    }

    std::unique_ptr<uint8_t, Free> bytes;
    size_t size;
    // Painter state, touched only by the producer.
    uint64_t paintedVersion = 0;
    uint32_t markerX = 0, markerY = 0, markerSize = 0;
};

// Everything that decides what the static part of a frame looks like.
struct SceneKey {
    v4l2_pix_format pix{};
    v4l2_rect crop{};
    int32_t roiX = 0, roiY = 0;
    uint32_t exposureUs = nominalExposureUs;
    int32_t brightness = 0, gain = 0, hflip = 0, vflip = 0, pattern = gradient;

    bool operator==(const SceneKey& other) const
    {
        return std::memcmp(this, &other, sizeof(SceneKey)) == 0;
    }
};
static_assert(std::has_unique_object_representations_v<SceneKey>); // memcmp is equality

// 5x7 digits, one row per byte, most significant of the five bits on the left.
constexpr uint8_t digitGlyphs[10][7] = {
    {0x0e, 0x11, 0x13, 0x15, 0x19, 0x11, 0x0e}, {0x04, 0x0c, 0x04, 0x04, 0x04, 0x04, 0x0e},
    {0x0e, 0x11, 0x01, 0x02, 0x04, 0x08, 0x1f}, {0x1f, 0x02, 0x04, 0x02, 0x01, 0x11, 0x0e},
    {0x02, 0x06, 0x0a, 0x12, 0x1f, 0x02, 0x02}, {0x1f, 0x10, 0x1e, 0x01, 0x01, 0x11, 0x0e},
    {0x06, 0x08, 0x10, 0x1e, 0x11, 0x11, 0x0e}, {0x1f, 0x01, 0x02, 0x04, 0x08, 0x08, 0x08},
    {0x0e, 0x11, 0x11, 0x0e, 0x11, 0x11, 0x0e}, {0x0e, 0x11, 0x11, 0x0f, 0x01, 0x02, 0x0c},
};
constexpr uint32_t counterDigits = 10;

// Paints frames: a static scene computed once per SceneKey, then per frame a moving marker and
// the frame counter on top, restoring only what the buffer's previous frame changed.
class FramePainter {
public:
    void prepare(const SceneKey& key)
    {
        if (version_ != 0 && key == key_)
            return;
        key_ = key;
        version_ = nextVersion_.fetch_add(1);
        renderScene();
    }

    void paint(BufferMemory& memory, uint32_t counter)
    {
        const auto& pix = key_.pix;
        if (memory.paintedVersion != version_) {
            std::memcpy(memory.bytes.get(), scene_.data(), pix.sizeimage);
            memory.paintedVersion = version_;
        } else {
            restore(memory, memory.markerX, memory.markerY, memory.markerSize);
        }
        drawMarker(memory, counter);
        drawCounter(memory.bytes.get(), counter);
    }

private:
    uint32_t channels() const { return findFormat(key_.pix.pixelformat)->channels; }

    std::array<uint8_t, 3> sceneColor(int64_t sx, int64_t sy) const
    {
        if (sx < 0 || sy < 0 || sx >= sensorWidth || sy >= sensorHeight)
            return {0, 0, 0};
        switch (key_.pattern) {
        case colorBars: {
            static constexpr uint8_t bars[8][3] = {{255, 255, 255}, {255, 255, 0}, {0, 255, 255},
                                                   {0, 255, 0},     {255, 0, 255}, {255, 0, 0},
                                                   {0, 0, 255},     {0, 0, 0}};
            const auto* bar = bars[sx * 8 / sensorWidth];
            return {bar[0], bar[1], bar[2]};
        }
        case checkerboard: {
            uint8_t level = ((sx / 128 + sy / 128) & 1) ? 224 : 32;
            return {level, level, level};
        }
        case flatField:
            return {128, 128, 128};
        default: { // gradient with a grid every 256 sensor pixels, so crop and ROI show
            if (sx % 256 < 4 || sy % 256 < 4)
                return {255, 255, 255};
            auto r = static_cast<uint8_t>(sx * 255 / (sensorWidth - 1));
            auto g = static_cast<uint8_t>(sy * 255 / (sensorHeight - 1));
            return {r, g, static_cast<uint8_t>(255 - (r + g) / 2)};
        }
        }
    }

    void renderScene()
    {
        const auto& pix = key_.pix;
        const uint32_t ch = channels();
        scene_.assign(pix.sizeimage, 0); // padding bytes stay 0

        // Exposure, gain and brightness act on the light reaching the pixels: one tone curve.
        std::array<uint8_t, 256> tone{};
        const double factor = double(key_.exposureUs) / nominalExposureUs *
                              std::pow(10.0, key_.gain / 20.0);
        for (int level = 0; level < 256; ++level) {
            long value = std::lround(level * factor) + key_.brightness;
            tone[level] = static_cast<uint8_t>(std::clamp(value, 0L, 255L));
        }

        std::vector<int64_t> columnToSensor(pix.width);
        for (uint32_t x = 0; x < pix.width; ++x) {
            uint32_t from = key_.hflip ? pix.width - 1 - x : x;
            columnToSensor[x] =
                key_.crop.left + key_.roiX + int64_t(from) * key_.crop.width / pix.width;
        }
        for (uint32_t y = 0; y < pix.height; ++y) {
            uint32_t from = key_.vflip ? pix.height - 1 - y : y;
            int64_t sy = key_.crop.top + key_.roiY + int64_t(from) * key_.crop.height / pix.height;
            uint8_t* row = scene_.data() + size_t(y) * pix.bytesperline;
            for (uint32_t x = 0; x < pix.width; ++x) {
                auto rgb = sceneColor(columnToSensor[x], sy);
                if (ch == 1) {
                    row[x] = tone[(299 * rgb[0] + 587 * rgb[1] + 114 * rgb[2]) / 1000];
                } else {
                    row[3 * x] = tone[rgb[0]];
                    row[3 * x + 1] = tone[rgb[1]];
                    row[3 * x + 2] = tone[rgb[2]];
                }
            }
        }
    }

    void restore(BufferMemory& memory, uint32_t x, uint32_t y, uint32_t size) const
    {
        const auto& pix = key_.pix;
        const uint32_t ch = channels();
        for (uint32_t row = y; row < y + size; ++row) {
            size_t offset = size_t(row) * pix.bytesperline + size_t(x) * ch;
            std::memcpy(memory.bytes.get() + offset, scene_.data() + offset, size_t(size) * ch);
        }
    }

    // A white square bouncing left and right through the middle band of the frame.
    void drawMarker(BufferMemory& memory, uint32_t counter) const
    {
        const auto& pix = key_.pix;
        const uint32_t ch = channels();
        const uint32_t size = std::max(1u, pix.height / 16);
        const uint32_t travel = pix.width - size;
        const uint32_t step = std::max(1u, pix.width / 128);
        const uint32_t position = uint32_t((uint64_t(counter) * step) % (2 * uint64_t(travel)));
        const uint32_t x = position < travel ? position : 2 * travel - position;
        const uint32_t y = (pix.height - size) / 2;
        for (uint32_t row = y; row < y + size; ++row)
            std::memset(memory.bytes.get() + size_t(row) * pix.bytesperline + size_t(x) * ch, 255,
                        size_t(size) * ch);
        memory.markerX = x;
        memory.markerY = y;
        memory.markerSize = size;
    }

    // The counter in decimal, white on black in the top-left corner, and in binary in the
    // first bytes of the first row: the counter then its complement, little-endian.
    void drawCounter(uint8_t* frame, uint32_t counter) const
    {
        const auto& pix = key_.pix;
        const uint32_t ch = channels();
        const uint32_t scale = std::max(1u, pix.width / 480);
        const uint32_t boxWidth = (counterDigits * 6 + 2) * scale;
        const uint32_t boxHeight = (7 + 4) * scale;
        for (uint32_t row = 0; row < boxHeight; ++row)
            std::memset(frame + size_t(row) * pix.bytesperline, 0, size_t(boxWidth) * ch);

        uint32_t rest = counter;
        for (int digit = counterDigits - 1; digit >= 0; --digit, rest /= 10) {
            const uint8_t* glyph = digitGlyphs[rest % 10];
            const uint32_t left = (1 + digit * 6) * scale;
            for (uint32_t gy = 0; gy < 7; ++gy) {
                for (uint32_t gx = 0; gx < 5; ++gx) {
                    if (!(glyph[gy] & (0x10 >> gx)))
                        continue;
                    for (uint32_t dy = 0; dy < scale; ++dy) {
                        uint8_t* at = frame + size_t((2 + gy) * scale + dy) * pix.bytesperline +
                                      size_t(left + gx * scale) * ch;
                        std::memset(at, 255, size_t(scale) * ch);
                    }
                }
            }
        }

        const uint32_t words[2] = {counter, ~counter};
        for (int i = 0; i < 8; ++i)
            frame[i] = static_cast<uint8_t>(words[i / 4] >> (8 * (i % 4)));
    }

    static inline std::atomic<uint64_t> nextVersion_{1};
    SceneKey key_;
    uint64_t version_ = 0;
    std::vector<uint8_t> scene_;
};

class SensorFile;

// The capture device: state shared by every open descriptor, as in a kernel driver. The
// descriptor that allocates buffers owns the queue until it frees them or closes.
class V4L2Sensor final : public VirtualDevice, public std::enable_shared_from_this<V4L2Sensor> {
public:
    V4L2Sensor(EmulatedBoard& board, std::string path);
    ~V4L2Sensor() override;

    std::unique_ptr<VirtualFile> open(int flags) override;

    int ioctl(SensorFile& file, unsigned long request, void* argument);
    void* map(SensorFile& file, size_t length, off_t offset);
    short readyEvents(const SensorFile& file);
    void release(SensorFile& file);

private:
    enum class State { dequeued, queued, filling, done };
    struct Buffer {
        std::shared_ptr<BufferMemory> memory;
        v4l2_buffer record{};
        State state = State::dequeued;
    };

    int queryCapabilities(v4l2_capability& capability) const;
    int enumerateFormat(v4l2_fmtdesc& description) const;
    int enumerateFrameSizes(v4l2_frmsizeenum& size) const;
    int format(v4l2_format& format, bool apply);
    int queryControl(v4l2_queryctrl& query) const;
    int queryMenu(v4l2_querymenu& entry) const;
    int getControl(v4l2_control& control);
    int setControl(v4l2_control& control);
    int cropCapabilities(v4l2_cropcap& capabilities) const;
    int getCrop(v4l2_crop& crop);
    int setCrop(const v4l2_crop& crop);
    int requestBuffers(SensorFile& file, v4l2_requestbuffers& request);
    int queryBuffer(v4l2_buffer& buffer);
    int queueBuffer(SensorFile& file, v4l2_buffer& buffer);
    int dequeueBuffer(SensorFile& file, v4l2_buffer& buffer);
    int streamOn(SensorFile& file, const int& type);
    int streamOff(SensorFile& file, const int& type);

    // Whether `file` may use the queue; sets errno when not.
    bool mayUseQueue(const SensorFile& file) const;
    void stopStreaming(std::unique_lock<std::mutex>& lock);
    void freeBuffers();
    void setRecordFlags(Buffer& buffer) const;
    SceneKey sceneKey() const;
    bool faulted(Fault fault) const { return board_.faults().fault(path_) == fault; }

    void produce(std::stop_token stop);
    void deliverFrame(const std::stop_token& stop);

    EmulatedBoard& board_;
    const std::string path_;

    // Serialises stream start and stop, which wait for the producer outside `mutex_`.
    std::mutex streamControl_;
    std::mutex mutex_;
    std::condition_variable_any changed_;
    v4l2_pix_format format_;
    v4l2_rect crop_{0, 0, sensorWidth, sensorHeight};
    std::map<uint32_t, int32_t> values_;
    std::vector<Buffer> buffers_;
    std::vector<uint32_t> queued_; // FIFO of buffer indexes, at most maxBuffers long
    std::vector<uint32_t> done_;
    // Memory reused across allocations while some descriptor is open.
    std::vector<std::shared_ptr<BufferMemory>> pool_;
    const SensorFile* owner_ = nullptr;
    int openFiles_ = 0;
    bool streaming_ = false;
    uint32_t sequence_ = 0;

    // Producer-only state.
    uint64_t pulsesSeen_ = 0;
    FramePainter painter_;
    std::jthread producer_; // last: stopped and joined before the rest goes
};

class SensorFile final : public VirtualFile {
public:
    SensorFile(std::shared_ptr<V4L2Sensor> sensor, int flags)
        : sensor_(std::move(sensor)), nonBlocking_(flags & O_NONBLOCK)
    {
    }
    ~SensorFile() override { sensor_->release(*this); }

    int ioctl(unsigned long request, void* argument) override
    {
        return sensor_->ioctl(*this, request, argument);
    }
    void* mmap(size_t length, off_t offset) override { return sensor_->map(*this, length, offset); }
    short readyEvents() override { return sensor_->readyEvents(*this); }

    bool nonBlocking() const { return nonBlocking_; }
    // Keeps memory this descriptor mapped alive until the descriptor goes (the board holds
    // the descriptor while a mapping exists).
    void keepMapped(const std::shared_ptr<BufferMemory>& memory)
    {
        if (std::find(mapped_.begin(), mapped_.end(), memory) == mapped_.end())
            mapped_.push_back(memory);
    }

private:
    std::shared_ptr<V4L2Sensor> sensor_;
    bool nonBlocking_;
    std::vector<std::shared_ptr<BufferMemory>> mapped_;
};

V4L2Sensor::V4L2Sensor(EmulatedBoard& board, std::string path)
    : board_(board), path_(std::move(path)), format_(layout(pixelFormats[0], frameSizes[1]))
{
    for (const auto& described : controlSpecs)
        if (described.type != V4L2_CTRL_TYPE_CTRL_CLASS)
            values_[described.id] = described.defaultValue;
    buffers_.reserve(maxBuffers);
    queued_.reserve(maxBuffers);
    done_.reserve(maxBuffers);
}

V4L2Sensor::~V4L2Sensor() = default;

std::unique_ptr<VirtualFile> V4L2Sensor::open(int flags)
{
    std::lock_guard lock(mutex_);
    ++openFiles_;
    return std::make_unique<SensorFile>(shared_from_this(), flags);
}

void V4L2Sensor::release(SensorFile& file)
{
    std::lock_guard control(streamControl_);
    std::unique_lock lock(mutex_);
    if (owner_ == &file) {
        stopStreaming(lock);
        freeBuffers();
    }
    if (--openFiles_ == 0)
        pool_.clear();
}

int V4L2Sensor::ioctl(SensorFile& file, unsigned long request, void* argument)
{
    if (!argument)
        return fail(EFAULT);
    switch (request) {
    case VIDIOC_QUERYCAP: return queryCapabilities(*static_cast<v4l2_capability*>(argument));
    case VIDIOC_ENUM_FMT: return enumerateFormat(*static_cast<v4l2_fmtdesc*>(argument));
    case VIDIOC_ENUM_FRAMESIZES:
        return enumerateFrameSizes(*static_cast<v4l2_frmsizeenum*>(argument));
    case VIDIOC_G_FMT: {
        auto& f = *static_cast<v4l2_format*>(argument);
        if (f.type != V4L2_BUF_TYPE_VIDEO_CAPTURE)
            return fail(EINVAL);
        std::lock_guard lock(mutex_);
        f.fmt.pix = format_;
        return 0;
    }
    case VIDIOC_TRY_FMT: return format(*static_cast<v4l2_format*>(argument), false);
    case VIDIOC_S_FMT: return format(*static_cast<v4l2_format*>(argument), true);
    case VIDIOC_QUERYCTRL: return queryControl(*static_cast<v4l2_queryctrl*>(argument));
    case VIDIOC_QUERYMENU: return queryMenu(*static_cast<v4l2_querymenu*>(argument));
    case VIDIOC_G_CTRL: return getControl(*static_cast<v4l2_control*>(argument));
    case VIDIOC_S_CTRL: return setControl(*static_cast<v4l2_control*>(argument));
    case VIDIOC_CROPCAP: return cropCapabilities(*static_cast<v4l2_cropcap*>(argument));
    case VIDIOC_G_CROP: return getCrop(*static_cast<v4l2_crop*>(argument));
    case VIDIOC_S_CROP: return setCrop(*static_cast<const v4l2_crop*>(argument));
    case VIDIOC_REQBUFS:
        return requestBuffers(file, *static_cast<v4l2_requestbuffers*>(argument));
    case VIDIOC_QUERYBUF: return queryBuffer(*static_cast<v4l2_buffer*>(argument));
    case VIDIOC_QBUF: return queueBuffer(file, *static_cast<v4l2_buffer*>(argument));
    case VIDIOC_DQBUF: return dequeueBuffer(file, *static_cast<v4l2_buffer*>(argument));
    case VIDIOC_STREAMON: return streamOn(file, *static_cast<const int*>(argument));
    case VIDIOC_STREAMOFF: return streamOff(file, *static_cast<const int*>(argument));
    default: return fail(ENOTTY);
    }
}

int V4L2Sensor::queryCapabilities(v4l2_capability& capability) const
{
    capability = v4l2_capability{};
    copyText(capability.driver, sizeof(capability.driver), "k52-sensor");
    copyText(capability.card, sizeof(capability.card), "K52 emulated image sensor");
    copyText(capability.bus_info, sizeof(capability.bus_info), "platform:k52-sensor");
    capability.version = (1u << 16) | (3u << 8) | 1u;
    capability.device_caps = V4L2_CAP_VIDEO_CAPTURE | V4L2_CAP_STREAMING;
    capability.capabilities = capability.device_caps | V4L2_CAP_DEVICE_CAPS;
    return 0;
}

int V4L2Sensor::enumerateFormat(v4l2_fmtdesc& description) const
{
    if (description.type != V4L2_BUF_TYPE_VIDEO_CAPTURE || description.index >= pixelFormats.size())
        return fail(EINVAL);
    const PixelFormat& format = pixelFormats[description.index];
    const uint32_t index = description.index;
    description = v4l2_fmtdesc{};
    description.index = index;
    description.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    description.pixelformat = format.fourcc;
    copyText(description.description, sizeof(description.description), format.description);
    return 0;
}

int V4L2Sensor::enumerateFrameSizes(v4l2_frmsizeenum& size) const
{
    if (!findFormat(size.pixel_format) || size.index >= frameSizes.size())
        return fail(EINVAL);
    size.type = V4L2_FRMSIZE_TYPE_DISCRETE;
    size.discrete = frameSizes[size.index];
    return 0;
}

int V4L2Sensor::format(v4l2_format& f, bool apply)
{
    if (f.type != V4L2_BUF_TYPE_VIDEO_CAPTURE)
        return fail(EINVAL);
    const v4l2_pix_format granted = adjustFormat(f.fmt.pix);
    if (apply) {
        std::lock_guard lock(mutex_);
        if (!buffers_.empty())
            return fail(EBUSY); // the buffers were sized for the current format
        format_ = granted;
    }
    f.fmt.pix = granted;
    return 0;
}

int V4L2Sensor::queryControl(v4l2_queryctrl& query) const
{
    const uint32_t nextFlags = V4L2_CTRL_FLAG_NEXT_CTRL | V4L2_CTRL_FLAG_NEXT_COMPOUND;
    const uint32_t id = query.id & ~nextFlags;
    const ControlSpec* described = nullptr;
    if (query.id & V4L2_CTRL_FLAG_NEXT_CTRL) {
        for (const auto& candidate : controlSpecs) {
            if (candidate.id > id) {
                described = &candidate;
                break;
            }
        }
    } else {
        described = findControl(id);
    }
    if (!described)
        return fail(EINVAL);
    query = v4l2_queryctrl{};
    query.id = described->id;
    query.type = described->type;
    copyText(query.name, sizeof(query.name), described->name);
    query.minimum = described->minimum;
    query.maximum = described->maximum;
    query.step = described->step;
    query.default_value = described->defaultValue;
    query.flags = described->flags;
    return 0;
}

int V4L2Sensor::queryMenu(v4l2_querymenu& entry) const
{
    const ControlSpec* described = findControl(entry.id);
    const bool integerMenu = described && described->type == V4L2_CTRL_TYPE_INTEGER_MENU;
    if (!described || (described->type != V4L2_CTRL_TYPE_MENU && !integerMenu) ||
        entry.index < uint32_t(described->minimum) || entry.index > uint32_t(described->maximum) ||
        (!integerMenu && !described->menu[entry.index]))
        return fail(EINVAL);
    entry.reserved = 0;
    if (integerMenu)
        entry.value = described->integerMenu[entry.index];
    else
        copyText(entry.name, sizeof(entry.name), described->menu[entry.index]);
    return 0;
}

int V4L2Sensor::getControl(v4l2_control& control)
{
    const ControlSpec* described = findControl(control.id);
    if (!described)
        return fail(EINVAL);
    if (described->flags & V4L2_CTRL_FLAG_WRITE_ONLY)
        return fail(EACCES);
    std::lock_guard lock(mutex_);
    control.value = values_.at(described->id);
    return 0;
}

int V4L2Sensor::setControl(v4l2_control& control)
{
    const ControlSpec* described = findControl(control.id);
    if (!described)
        return fail(EINVAL);
    if (described->flags & V4L2_CTRL_FLAG_READ_ONLY)
        return fail(EACCES);
    // As the kernel's control framework: an integer is clamped into its range and rounded to
    // its step, a boolean is any non-zero value, and only a menu refuses an index outside its
    // range or one it skips. The value stored is handed back.
    int64_t value = control.value;
    if (described->type == V4L2_CTRL_TYPE_BOOLEAN) {
        value = value != 0;
    } else if (described->type == V4L2_CTRL_TYPE_MENU ||
               described->type == V4L2_CTRL_TYPE_INTEGER_MENU) {
        if (value < described->minimum || value > described->maximum)
            return fail(ERANGE);
        if (described->type == V4L2_CTRL_TYPE_MENU && !described->menu[value])
            return fail(EINVAL);
    } else {
        const int64_t step = std::max(described->step, 1);
        value = value >= int64_t(described->maximum) - step / 2 ? described->maximum : value + step / 2;
        value = std::clamp<int64_t>(value, described->minimum, described->maximum);
        value = described->minimum + (value - described->minimum) / step * step;
    }
    control.value = static_cast<int32_t>(value);
    std::lock_guard lock(mutex_);
    values_[described->id] = control.value;
    return 0;
}

int V4L2Sensor::cropCapabilities(v4l2_cropcap& capabilities) const
{
    if (capabilities.type != V4L2_BUF_TYPE_VIDEO_CAPTURE)
        return fail(EINVAL);
    capabilities.bounds = {0, 0, sensorWidth, sensorHeight};
    capabilities.defrect = capabilities.bounds;
    capabilities.pixelaspect = {1, 1};
    return 0;
}

int V4L2Sensor::getCrop(v4l2_crop& crop)
{
    if (crop.type != V4L2_BUF_TYPE_VIDEO_CAPTURE)
        return fail(EINVAL);
    std::lock_guard lock(mutex_);
    crop.c = crop_;
    return 0;
}

int V4L2Sensor::setCrop(const v4l2_crop& crop)
{
    if (crop.type != V4L2_BUF_TYPE_VIDEO_CAPTURE)
        return fail(EINVAL);
    // Adjusted into the pixel array, as a driver would; the frame size stays, so the cropped
    // area is scaled into it (and may change while streaming).
    v4l2_rect rect;
    rect.width = std::clamp(crop.c.width, minCropSize, sensorWidth);
    rect.height = std::clamp(crop.c.height, minCropSize, sensorHeight);
    rect.left = std::clamp(crop.c.left, 0, int32_t(sensorWidth - rect.width));
    rect.top = std::clamp(crop.c.top, 0, int32_t(sensorHeight - rect.height));
    std::lock_guard lock(mutex_);
    crop_ = rect;
    return 0;
}

bool V4L2Sensor::mayUseQueue(const SensorFile& file) const
{
    if (owner_ && owner_ != &file) {
        errno = EBUSY;
        return false;
    }
    return true;
}

void V4L2Sensor::setRecordFlags(Buffer& buffer) const
{
    uint32_t flags = buffer.record.flags & V4L2_BUF_FLAG_MAPPED;
    flags |= V4L2_BUF_FLAG_TIMESTAMP_MONOTONIC | V4L2_BUF_FLAG_TSTAMP_SRC_EOF;
    if (buffer.state == State::queued || buffer.state == State::filling)
        flags |= V4L2_BUF_FLAG_QUEUED;
    if (buffer.state == State::done)
        flags |= V4L2_BUF_FLAG_DONE;
    buffer.record.flags = flags;
}

void V4L2Sensor::freeBuffers()
{
    buffers_.clear();
    queued_.clear();
    done_.clear();
    owner_ = nullptr;
}

int V4L2Sensor::requestBuffers(SensorFile& file, v4l2_requestbuffers& request)
{
    if (request.type != V4L2_BUF_TYPE_VIDEO_CAPTURE || request.memory != V4L2_MEMORY_MMAP)
        return fail(EINVAL);
    std::lock_guard lock(mutex_);
    if (!mayUseQueue(file))
        return -1;
    if (streaming_)
        return fail(EBUSY);
    freeBuffers();
    request.capabilities = V4L2_BUF_CAP_SUPPORTS_MMAP;
    if (request.count == 0)
        return 0;

    const uint32_t count = std::min(request.count, maxBuffers);
    const size_t length = roundUp(format_.sizeimage, pageSize);
    if (pool_.size() < count)
        pool_.resize(count);
    for (uint32_t index = 0; index < count; ++index) {
        auto& memory = pool_[index];
        if (!memory || memory->size < length)
            memory = std::make_shared<BufferMemory>(length);
        Buffer buffer;
        buffer.memory = memory;
        buffer.record.index = index;
        buffer.record.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
        buffer.record.memory = V4L2_MEMORY_MMAP;
        buffer.record.field = V4L2_FIELD_NONE;
        buffer.record.length = format_.sizeimage;
        buffer.record.m.offset = static_cast<uint32_t>(index * length);
        buffers_.push_back(std::move(buffer));
    }
    owner_ = &file;
    request.count = count;
    return 0;
}

int V4L2Sensor::queryBuffer(v4l2_buffer& buffer)
{
    if (buffer.type != V4L2_BUF_TYPE_VIDEO_CAPTURE)
        return fail(EINVAL);
    std::lock_guard lock(mutex_);
    if (buffer.index >= buffers_.size())
        return fail(EINVAL);
    Buffer& known = buffers_[buffer.index];
    setRecordFlags(known);
    buffer = known.record;
    return 0;
}

void* V4L2Sensor::map(SensorFile& file, size_t length, off_t offset)
{
    std::lock_guard lock(mutex_);
    for (auto& buffer : buffers_) {
        if (buffer.record.m.offset == uint64_t(offset)) {
            if (length == 0 || length > buffer.memory->size)
                break;
            buffer.record.flags |= V4L2_BUF_FLAG_MAPPED;
            file.keepMapped(buffer.memory);
            return buffer.memory->bytes.get();
        }
    }
    errno = EINVAL;
    return nullptr;
}

int V4L2Sensor::queueBuffer(SensorFile& file, v4l2_buffer& buffer)
{
    if (buffer.type != V4L2_BUF_TYPE_VIDEO_CAPTURE || buffer.memory != V4L2_MEMORY_MMAP)
        return fail(EINVAL);
    {
        std::lock_guard lock(mutex_);
        if (!mayUseQueue(file))
            return -1;
        if (buffer.index >= buffers_.size() || buffers_[buffer.index].state != State::dequeued)
            return fail(EINVAL);
        Buffer& known = buffers_[buffer.index];
        known.state = State::queued;
        queued_.push_back(buffer.index);
        setRecordFlags(known);
        buffer = known.record;
    }
    changed_.notify_all();
    return 0;
}

int V4L2Sensor::dequeueBuffer(SensorFile& file, v4l2_buffer& buffer)
{
    if (buffer.type != V4L2_BUF_TYPE_VIDEO_CAPTURE || buffer.memory != V4L2_MEMORY_MMAP)
        return fail(EINVAL);
    std::unique_lock lock(mutex_);
    if (!mayUseQueue(file))
        return -1;
    for (;;) {
        if (!streaming_)
            return fail(EINVAL);
        if (!done_.empty() && !faulted(Fault::timeout))
            break;
        if (file.nonBlocking())
            return fail(EAGAIN);
        changed_.wait_for(lock, pollSlice);
    }
    const uint32_t index = done_.front();
    done_.erase(done_.begin());
    Buffer& known = buffers_[index];
    known.state = State::dequeued;
    setRecordFlags(known);
    buffer = known.record;
    return 0;
}

int V4L2Sensor::streamOn(SensorFile& file, const int& type)
{
    if (type != V4L2_BUF_TYPE_VIDEO_CAPTURE)
        return fail(EINVAL);
    std::lock_guard control(streamControl_);
    std::lock_guard lock(mutex_);
    if (!mayUseQueue(file))
        return -1;
    if (buffers_.empty())
        return fail(EINVAL);
    if (streaming_)
        return 0;
    streaming_ = true;
    sequence_ = 0;
    pulsesSeen_ = board_.sensorBus().pulses(); // earlier triggers belong to no frame
    producer_ = std::jthread([this](std::stop_token stop) { produce(stop); });
    return 0;
}

int V4L2Sensor::streamOff(SensorFile& file, const int& type)
{
    if (type != V4L2_BUF_TYPE_VIDEO_CAPTURE)
        return fail(EINVAL);
    std::lock_guard control(streamControl_);
    std::unique_lock lock(mutex_);
    if (!mayUseQueue(file))
        return -1;
    stopStreaming(lock);
    return 0;
}

// Stops the producer and returns every buffer to the application, as STREAMOFF does.
// Called with `streamControl_` held and `lock` on `mutex_`.
void V4L2Sensor::stopStreaming(std::unique_lock<std::mutex>& lock)
{
    streaming_ = false;
    // Requested under the lock, so a frame in flight is dropped rather than completed.
    producer_.request_stop();
    std::jthread producer = std::move(producer_);
    for (auto& buffer : buffers_)
        buffer.state = State::dequeued;
    queued_.clear();
    done_.clear();
    lock.unlock();
    changed_.notify_all();
    if (producer.joinable())
        producer.join();
    board_.notify(); // pollers now see the error state
    lock.lock();
}

short V4L2Sensor::readyEvents(const SensorFile& file)
{
    std::lock_guard lock(mutex_);
    if (!streaming_ || owner_ != &file)
        return POLLERR;
    if (done_.empty() || faulted(Fault::timeout))
        return 0;
    return POLLIN | POLLRDNORM;
}

SceneKey V4L2Sensor::sceneKey() const
{
    const SensorBus& bus = board_.sensorBus();
    SceneKey key;
    key.pix = format_;
    key.crop = crop_;
    key.roiX = bus.roiX();
    key.roiY = bus.roiY();
    key.exposureUs = bus.exposureUs();
    key.brightness = values_.at(V4L2_CID_BRIGHTNESS);
    key.gain = values_.at(V4L2_CID_GAIN);
    key.hflip = values_.at(V4L2_CID_HFLIP);
    key.vflip = values_.at(V4L2_CID_VFLIP);
    key.pattern = values_.at(V4L2_CID_TEST_PATTERN);
    return key;
}

void V4L2Sensor::produce(std::stop_token stop)
{
    SensorBus& bus = board_.sensorBus();
    auto nextDue = Clock::now();
    while (!stop.stop_requested()) {
        if (!bus.acquisition() || faulted(Fault::timeout)) {
            pulsesSeen_ = bus.pulses(); // a trigger without acquisition exposes nothing
            bus.waitForChange(Clock::now() + pollSlice);
            nextDue = Clock::now();
            continue;
        }
        if (bus.trigger() == SensorBus::Trigger::manual) {
            if (bus.pulses() == pulsesSeen_) {
                bus.waitForChange(Clock::now() + pollSlice);
                continue;
            }
            ++pulsesSeen_; // one exposure per trigger
        } else if (const uint32_t fps = bus.framesPerSecond(); fps > 0) {
            const auto period = std::chrono::duration_cast<Clock::duration>(
                                    std::chrono::seconds(1)) / fps;
            const auto now = Clock::now();
            if (nextDue > now + period)
                nextDue = now; // the rate went up
            if (now < nextDue) {
                bus.waitForChange(std::min(nextDue, now + pollSlice));
                continue;
            }
            // Slots missed while a frame was painted are skipped, not caught up in a burst.
            nextDue += period;
            if (nextDue <= now)
                nextDue = now + period;
        } else {
            // Unconstrained: the sensor runs as fast as buffers come back, dropping nothing.
            std::unique_lock lock(mutex_);
            if (queued_.empty()) {
                changed_.wait_for(lock, stop, pollSlice, [&] { return !queued_.empty(); });
                continue;
            }
        }
        deliverFrame(stop);
    }
}

void V4L2Sensor::deliverFrame(const std::stop_token& stop)
{
    uint32_t index;
    uint32_t sequence;
    SceneKey key;
    std::shared_ptr<BufferMemory> memory;
    {
        std::lock_guard lock(mutex_);
        if (stop.stop_requested())
            return;
        sequence = sequence_++;
        if (queued_.empty())
            return; // no buffer: the frame is lost, as the sequence gap tells
        index = queued_.front();
        queued_.erase(queued_.begin());
        buffers_[index].state = State::filling;
        memory = buffers_[index].memory;
        key = sceneKey();
    }

    painter_.prepare(key);
    painter_.paint(*memory, sequence);
    const bool shortFrame = faulted(Fault::shortFrame);
    const auto sinceBoot = Clock::now().time_since_epoch();
    const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(sinceBoot);
    const auto micros = std::chrono::duration_cast<std::chrono::microseconds>(sinceBoot - seconds);

    {
        std::lock_guard lock(mutex_);
        if (stop.stop_requested())
            return; // streaming stopped meanwhile; the buffer went back to the application
        Buffer& buffer = buffers_[index];
        buffer.record.bytesused =
            shortFrame ? key.pix.bytesperline * (key.pix.height / 4) : key.pix.sizeimage;
        buffer.record.sequence = sequence;
        buffer.record.timestamp.tv_sec = seconds.count();
        buffer.record.timestamp.tv_usec = micros.count();
        buffer.state = State::done;
        done_.push_back(index);
    }
    changed_.notify_all();
    board_.notify();
}

} // namespace

void attachV4L2Sensor(EmulatedBoard& board)
{
    board.attach(v4l2SensorPath, std::make_shared<V4L2Sensor>(board, v4l2SensorPath));
}

} // namespace utils::platform::emulated
