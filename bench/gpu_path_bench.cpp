// The GPU path per frame on whatever OpenCL device is installed: both kernels of
// etc/opencl/image_processing.cl over the full 2472x2064 GREY frame and over a 640x480 region,
// through the capture's accelerated processing (crop, normalisation, buffers, kernel, read back,
// framing) and, as the reference, a bare OpenCL host loop doing the same buffer work (the same
// prepared input written into a buffer made once, kernel, blocking read).
//
//   gpu_path_bench [--kernel-file=PATH] [benchmark flags]
//
// PATH defaults to etc/opencl/image_processing.cl of the source tree above the build.
#include "core/middleware/acceleratedprocessing.h"
#include "core/middleware/capture.h"
#include "utils/io/ioopencl.h"
#include "utils/io/iov4l2.h"
#include "utils/platform/kernel.h"

#include <benchmark/benchmark.h>

#include <CL/cl.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

namespace fs = std::filesystem;

constexpr uint32_t frameWidth = 2472;
constexpr uint32_t frameHeight = 2064;
constexpr uint32_t frameStride = 2496; // rows padded to 64 bytes, as the sensor delivers them

std::string kernelFile;

std::vector<uint8_t> sensorFrame()
{
    std::vector<uint8_t> frame(size_t(frameStride) * frameHeight);
    for (size_t i = 0; i < frame.size(); ++i)
        frame[i] = uint8_t((i % frameStride) * 3 + (i / frameStride) * 5);
    return frame;
}

struct Region {
    const char* name;
    int32_t x0, x1, y0, y1;
};
const Region regions[] = {
    {"full_2472x2064", 0, int32_t(frameWidth), 0, int32_t(frameHeight)},
    {"region_640x480", 100, 740, 200, 680},
};

void reportPerFrame(benchmark::State& state)
{
    state.counters["frames/s"] = benchmark::Counter(double(state.iterations()), benchmark::Counter::kIsRate);
}

// The capture's path: what one frame costs while accelerated processing is enabled.
void BM_AcceleratedProcessing(benchmark::State& state, const char* kernel, Region region)
{
    utils::IOOpenCL openCL;
    if (!openCL.isAvailable()) {
        state.SkipWithError(("no OpenCL device: " + openCL.unavailableReason()).c_str());
        return;
    }
    utils::IOV4L2 device("/dev/video0");
    device.setFormat(V4L2_PIX_FMT_GREY, 2);
    k52app::AcceleratedProcessing gpu(openCL, device);
    gpu.enable(kernelFile, kernel, region.x0, region.x1, region.y0, region.y1);

    auto container = std::make_unique_for_overwrite<utils::GeneralContainer>();
    k52app::FrameArea area(*container);
    const std::vector<uint8_t> frame = sensorFrame();
    v4l2_pix_format format{};
    format.pixelformat = V4L2_PIX_FMT_GREY;
    format.width = frameWidth;
    format.height = frameHeight;
    for (auto _ : state)
        gpu.processFrame(frame.data(), uint32_t(frame.size()), format, area);
    reportPerFrame(state);
}

// The bare host loop: the same program, buffers and reads with nothing around them.
void BM_BareOpenCL(benchmark::State& state, const char* kernelName, Region region)
{
    cl_platform_id platform = nullptr;
    cl_device_id device = nullptr;
    if (clGetPlatformIDs(1, &platform, nullptr) != CL_SUCCESS ||
        clGetDeviceIDs(platform, CL_DEVICE_TYPE_ALL, 1, &device, nullptr) != CL_SUCCESS) {
        state.SkipWithError("no OpenCL device");
        return;
    }
    cl_int status = CL_SUCCESS;
    cl_context context = clCreateContext(nullptr, 1, &device, nullptr, nullptr, &status);
    cl_command_queue queue = clCreateCommandQueue(context, device, 0, &status);
    std::ifstream in(kernelFile);
    const std::string source((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    const char* text = source.c_str();
    const size_t length = source.size();
    cl_program program = clCreateProgramWithSource(context, 1, &text, &length, &status);
    clBuildProgram(program, 1, &device, "", nullptr, nullptr);
    cl_kernel kernel = clCreateKernel(program, kernelName, &status);
    if (status != CL_SUCCESS) {
        state.SkipWithError("kernel build failed");
        return;
    }

    const int32_t width = region.x1 - region.x0;
    const int32_t height = region.y1 - region.y0;
    const size_t size = size_t(width) * height;
    // The kernel's input as the capture's path hands it over (the region cut out and
    // stretched), so that both loops give the kernel the same work.
    std::vector<uint8_t> input(size), output(size);
    const std::vector<uint8_t> frame = sensorFrame();
    k52app::AcceleratedProcessing::cropAndNormalise(frame.data(), frameStride,
                                                    {width, height, region.x0, region.y0}, input.data());
    cl_mem inputBuffer = clCreateBuffer(context, CL_MEM_READ_ONLY, size, nullptr, &status);
    cl_mem out = clCreateBuffer(context, CL_MEM_WRITE_ONLY, size, nullptr, &status);
    const size_t global[2] = {size_t(width), size_t(height)};
    for (auto _ : state) {
        clEnqueueWriteBuffer(queue, inputBuffer, CL_TRUE, 0, size, input.data(), 0, nullptr, nullptr);
        clSetKernelArg(kernel, 0, sizeof inputBuffer, &inputBuffer);
        clSetKernelArg(kernel, 1, sizeof out, &out);
        clSetKernelArg(kernel, 2, sizeof width, &width);
        clSetKernelArg(kernel, 3, sizeof height, &height);
        clEnqueueNDRangeKernel(queue, kernel, 2, nullptr, global, nullptr, 0, nullptr, nullptr);
        clEnqueueReadBuffer(queue, out, CL_TRUE, 0, size, output.data(), 0, nullptr, nullptr);
    }
    clReleaseMemObject(inputBuffer);
    clReleaseMemObject(out);
    clReleaseKernel(kernel);
    clReleaseProgram(program);
    clReleaseCommandQueue(queue);
    clReleaseContext(context);
    reportPerFrame(state);
}

void registerBenchmarks()
{
    for (const char* kernel : {"processImage", "sobelFilter"}) {
        for (const Region& region : regions) {
            const std::string suffix = std::string(kernel) + "/" + region.name;
            benchmark::RegisterBenchmark(("AcceleratedProcessing/" + suffix).c_str(),
                                         BM_AcceleratedProcessing, kernel, region)
                ->UseRealTime()
                ->Unit(benchmark::kMillisecond);
            benchmark::RegisterBenchmark(("BareOpenCL/" + suffix).c_str(), BM_BareOpenCL, kernel, region)
                ->UseRealTime()
                ->Unit(benchmark::kMillisecond);
        }
    }
}

} // namespace

int main(int argc, char** argv)
{
    std::vector<char*> rest{argv[0]};
    for (int i = 1; i < argc; ++i) {
        const std::string argument = argv[i];
        if (argument.rfind("--kernel-file=", 0) == 0)
            kernelFile = argument.substr(14);
        else
            rest.push_back(argv[i]);
    }
    if (kernelFile.empty()) {
        for (fs::path dir = fs::canonical("/proc/self/exe").parent_path(); dir != dir.root_path();
             dir = dir.parent_path()) {
            if (fs::exists(dir / "etc/opencl/image_processing.cl")) {
                kernelFile = (dir / "etc/opencl/image_processing.cl").string();
                break;
            }
        }
    }
    // The accelerated path asks the capture device for its format: the emulated sensor serves.
    utils::platform::selectPlatform("emulated");
    int count = static_cast<int>(rest.size());
    benchmark::Initialize(&count, rest.data());
    registerBenchmarks();
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
