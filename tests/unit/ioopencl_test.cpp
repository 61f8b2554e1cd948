#include "support/tempdir.h"
#include "utils/base/exceptions.h"
#include "utils/io/ioopencl.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <stdlib.h>

#include <cstdint>

using utils::IOOpenCL;

// Running kernels is checked through the frame path's tests, which run both of the shipped ones.
TEST(IOOpenCL, KernelLoadingFailuresExplainThemselvesAndKeepTheLoadedKernel)
{
    IOOpenCL opencl;
    if (!opencl.isAvailable())
        GTEST_SKIP() << "No OpenCL device on this machine: " << opencl.unavailableReason();
    k52test::TempDir directory{"k52-opencl"};
    const std::string good = std::string(K52_SOURCE_DIR) + "/etc/opencl/image_processing.cl";
    const std::string broken =
        directory.writeFile("broken.cl", "__kernel void f(__global int* p) { p[0] = undefinedName; }");
    const std::tuple<std::string, const char*, const char*> cases[] = { // file, kernel, text of the error
        {broken, "f", "undefinedName"}, // from the build log
        {good, "invertAndMirror", "has no kernel 'invertAndMirror'"},
        {directory.file("absent.cl"), "f", "absent.cl"},
    };
    for (const auto& [file, kernel, text] : cases)
        EXPECT_THAT([&] { opencl.loadKernel(file, kernel); },
                    testing::ThrowsMessage<utils::UtilsError>(testing::HasSubstr(text)));

    opencl.loadKernel(good, "sobelFilter");
    EXPECT_THROW(opencl.loadKernel(broken, "f"), utils::UtilsRuntimeError);
    EXPECT_NO_THROW(opencl.setKernelArgument(2, int32_t(1))) << "the kernel loaded before stays";
}

// The ICD loader finds no platform when its vendor directory is empty: the object must still
// be built, and only its use reports the missing device. Runs in a fresh process, since the
// loader reads its configuration once.
TEST(IOOpenCLWithoutDevice, ConstructsAndRefusesUseClearly)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    const k52test::TempDir emptyVendors{"k52-no-icd"};
    ::setenv("OCL_ICD_VENDORS", emptyVendors.path().c_str(), 1);
    EXPECT_EXIT(
        {
            IOOpenCL opencl;
            try {
                opencl.deviceName();
            } catch (const utils::UtilsRuntimeError& error) {
                const bool named = std::string(error.what()).find("no OpenCL device") != std::string::npos;
                std::exit(!opencl.isAvailable() && named ? 0 : 1);
            }
            std::exit(1);
        },
        ::testing::ExitedWithCode(0), "");
    ::unsetenv("OCL_ICD_VENDORS");
}
