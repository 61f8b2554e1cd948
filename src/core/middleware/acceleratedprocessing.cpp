#include "core/middleware/acceleratedprocessing.h"

#include "core/middleware/capture.h"
#include "core/routereply.h"
#include "utils/log/logrecord.h"
#include "utils/base/exceptions.h"
#include "utils/io/iov4l2.h"

#include <algorithm>
#include <cstring>
#include <string>

namespace k52app {

namespace {

// Average intensities above this mark a bad sample.
constexpr uint8_t goodIntensityLimit = 80;

// The two per-pixel loops are built twice on x86-64, for AVX2 (twice the lanes) and for the
// baseline, and the loader picks what the processor runs; the board's NEON has one width.
// GCC only (the fuzzing build's clang keeps the baseline), and not under ThreadSanitizer, whose
// runtime is not yet up when the loader runs the chooser.
#if defined(__x86_64__) && !defined(__clang__) && !defined(__SANITIZE_THREAD__)
#define K52_VECTOR_CLONES gnu::target_clones("avx2", "default"),
#else
#define K52_VECTOR_CLONES
#endif

// The smallest and largest level of a row, folded into `minimum` and `maximum`.
[[K52_VECTOR_CLONES gnu::noinline]] void scanRow(const uint8_t* __restrict source, size_t width,
                                                 uint8_t& minimum, uint8_t& maximum)
{
    uint8_t rowMinimum = minimum;
    uint8_t rowMaximum = maximum;
    for (size_t i = 0; i < width; ++i) {
        rowMinimum = std::min(rowMinimum, source[i]);
        rowMaximum = std::max(rowMaximum, source[i]);
    }
    minimum = rowMinimum;
    maximum = rowMaximum;
}

// (level - minimum) * factor >> 16 in 16-bit lanes: with factor = high * 2^16 + low it is
// d * high + ((d * low) >> 16) exactly, a low and a high 16-bit multiply, where the 32-bit
// product takes twice the vector work (and SSE2 has no 32-bit multiply). Out of line so that
// the compiler sees `high` and `low` as 16-bit values, not as parts of the 32-bit factor.
[[K52_VECTOR_CLONES gnu::noinline]] void stretchRow(const uint8_t* __restrict source,
                                                    uint8_t* __restrict target, size_t width,
                                                    uint8_t minimum, uint16_t high, uint16_t low)
{
    for (size_t i = 0; i < width; ++i) {
        const uint16_t d = uint16_t(source[i] - minimum);
        target[i] = uint8_t(uint16_t(d * high) + uint16_t((uint32_t(d) * low) >> 16));
    }
}

} // namespace

AcceleratedProcessing::AcceleratedProcessing(utils::IOOpenCL& openCL, utils::IOV4L2& device)
    : openCL_(openCL), device_(device)
{
}

void AcceleratedProcessing::enable(const std::string& kernelFile, const std::string& kernelName,
                                   int32_t p1, int32_t p2, int32_t p3, int32_t p4)
{
    std::lock_guard lock(mutex_);
    if (isEnabled())
        throw utils::UtilsException("Accelerated Proccessing is already enabled.");
    // The route's help calls the values left, top, width, height; clients send x and y ranges.
    const int64_t width = int64_t(p2) - p1;
    const int64_t height = int64_t(p4) - p3;
    const v4l2_pix_format format = device_.getFormat();
    if (width < 0 || height < 0 || p1 < 0 || p2 < 0 || p3 < 0 || p4 < 0 ||
        uint32_t(p1) > format.width || uint32_t(p2) > format.width ||
        uint32_t(p3) > format.height || uint32_t(p4) > format.height)
        throw utils::UtilsException("Invalid ROI parameters.");

    region_ = {static_cast<int32_t>(width), static_cast<int32_t>(height), p1, p3};
    const size_t size = size_t(width) * size_t(height);
    output_ = openCL_.createBuffer(CL_MEM_WRITE_ONLY, size);
    K52_LOG(debug) << "Used openCL device:\t" << openCL_.deviceName();
    openCL_.loadKernel(kernelFile, kernelName);
    openCL_.setGlobalRange({size_t(width), size_t(height)});
    enabled_.store(1);
}

void AcceleratedProcessing::disable()
{
    std::lock_guard lock(mutex_);
    enabled_.store(0);
    region_ = Region{};
}

AcceleratedProcessing::Region AcceleratedProcessing::region() const
{
    std::lock_guard lock(mutex_);
    return region_;
}

bool AcceleratedProcessing::processFrame(const uint8_t* frame, uint32_t usedSize,
                                         const v4l2_pix_format& format, FrameArea& area)
{
    if (!isEnabled())
        return false;
    std::lock_guard lock(mutex_);
    if (!isEnabled())
        return false; // disabled while this frame waited
    const uint32_t pixelFormat = PixelFomatMap.at(format.pixelformat);
    const uint32_t channels = utils::IOV4L2::channels(format.pixelformat);
    const uint32_t stride = format.height == 0 ? 0 : usedSize / format.height;
    const uint32_t rowPixels = stride / channels;
    const bool hasRegion = region_.width > 0 && region_.height > 0;
    const uint32_t rows = hasRegion ? uint32_t(region_.height) : format.height;
    if (usedSize < uint64_t(format.width) * rows)
        throw utils::UtilsRuntimeError("invalid frame buffer size.");
    // The region was checked against the format of its time; a stream may run at a smaller one.
    if (uint64_t(region_.left) + std::max(region_.width, 0) > std::min(format.width, rowPixels) ||
        uint64_t(region_.top) + std::max(region_.height, 0) > format.height)
        throw utils::UtilsRuntimeError(
            "the processing region of " + std::to_string(region_.width) + "x" +
            std::to_string(region_.height) + " at (" + std::to_string(region_.left) + ", " +
            std::to_string(region_.top) + ") does not lie inside the " +
            std::to_string(format.width) + "x" + std::to_string(format.height) + " frame.");

    const uint32_t width = uint32_t(std::max(region_.width, 0));
    const uint32_t height = uint32_t(std::max(region_.height, 0));
    const size_t size = size_t(width) * height;
    FrameArea::checkSize(size);
    // One input buffer per region size, in memory the host maps: a new one per frame costs an
    // allocation and its page faults, and writing through a mapping spares a staging copy.
    if (!input_ || inputSize_ != size) {
        input_ = openCL_.createBuffer(CL_MEM_READ_ONLY | CL_MEM_ALLOC_HOST_PTR, size);
        inputSize_ = size;
    }
    {
        const utils::IOOpenCL::Mapping input = openCL_.mapForWriting(input_, size);
        if (width == rowPixels && height == format.height)
            std::memcpy(input.data(), frame, size); // the whole (unpadded) frame, as it is
        else
            cropAndNormalise(frame, rowPixels, region_, input.data());
    }

    openCL_.setKernelArgument(0, input_);
    openCL_.setKernelArgument(1, output_);
    openCL_.setKernelArgument(2, int32_t(width));
    openCL_.setKernelArgument(3, int32_t(height));
    openCL_.enqueueKernel(); // the blocking read below waits for it, one hand-over fewer
    area.begin(rowPixels, rows, pixelFormat, size);
    uint8_t* data = area.data();
    openCL_.readBuffer(output_, data, size);
    area.appendInPlace(size);

    const unsigned intensity = size > 0 ? data[0] : 0;
    K52_LOG(info) << "AVG Intensity = " << intensity << " category of sample [kernel=1] : "
                  << intensityCategory(uint8_t(intensity));

    area.finish();
    return true;
}

uint32_t AcceleratedProcessing::stretchFactor(uint8_t minimum, uint8_t maximum)
{
    // ceil(255 * 2^16 / range). With d = level - minimum <= range, d * factor / 2^16 exceeds
    // d * 255 / range by less than range / 2^16 < 1 / range, which is smaller than the gap from
    // d * 255 / range up to the next integer, so the shift truncates to the same quotient.
    // A flat region stretches to 0 through factor 0.
    const uint32_t range = maximum > minimum ? uint32_t(maximum - minimum) : 0;
    return range == 0 ? 0 : ((255u << 16) + range - 1) / range;
}

void AcceleratedProcessing::cropAndNormalise(const uint8_t* frame, uint32_t rowPixels,
                                             const Region& region, uint8_t* out)
{
    const size_t width = size_t(std::max(region.width, 0));
    const size_t height = size_t(std::max(region.height, 0));
    const uint8_t* first = frame + size_t(region.top) * rowPixels + size_t(region.left);
    // Two passes over the source, none over the output: a scan for the minimum and maximum,
    // then the stretch written once. Plain byte loops with min/max reductions and a
    // multiply-high, so that the compiler vectorises them (SSE2 or AVX2, NEON).
    uint8_t minimum = 255;
    uint8_t maximum = 0;
    for (size_t row = 0; row < height; ++row)
        scanRow(first + row * rowPixels, width, minimum, maximum);
    const uint32_t factor = stretchFactor(minimum, maximum);
    for (size_t row = 0; row < height; ++row)
        stretchRow(first + row * rowPixels, out + row * width, width, minimum, uint16_t(factor >> 16),
                   uint16_t(factor));
}

const char* AcceleratedProcessing::intensityCategory(uint8_t averageIntensity)
{
    return averageIntensity <= goodIntensityLimit ? "good" : "bad";
}

} // namespace k52app
