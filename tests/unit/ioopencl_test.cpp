#include "utils/base/exceptions.h"
#include "utils/io/ioopencl.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <stdlib.h>

#include <cstdint>
#include <filesystem>
#include <fstream>

using utils::IOOpenCL;

namespace {

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

    std::filesystem::path directory_;
    IOOpenCL opencl_;
};

} // namespace

TEST_F(IOOpenCLTest, KernelLoadingFailuresExplainThemselves)
{
    // Running kernels is checked through the frame path's tests, which run both of these.
    const std::string good = std::string(K52_SOURCE_DIR) + "/etc/opencl/image_processing.cl";
    EXPECT_FALSE(opencl_.deviceName().empty());
    const std::string broken = (directory_ / "broken.cl").string();
    std::ofstream(broken) << "__kernel void f(__global int* p) { p[0] = undefinedName; }";
    struct Case {
        const char* name;
        std::string file;
        std::string kernel;
        std::string expectedText;
    };
    const std::vector<Case> cases = {
        {"compiler error", broken, "f", "undefinedName"}, // from the build log
        {"no such kernel", good, "invertAndMirror", "has no kernel 'invertAndMirror'"},
        {"no such file", (directory_ / "absent.cl").string(), "f", "absent.cl"},
    };
    for (const auto& c : cases) {
        EXPECT_THAT([&] { opencl_.loadKernel(c.file, c.kernel); },
                    testing::ThrowsMessage<utils::UtilsError>(testing::HasSubstr(c.expectedText)))
            << c.name;
    }
    EXPECT_THROW(opencl_.executeKernel(), utils::UtilsRuntimeError) << "nothing was loaded";

    // A failed load keeps the kernel loaded before.
    opencl_.loadKernel(good, "sobelFilter");
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
