// The GPU path on whatever OpenCL device is installed (PoCL's CPU device on a development
// machine): both kernels of etc/opencl against a plain CPU computation of the same region, the
// exactness of the region's normalisation, the frames a region does not fit and switching the
// path while frames run.
#include "core/middleware/acceleratedprocessing.h"
#include "core/middleware/capture.h"
#include "support/bytes.h"
#include "support/routerharness.h"
#include "support/syslogcapture.h"
#include "utils/base/exceptions.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <linux/videodev2.h>
#include <zlib.h>

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <numeric>
#include <thread>
#include <vector>

namespace {

using k52app::AcceleratedProcessing;
using k52test::word;
using Image = std::vector<uint8_t>;

const std::string kernelFile = std::string(K52_SOURCE_DIR) + "/etc/opencl/image_processing.cl";

// The kernels on the CPU: 3x3 weights over the region, whose edge pixels repeat their neighbour;
// processImage sharpens and puts the input's average into the first pixel.
Image reference(const std::string& kernel, const Image& in, int width, int height)
{
    static const int sharpen[9] = {0, -1, 0, -1, 5, -1, 0, -1, 0};
    static const int gx[9] = {-1, 0, 1, -2, 0, 2, -1, 0, 1}, gy[9] = {-1, -2, -1, 0, 0, 0, 1, 2, 1};
    Image out(in.size());
    for (int y = 0; y < height; ++y)
        for (int x = 0; x < width; ++x) {
            const auto apply = [&](const int* weights) {
                int sum = 0;
                for (int i = 0; i < 9; ++i)
                    sum += weights[i] * in[size_t(std::clamp(y + i / 3 - 1, 0, height - 1)) * width +
                                           std::clamp(x + i % 3 - 1, 0, width - 1)];
                return sum;
            };
            const int h = apply(gx), v = apply(gy);
            const int level = kernel == "sobelFilter" ? int(std::sqrt(double(h * h + v * v))) : apply(sharpen);
            out[size_t(y) * width + x] = uint8_t(std::clamp(level, 0, 255));
        }
    if (kernel == "processImage")
        out[0] = uint8_t(std::accumulate(in.begin(), in.end(), uint64_t{0}) / in.size());
    return out;
}

// A frame with structure everywhere: gradients, a diagonal and a bright block.
Image testFrame(int rowPixels, int height, int shift = 0)
{
    Image frame(size_t(rowPixels) * height);
    for (int y = 0; y < height; ++y)
        for (int x = 0; x < rowPixels; ++x)
            frame[size_t(y) * rowPixels + x] =
                uint8_t((x * 3 + y * 7 + shift) % 200 + (x == y ? 40 : 0) + (x > 300 && y < 90 ? 15 : 0));
    return frame;
}

class AcceleratedProcessingTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        if (!h.resources->openCL().isAvailable())
            GTEST_SKIP() << "No OpenCL device on this machine (" << h.resources->openCL().unavailableReason()
                         << "); install PoCL (pocl-opencl-icd) to run the GPU path's tests.";
    }

    AcceleratedProcessing& gpu() { return h.capture->acceleratedProcessing(); }
    const uint8_t* container() { return reinterpret_cast<const uint8_t*>(&h.resources->containers().generalContainer()); }
    bool process(const Image& frame, uint32_t usedSize, uint32_t width, uint32_t height)
    {
        v4l2_pix_format format{};
        format.width = width, format.height = height, format.pixelformat = V4L2_PIX_FMT_GREY;
        k52app::FrameArea area(h.resources->containers().generalContainer());
        return gpu().processFrame(frame.data(), usedSize, format, area);
    }

    k52test::RouterHarness h;
};

TEST_F(AcceleratedProcessingTest, KernelsMatchACpuComputationOfTheRegion)
{
    // The frame's width, height and row length, then the bounds as a client sends them. The whole
    // unpadded frame goes to the kernel as it is; a part of a padded frame is cut out and
    // normalised first.
    const struct {
        const char* kernel;
        uint32_t width, height, rowPixels;
        int32_t x0, x1, y0, y1;
    } cases[] = {
        {"processImage", 640, 480, 640, 0, 640, 0, 480}, {"sobelFilter", 640, 480, 640, 0, 640, 0, 480},
        {"processImage", 650, 200, 704, 17, 412, 9, 150}, {"sobelFilter", 650, 200, 704, 17, 412, 9, 150},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(::testing::Message() << c.kernel << " " << c.x0 << ".." << c.x1 << " x " << c.y0 << ".." << c.y1);
        // Each case another frame: a reused input buffer must be rewritten.
        const Image frame = testFrame(int(c.rowPixels), int(c.height), int(&c - cases));
        gpu().enable(kernelFile, c.kernel, c.x0, c.x1, c.y0, c.y1);
        k52test::SyslogCapture log;
        process(frame, uint32_t(frame.size()), c.width, c.height);
        gpu().disable();

        const AcceleratedProcessing::Region region{c.x1 - c.x0, c.y1 - c.y0, c.x0, c.y0};
        Image input = frame;
        if (region.width != int32_t(c.rowPixels)) {
            input.resize(size_t(region.width) * region.height);
            AcceleratedProcessing::cropAndNormalise(frame.data(), c.rowPixels, region, input.data());
        }
        const Image expected = reference(c.kernel, input, region.width, region.height);
        const size_t n = expected.size();
        EXPECT_EQ(Image(container() + 2244, container() + 2244 + n), expected);
        // Width field, height, pixel format, frame length, used length: the width is the row's.
        const auto at = [&](size_t offset) { return word(container(), offset); };
        EXPECT_EQ(std::vector<uint32_t>({at(2224), at(2228), at(2232), at(2240), at(4)}),
                  std::vector<uint32_t>({c.rowPixels, uint32_t(region.height), 1, uint32_t(n + 8), uint32_t(2248 + n)}));
        EXPECT_EQ(at(2244 + n), uint32_t(crc32(0, container(), uInt(2244 + n))));
        // The first output byte is the region's average intensity; from 81 on a bad sample.
        const std::string line = "AVG Intensity = " + std::to_string(expected[0]) +
                                 " category of sample [kernel=1] : " + (expected[0] < 81 ? "good" : "bad");
        EXPECT_THAT(log.records(), testing::Contains(testing::Field(&k52test::SyslogRecord::text,
                                                                    testing::HasSubstr(line))));
    }
    EXPECT_STREQ(AcceleratedProcessing::intensityCategory(80), "good");
    EXPECT_STREQ(AcceleratedProcessing::intensityCategory(81), "bad");
}

// Every level of every minimum/maximum pair, in rows long enough for the vector loops, against
// the integer formula; and a region cut out of a padded frame.
TEST(AcceleratedProcessingNormalisation, StretchEqualsTheIntegerFormula)
{
    Image row(256), out(256);
    for (int minimum = 0; minimum < 256; ++minimum)
        for (int maximum = minimum; maximum < 256; ++maximum) {
            const int range = maximum - minimum;
            for (int i = 0; i < 256; ++i)
                row[i] = uint8_t(minimum + i % (range + 1));
            AcceleratedProcessing::cropAndNormalise(row.data(), 256, {256, 1, 0, 0}, out.data());
            for (int i = 0; i < 256; ++i)
                if (out[i] != (range == 0 ? 0 : (row[i] - minimum) * 255 / range))
                    FAIL() << "level " << int(row[i]) << " of " << minimum << ".." << maximum
                           << " gave " << int(out[i]);
        }
    const Image frame{9, 9, 9, 9, 9, 10, 30, 9, 9, 20, 40, 9};
    Image cropped(4);
    AcceleratedProcessing::cropAndNormalise(frame.data(), 4, {2, 2, 1, 1}, cropped.data());
    EXPECT_EQ(cropped, Image({0, 170, 85, 255}));
}

TEST_F(AcceleratedProcessingTest, EnableRulesAndFramesTheRegionDoesNotFit)
{
    gpu().enable(kernelFile, "sobelFilter", 10, 110, 20, 60);
    EXPECT_THAT([&] { gpu().enable(kernelFile, "sobelFilter", 0, 10, 0, 10); },
                testing::ThrowsMessage<utils::UtilsException>("Accelerated Proccessing is already enabled."));
    gpu().disable();
    // A failed enable leaves the path off: the next one is not refused as a second.
    EXPECT_THROW(gpu().enable(kernelFile, "noSuchKernel", 0, 10, 0, 10), utils::UtilsRuntimeError);

    // Frames are refused before a byte is read when short or when the region, checked against
    // the 1456x1088 format of its time, does not lie inside them.
    gpu().enable(kernelFile, "processImage", 0, 100, 600, 1000);
    const std::tuple<uint32_t, uint32_t, uint32_t, std::string> frames[] = { // width, height, used size
        {100, 1000, 100 * 399, "invalid frame buffer size."},
        {640, 480, 640 * 480, "the processing region of 100x400 at (0, 600) does not lie inside the 640x480 frame."},
        {99, 1000, 99 * 1000, "the processing region of 100x400 at (0, 600) does not lie inside the 99x1000 frame."},
    };
    for (const auto& [width, height, usedSize, error] : frames)
        EXPECT_THAT([&] { process(Image(usedSize), usedSize, width, height); },
                    testing::ThrowsMessage<utils::UtilsRuntimeError>(error));
}

// Switching the path while frames run (also under ThreadSanitizer): each frame is processed
// with one whole region, or left to the plain copy, and stays framed.
TEST_F(AcceleratedProcessingTest, SwitchingWhileFramesRun)
{
    const Image frame = testFrame(640, 480);
    std::atomic<bool> done{false};
    std::thread frames([&] {
        while (!done) {
            if (!process(frame, uint32_t(frame.size()), 640, 480))
                continue;
            const uint32_t n = word(container(), 4) - 2248;
            EXPECT_TRUE(n == 640 * 480 || n == 320 * 240) << n;
            EXPECT_EQ(word(container(), 2244 + n), uint32_t(crc32(0, container(), uInt(2244 + n))));
        }
    });
    for (int i = 0; i < 30; ++i) {
        gpu().enable(kernelFile, "sobelFilter", 0, 640 >> (i % 2), 0, 480 >> (i % 2));
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
        gpu().disable();
    }
    done = true;
    frames.join();
}

// The route picks the kernel by mode. A whole flat frame is not normalised: processImage keeps
// its level, Sobel finds no edge.
TEST_F(AcceleratedProcessingTest, RouteChoosesTheKernelByMode)
{
    if (!std::filesystem::exists("/opt/corvane/k52app/etc/opencl/image_processing.cl"))
        GTEST_SKIP() << "the kernels are not installed (scripts/install-opencl-kernel.sh)";
    const Image flat(640 * 480, 100);
    for (const auto& [mode, level] : {std::pair{"1", 100}, std::pair{"2", 0}}) {
        EXPECT_EQ(h.run(std::string("CaptureAcceleratedProcessing ") + mode + " 0 640 0 480").second,
                  "CaptureEnableAcceleratedProcessing: Accelerator enabled.");
        process(flat, uint32_t(flat.size()), 640, 480);
        h.run("CaptureAcceleratedProcessing 0");
        EXPECT_EQ(container()[2244 + 999], level) << "mode " << mode;
    }
}

} // namespace
