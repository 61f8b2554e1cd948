#pragma once

#include "utils/io/ioopencl.h"

#include <linux/videodev2.h>

#include <atomic>
#include <cstdint>
#include <mutex>
#include <string>

namespace utils {
class IOV4L2;
}

namespace k52app {

class FrameArea;

// The GPU path of the frame pipeline: a region of each frame, normalised to the full level
// range when it is only part of the frame, runs through an OpenCL kernel (input, output, width,
// height) whose output becomes the frame data. The first output byte is the region's average
// intensity, logged with a good/bad category.
//
// enable() and disable() run on a worker while a stream may run on another. One mutex guards
// the region, the device buffers and the loaded kernel, so that a frame runs with one whole
// setting and a switch waits for the frame under way.
class AcceleratedProcessing {
public:
    // -1 everywhere while disabled.
    struct Region {
        int32_t width = -1;
        int32_t height = -1;
        int32_t left = -1;
        int32_t top = -1;
    };

    AcceleratedProcessing(utils::IOOpenCL& openCL, utils::IOV4L2& device);

    // p1..p4 are x start, x end, y start, y end within the device's current format. Throws
    // UtilsException "Accelerated Proccessing is already enabled." or "Invalid ROI parameters.",
    // and the OpenCL device's errors (no device, kernel file, build).
    void enable(const std::string& kernelFile, const std::string& kernelName, int32_t p1,
                int32_t p2, int32_t p3, int32_t p4);
    // Keeps the device buffers for the next enable().
    void disable();
    bool isEnabled() const { return enabled_.load() != 0; }
    Region region() const;

    // Runs the kernel over the region of one frame buffer of `format` and finishes the frame in
    // `area`; returns false, touching nothing, when the path is disabled. Throws
    // UtilsRuntimeError for a short frame ("invalid frame buffer size.") and for a frame the
    // region does not lie inside (the format may have changed since enable()).
    bool processFrame(const uint8_t* frame, uint32_t usedSize, const v4l2_pix_format& format,
                      FrameArea& area);

    // Copies `region` out of a frame whose rows are `rowPixels` one-byte pixels apart into
    // `out` (width x height bytes) and stretches its levels to 0..255; all 0 when the region
    // is flat.
    static void cropAndNormalise(const uint8_t* frame, uint32_t rowPixels, const Region& region,
                                 uint8_t* out);
    // The multiplier that stretches level - minimum to 0..255 as (product >> 16), exactly as
    // (level - minimum) * 255 / (maximum - minimum) truncates; 0 for a flat region.
    static uint32_t stretchFactor(uint8_t minimum, uint8_t maximum);
    // "good" below 81, "bad" from 81 on.
    static const char* intensityCategory(uint8_t averageIntensity);

private:
    utils::IOOpenCL& openCL_;
    utils::IOV4L2& device_;
    mutable std::mutex mutex_;
    std::atomic<uint8_t> enabled_{0}; // also read without the mutex, to skip it when off
    utils::IOOpenCL::Buffer input_;
    size_t inputSize_ = 0;
    utils::IOOpenCL::Buffer output_;
    Region region_;
};

} // namespace k52app
