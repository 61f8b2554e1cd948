// Frame delivery of the emulated capture device through IOV4L2::awaitFrameMap, unconstrained
// (fps 0), next to a plain memcpy of the same frame size: the emulated sensor must never be what
// limits a client.

#include "utils/io/iov4l2.h"
#include "utils/platform/emulated/board.h"
#include "utils/platform/emulated/v4l2sensor.h"

#include <benchmark/benchmark.h>

#include <cstring>
#include <memory>
#include <vector>

namespace {

using utils::IOV4L2;
using utils::platform::emulated::EmulatedBoard;

struct Mode {
    uint32_t fourcc;
    uint32_t resolutionIndex;
};
// 1456x1088 GREY, 2472x2064 GREY, 2472x2064 RGB3.
const Mode modes[] = {{V4L2_PIX_FMT_GREY, 1}, {V4L2_PIX_FMT_GREY, 2}, {V4L2_PIX_FMT_RGB24, 2}};

// A streaming emulated camera for the duration of one benchmark.
class EmulatedStream {
public:
    explicit EmulatedStream(const Mode& mode)
    {
        utils::platform::emulated::attachV4L2Sensor(*board_);
        utils::platform::installKernel(board_);
        auto& bus = board_->sensorBus();
        bus.setAcquisition(true);
        bus.setTrigger(utils::platform::emulated::SensorBus::Trigger::continuous);
        bus.setFramesPerSecond(0);
        camera_ = std::make_unique<IOV4L2>(utils::platform::emulated::v4l2SensorPath);
        camera_->setFormat(mode.fourcc, mode.resolutionIndex);
        camera_->mapBuffers(6);
        for (uint32_t i = 0; i < camera_->bufferCount(); ++i)
            camera_->queryBuffer(i);
        camera_->streamOn();
    }
    ~EmulatedStream()
    {
        camera_.reset();
        utils::platform::installKernel(nullptr);
    }

    IOV4L2& camera() { return *camera_; }
    v4l2_pix_format format() const { return camera_->getFormat(); }

private:
    std::shared_ptr<EmulatedBoard> board_ = std::make_shared<EmulatedBoard>();
    std::unique_ptr<IOV4L2> camera_;
};

// Frames per second show as items/s, the frame's bytes (padding included) as bytes/s.
void report(benchmark::State& state, const v4l2_pix_format& pix)
{
    state.SetLabel(std::to_string(pix.width) + "x" + std::to_string(pix.height) + " " +
                   IOV4L2::fourccToString(pix.pixelformat) + " (" +
                   std::to_string(pix.sizeimage) + " B)");
    state.SetItemsProcessed(state.iterations());
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(pix.sizeimage));
}

// Frames handed to a client that only looks at them.
void awaitFrame(benchmark::State& state)
{
    EmulatedStream stream(modes[state.range(0)]);
    for (auto _ : state) {
        stream.camera().awaitFrameMap(1000, [](const uint8_t* data, uint32_t used,
                                               const v4l2_buffer&) {
            benchmark::DoNotOptimize(data[used - 1]);
        });
    }
    report(state, stream.format());
}

// Frames handed to a client that copies each one out, as the capture path does.
void awaitFrameAndCopy(benchmark::State& state)
{
    EmulatedStream stream(modes[state.range(0)]);
    std::vector<uint8_t> destination(stream.format().sizeimage);
    for (auto _ : state) {
        stream.camera().awaitFrameMap(1000, [&](const uint8_t* data, uint32_t used,
                                                const v4l2_buffer&) {
            std::memcpy(destination.data(), data, used);
            benchmark::ClobberMemory();
        });
    }
    report(state, stream.format());
}

// The reference: one memcpy of the same size, in the same run.
void plainMemcpy(benchmark::State& state)
{
    const v4l2_pix_format pix = EmulatedStream(modes[state.range(0)]).format();
    std::vector<uint8_t> source(pix.sizeimage, 0x5a);
    std::vector<uint8_t> destination(pix.sizeimage);
    for (auto _ : state) {
        std::memcpy(destination.data(), source.data(), pix.sizeimage);
        benchmark::ClobberMemory();
    }
    report(state, pix);
}

BENCHMARK(awaitFrame)->DenseRange(0, 2)->UseRealTime()->Unit(benchmark::kMicrosecond);
BENCHMARK(awaitFrameAndCopy)->DenseRange(0, 2)->UseRealTime()->Unit(benchmark::kMicrosecond);
BENCHMARK(plainMemcpy)->DenseRange(0, 2)->UseRealTime()->Unit(benchmark::kMicrosecond);

} // namespace

BENCHMARK_MAIN();
