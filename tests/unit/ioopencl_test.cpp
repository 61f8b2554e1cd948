#include "utils/base/exceptions.h"
#include "utils/io/ioopencl.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <stdlib.h>

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <numeric>

using utils::IOOpenCL;

namespace {

// Same parameters as the frame path's kernels: input, output, width, height.
constexpr const char* kernelSource = R"(
__kernel void invertAndMirror(__global const uchar* in, __global uchar* out, int width, int height)
{
    int x = get_global_id(0);
    int y = get_global_id(1);
    if (x < width && y < height)
        out[y * width + x] = 255 - in[y * width + (width - 1 - x)];
}
)";

class IOOpenCLTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        char pattern[] = "/tmp/k52-opencl-XXXXXX";
        directory_ = ::mkdtemp(pattern);
        if (!opencl_.isAvailable())
            GTEST_SKIP() << "No OpenCL device on this machine: " << opencl_.unavailableReason();
    }
    void TearDown() override { std::filesystem::remove_all(directory_); }

    std::string kernelFile(const std::string& name, const std::string& source)
    {
        auto path = directory_ / name;
        std::ofstream(path) << source;
        return path.string();
    }

    std::filesystem::path directory_;
    IOOpenCL opencl_;
};

} // namespace

TEST_F(IOOpenCLTest, RunsAKernelOverATwoDimensionalRange)
{
    EXPECT_FALSE(opencl_.deviceName().empty());
    // Odd sizes, so that a swapped width and height or a wrong row length shows.
    const int32_t width = 37, height = 11;
    std::vector<uint8_t> input(size_t(width) * height);
    std::iota(input.begin(), input.end(), 0);
    std::vector<uint8_t> expected(input.size());
    for (int y = 0; y < height; ++y)
        for (int x = 0; x < width; ++x)
            expected[y * width + x] = uint8_t(255 - input[y * width + (width - 1 - x)]);

    opencl_.loadKernel(kernelFile("image.cl", kernelSource), "invertAndMirror");
    opencl_.setGlobalRange({size_t(width), size_t(height)});
    auto in = opencl_.createBuffer(CL_MEM_READ_ONLY | CL_MEM_COPY_HOST_PTR, input.size(),
                                   input.data());
    auto out = opencl_.createBuffer(CL_MEM_WRITE_ONLY, input.size());
    opencl_.setKernelArgument(0, in);
    opencl_.setKernelArgument(1, out);
    opencl_.setKernelArgument(2, width);
    opencl_.setKernelArgument(3, height);
    opencl_.executeKernel();
    std::vector<uint8_t> result(input.size());
    opencl_.readBuffer(out, result.data(), result.size());
    EXPECT_EQ(result, expected);

    // New input through the same buffers, as each frame does.
    std::vector<uint8_t> flat(input.size(), 200);
    opencl_.writeBuffer(in, flat.data(), flat.size());
    opencl_.executeKernel();
    opencl_.readBuffer(out, result.data(), result.size());
    EXPECT_EQ(result, std::vector<uint8_t>(input.size(), 55));
}

TEST_F(IOOpenCLTest, KernelLoadingFailuresExplainThemselves)
{
    const std::string good = kernelFile("good.cl", kernelSource);
    const std::string broken = kernelFile("broken.cl", "__kernel void f(__global int* p) { p[0] = undefinedName; }");
    struct Case {
        const char* name;
        std::string file;
        std::string kernel;
        std::string expectedText;
    };
    const std::vector<Case> cases = {
        {"compiler error", broken, "f", "undefinedName"}, // from the build log
        {"no such kernel", good, "sobelFilter", "has no kernel 'sobelFilter'"},
        {"no such file", (directory_ / "absent.cl").string(), "f", "absent.cl"},
    };
    for (const auto& c : cases) {
        EXPECT_THAT([&] { opencl_.loadKernel(c.file, c.kernel); },
                    testing::ThrowsMessage<utils::UtilsError>(testing::HasSubstr(c.expectedText)))
            << c.name;
    }
    EXPECT_THROW(opencl_.executeKernel(), utils::UtilsRuntimeError) << "nothing was loaded";

    // A failed load keeps the kernel loaded before.
    opencl_.loadKernel(good, "invertAndMirror");
    EXPECT_THROW(opencl_.loadKernel(broken, "f"), utils::UtilsRuntimeError);
    EXPECT_NO_THROW(opencl_.setKernelArgument(2, int32_t(1)));
    EXPECT_THROW(opencl_.setKernelArgument(7, int32_t(1)), utils::UtilsRuntimeError);
    EXPECT_THROW(opencl_.setGlobalRange({}), utils::UtilsRuntimeError);
    EXPECT_THROW(opencl_.setGlobalRange({4, 0}), utils::UtilsRuntimeError);
}

// The ICD loader finds no platform when its vendor directory is empty: the object must still
// be built, and only its use reports the missing device. Runs in a fresh process, since the
// loader reads its configuration once.
TEST(IOOpenCLWithoutDevice, ConstructsAndRefusesUseClearly)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    char pattern[] = "/tmp/k52-no-icd-XXXXXX";
    const std::filesystem::path emptyVendors = ::mkdtemp(pattern);
    ::setenv("OCL_ICD_VENDORS", emptyVendors.c_str(), 1);
    EXPECT_EXIT(
        {
            IOOpenCL opencl;
            bool refused = false;
            try {
                opencl.deviceName();
            } catch (const utils::UtilsRuntimeError& error) {
                refused = std::string(error.what()).find("no OpenCL device") != std::string::npos;
            }
            std::exit(!opencl.isAvailable() && refused ? 0 : 1);
        },
        ::testing::ExitedWithCode(0), "");
    ::unsetenv("OCL_ICD_VENDORS");
    std::filesystem::remove_all(emptyVendors);
}
