#include "utils/platform/emulated/v4l2sensor.h"

#include "utils/platform/emulated/framepainter.h"
#include "utils/platform/emulated/sensorformats.h"

#include <fcntl.h>
#include <linux/videodev2.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <map>
#include <mutex>
#include <stop_token>
#include <thread>
#include <vector>

namespace utils::platform::emulated {

namespace {

using namespace sensor;

using Clock = std::chrono::steady_clock;

constexpr uint32_t maxBuffers = 16;
constexpr uint32_t minCropSize = 16;
// How long the producer sleeps before it looks at the bus and its stop request again.
constexpr auto pollSlice = std::chrono::milliseconds(10);

// A zero-terminated text in a fixed-size field (some of them sit in packed records).
void copyText(uint8_t* field, size_t size, const char* text)
{
    std::memset(field, 0, size);
    std::strncpy(reinterpret_cast<char*>(field), text, size - 1);
}

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
