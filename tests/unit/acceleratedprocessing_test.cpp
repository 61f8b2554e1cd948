// The GPU path on whatever OpenCL device is installed (PoCL's CPU device on a development
// machine): both kernels of etc/opencl against a plain CPU computation of the same region,
// the normalisation of a cropped region, the intensity category and the ROI rules.
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
#include <cstring>
#include <filesystem>
#include <numeric>
#include <thread>
#include <vector>

namespace {

using k52test::word;

using k52app::AcceleratedProcessing;
using Region = AcceleratedProcessing::Region;
using Image = std::vector<uint8_t>;

const std::string kernelFile = std::string(K52_SOURCE_DIR) + "/etc/opencl/image_processing.cl";
constexpr const char* installedKernelFile = "/opt/corvane/k52app/etc/opencl/image_processing.cl";

// Plain CPU versions of what the kernels compute: the edge pixels repeat their neighbour.
int at(const Image& image, int width, int height, int x, int y)
{
    return image[size_t(std::clamp(y, 0, height - 1)) * width + std::clamp(x, 0, width - 1)];
}

Image processImage(const Image& in, int width, int height)
{
    Image out(in.size());
    for (int y = 0; y < height; ++y)
        for (int x = 0; x < width; ++x) {
            int v = 5 * at(in, width, height, x, y) - at(in, width, height, x - 1, y) -
                    at(in, width, height, x + 1, y) - at(in, width, height, x, y - 1) -
                    at(in, width, height, x, y + 1);
            out[size_t(y) * width + x] = uint8_t(std::clamp(v, 0, 255));
        }
    uint64_t sum = std::accumulate(in.begin(), in.end(), uint64_t{0});
    out[0] = uint8_t(sum / in.size());
    return out;
}

Image sobel(const Image& in, int width, int height)
{
    Image out(in.size());
    for (int y = 0; y < height; ++y)
        for (int x = 0; x < width; ++x) {
            auto p = [&](int dx, int dy) { return at(in, width, height, x + dx, y + dy); };
            int gx = (p(1, -1) + 2 * p(1, 0) + p(1, 1)) - (p(-1, -1) + 2 * p(-1, 0) + p(-1, 1));
            int gy = (p(-1, 1) + 2 * p(0, 1) + p(1, 1)) - (p(-1, -1) + 2 * p(0, -1) + p(1, -1));
            int magnitude = int(std::floor(std::sqrt(double(gx * gx + gy * gy))));
            out[size_t(y) * width + x] = uint8_t(std::min(magnitude, 255));
        }
    return out;
}

Image crop(const Image& frame, int rowPixels, const Region& r)
{
    Image out;
    for (int y = 0; y < r.height; ++y) {
        auto row = frame.begin() + (size_t(r.top) + y) * rowPixels + r.left;
        out.insert(out.end(), row, row + r.width);
    }
    return out;
}

Image normalised(Image image)
{
    auto [low, high] = std::minmax_element(image.begin(), image.end());
    const int minimum = *low, range = *high - *low;
    for (auto& v : image)
        v = range == 0 ? 0 : uint8_t((v - minimum) * 255 / range);
    return image;
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

v4l2_pix_format greyFormat(uint32_t width, uint32_t height)
{
    v4l2_pix_format f{};
    f.pixelformat = V4L2_PIX_FMT_GREY;
    f.width = width;
    f.height = height;
    return f;
}

class AcceleratedProcessingTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        if (!h.resources->openCL().isAvailable())
            GTEST_SKIP() << "No OpenCL device on this machine ("
                         << h.resources->openCL().unavailableReason()
                         << "); install PoCL (pocl-opencl-icd) to run the GPU path's tests.";
    }

    AcceleratedProcessing& gpu() { return h.capture->acceleratedProcessing(); }
    k52app::FrameArea area() { return k52app::FrameArea(h.resources->containers().generalContainer()); }
    const uint8_t* container()
    {
        return reinterpret_cast<const uint8_t*>(&h.resources->containers().generalContainer());
    }
    Image frameData(size_t n) { return Image(container() + 2244, container() + 2244 + n); }

    k52test::RouterHarness h;
};

TEST_F(AcceleratedProcessingTest, KernelsMatchACpuComputationOfTheRegion)
{
    struct Case {
        const char* kernel;
        uint32_t width, height, rowPixels; // the frame
        int32_t x0, x1, y0, y1;            // the bounds as a client sends them
    };
    const Case cases[] = {
        // The whole unpadded frame goes to the kernel as it is.
        {"processImage", 640, 480, 640, 0, 640, 0, 480},
        {"sobelFilter", 640, 480, 640, 0, 640, 0, 480},
        // A part of a padded frame is cut out and normalised first.
        {"processImage", 650, 200, 704, 17, 412, 9, 150},
        {"sobelFilter", 650, 200, 704, 17, 412, 9, 150},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(::testing::Message() << c.kernel << " " << c.x0 << ".." << c.x1 << " x "
                                          << c.y0 << ".." << c.y1 << " of " << c.width << "x" << c.height);
        // Each case another frame: a reused input buffer must be rewritten.
        const Image frame = testFrame(int(c.rowPixels), int(c.height), int(&c - cases));
        gpu().enable(kernelFile, c.kernel, c.x0, c.x1, c.y0, c.y1);
        k52test::SyslogCapture log;
        auto frameArea = area();
        gpu().processFrame(frame.data(), uint32_t(frame.size()), greyFormat(c.width, c.height), frameArea);
        gpu().disable();

        const Region region{c.x1 - c.x0, c.y1 - c.y0, c.x0, c.y0};
        const bool whole = region.width == int32_t(c.rowPixels) && region.height == int32_t(c.height);
        const Image input = whole ? frame : normalised(crop(frame, int(c.rowPixels), region));
        const Image expected = std::string(c.kernel) == "sobelFilter"
                                   ? sobel(input, region.width, region.height)
                                   : processImage(input, region.width, region.height);
        const size_t n = expected.size();
        EXPECT_EQ(frameData(n), expected);
        // Width field, height, pixel format, frame length, used length: the width is the row's.
        const auto at = [&](size_t offset) { return word(container(), offset); };
        EXPECT_EQ(std::vector<uint32_t>({at(2224), at(2228), at(2232), at(2240), at(4)}),
                  std::vector<uint32_t>({c.rowPixels, uint32_t(region.height), 1, uint32_t(n + 8), uint32_t(2248 + n)}));
        EXPECT_EQ(word(container(), 2244 + n), uint32_t(crc32(0, container(), uInt(2244 + n))));
        // The first output byte is the region's average intensity; from 81 on a bad sample.
        const std::string line = "AVG Intensity = " + std::to_string(expected[0]) +
                                 " category of sample [kernel=1] : " + (expected[0] < 81 ? "good" : "bad");
        const auto& records = log.records();
        EXPECT_TRUE(std::any_of(records.begin(), records.end(),
                                [&](const auto& r) { return r.text.find(line) != std::string::npos; }))
            << line;
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
    const auto region = [&] {
        const Region r = gpu().region();
        return std::vector<int>{r.width, r.height, r.left, r.top};
    };
    gpu().enable(kernelFile, "sobelFilter", 10, 110, 20, 60);
    EXPECT_EQ(region(), std::vector<int>({100, 40, 10, 20}));
    EXPECT_THAT([&] { gpu().enable(kernelFile, "sobelFilter", 0, 10, 0, 10); },
                testing::ThrowsMessage<utils::UtilsException>("Accelerated Proccessing is already enabled."));
    gpu().disable();
    EXPECT_EQ(region(), std::vector<int>({-1, -1, -1, -1}));
    EXPECT_THROW(gpu().enable(kernelFile, "noSuchKernel", 0, 10, 0, 10), utils::UtilsRuntimeError);
    EXPECT_FALSE(gpu().isEnabled());

    // Frames are refused before a byte is read when short or when the region, checked against
    // the 1456x1088 format of its time, does not lie inside them.
    gpu().enable(kernelFile, "processImage", 0, 100, 600, 1000);
    const struct {
        uint32_t width, height, usedSize;
        std::string error;
    } frames[] = {
        {100, 1000, 100 * 399, "invalid frame buffer size."},
        {640, 480, 640 * 480, "the processing region of 100x400 at (0, 600) does not lie inside the 640x480 frame."},
        {99, 1000, 99 * 1000, "the processing region of 100x400 at (0, 600) does not lie inside the 99x1000 frame."},
    };
    for (const auto& f : frames) {
        const Image frame(f.usedSize);
        auto frameArea = area();
        EXPECT_THAT([&] { gpu().processFrame(frame.data(), f.usedSize, greyFormat(f.width, f.height), frameArea); },
                    testing::ThrowsMessage<utils::UtilsRuntimeError>(f.error));
    }
}

// Switching the path while frames run (also under ThreadSanitizer): each frame is processed
// with one whole region, or left to the plain copy, and stays framed.
TEST_F(AcceleratedProcessingTest, SwitchingWhileFramesRun)
{
    const Image frame = testFrame(640, 480);
    std::atomic<bool> done{false};
    std::thread frames([&] {
        while (!done) {
            auto frameArea = area();
            if (!gpu().processFrame(frame.data(), uint32_t(frame.size()), greyFormat(640, 480), frameArea))
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
    if (!std::filesystem::exists(installedKernelFile))
        GTEST_SKIP() << installedKernelFile << " is not installed (scripts/install-opencl-kernel.sh)";
    const Image flat(640 * 480, 100);
    for (const auto& [command, level] : {std::pair{"CaptureAcceleratedProcessing 1 0 640 0 480", 100},
                                         std::pair{"CaptureAcceleratedProcessing 2 0 640 0 480", 0}}) {
        EXPECT_EQ(h.run(command).second, "CaptureEnableAcceleratedProcessing: Accelerator enabled.");
        auto frameArea = area();
        gpu().processFrame(flat.data(), uint32_t(flat.size()), greyFormat(640, 480), frameArea);
        h.run("CaptureAcceleratedProcessing 0");
        EXPECT_EQ(frameData(1000)[999], level) << command;
    }
}

} // namespace
