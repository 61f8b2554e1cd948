#include "utils/io/ioopencl.h"

#include "utils/base/exceptions.h"

#include <cerrno>
#include <cstring>
#include <fstream>
#include <iterator>
#include <utility>

namespace utils {

namespace {

std::string errorName(cl_int code)
{
    switch (code) {
    case CL_DEVICE_NOT_FOUND: return "CL_DEVICE_NOT_FOUND";
    case CL_DEVICE_NOT_AVAILABLE: return "CL_DEVICE_NOT_AVAILABLE";
    case CL_MEM_OBJECT_ALLOCATION_FAILURE: return "CL_MEM_OBJECT_ALLOCATION_FAILURE";
    case CL_OUT_OF_RESOURCES: return "CL_OUT_OF_RESOURCES";
    case CL_OUT_OF_HOST_MEMORY: return "CL_OUT_OF_HOST_MEMORY";
    case CL_BUILD_PROGRAM_FAILURE: return "CL_BUILD_PROGRAM_FAILURE";
    case CL_INVALID_VALUE: return "CL_INVALID_VALUE";
    case CL_INVALID_HOST_PTR: return "CL_INVALID_HOST_PTR";
    case CL_INVALID_MEM_OBJECT: return "CL_INVALID_MEM_OBJECT";
    case CL_INVALID_BUFFER_SIZE: return "CL_INVALID_BUFFER_SIZE";
    case CL_INVALID_PROGRAM_EXECUTABLE: return "CL_INVALID_PROGRAM_EXECUTABLE";
    case CL_INVALID_KERNEL_NAME: return "CL_INVALID_KERNEL_NAME";
    case CL_INVALID_ARG_INDEX: return "CL_INVALID_ARG_INDEX";
    case CL_INVALID_ARG_VALUE: return "CL_INVALID_ARG_VALUE";
    case CL_INVALID_ARG_SIZE: return "CL_INVALID_ARG_SIZE";
    case CL_INVALID_KERNEL_ARGS: return "CL_INVALID_KERNEL_ARGS";
    case CL_INVALID_WORK_DIMENSION: return "CL_INVALID_WORK_DIMENSION";
    case CL_INVALID_WORK_GROUP_SIZE: return "CL_INVALID_WORK_GROUP_SIZE";
    case CL_INVALID_WORK_ITEM_SIZE: return "CL_INVALID_WORK_ITEM_SIZE";
    case CL_INVALID_GLOBAL_WORK_SIZE: return "CL_INVALID_GLOBAL_WORK_SIZE";
    case -1001: return "CL_PLATFORM_NOT_FOUND_KHR"; // from the ICD loader: no platform installed
    default: return "OpenCL error";
    }
}

[[noreturn]] void fail(const std::string& what, cl_int code)
{
    throw UtilsRuntimeError("IOOpenCL: " + what + " failed: " + errorName(code) + " (" +
                            std::to_string(code) + ").");
}

void check(cl_int code, const std::string& what)
{
    if (code != CL_SUCCESS)
        fail(what, code);
}

std::string deviceInfoText(cl_device_id device, cl_device_info what)
{
    size_t size = 0;
    if (clGetDeviceInfo(device, what, 0, nullptr, &size) != CL_SUCCESS || size == 0)
        return {};
    std::string text(size, '\0');
    clGetDeviceInfo(device, what, size, text.data(), nullptr);
    text.resize(std::strlen(text.c_str()));
    return text;
}

// The first device of the first platform that has one: the platform's default device, or any.
cl_device_id findDevice(std::string& reason)
{
    cl_uint platformCount = 0;
    cl_int status = clGetPlatformIDs(0, nullptr, &platformCount);
    if (status != CL_SUCCESS || platformCount == 0) {
        reason = "no OpenCL platform is installed (" + errorName(status) + ")";
        return nullptr;
    }
    std::vector<cl_platform_id> platforms(platformCount);
    clGetPlatformIDs(platformCount, platforms.data(), nullptr);
    for (cl_device_type type : {cl_device_type(CL_DEVICE_TYPE_DEFAULT), cl_device_type(CL_DEVICE_TYPE_ALL)}) {
        for (cl_platform_id platform : platforms) {
            cl_device_id device = nullptr;
            if (clGetDeviceIDs(platform, type, 1, &device, nullptr) == CL_SUCCESS && device)
                return device;
        }
    }
    reason = "none of the " + std::to_string(platformCount) + " OpenCL platforms has a device";
    return nullptr;
}

} // namespace

IOOpenCL::IOOpenCL()
{
    cl_device_id device = findDevice(unavailableReason_);
    if (!device)
        return;
    device_.reset(device);
    cl_int status = CL_SUCCESS;
    Context context(clCreateContext(nullptr, 1, &device, nullptr, nullptr, &status));
    if (status != CL_SUCCESS) {
        unavailableReason_ = "the device '" + deviceInfoText(device, CL_DEVICE_NAME) +
                             "' refused a context (" + errorName(status) + ")";
        return;
    }
    Queue queue(clCreateCommandQueue(context.get(), device, 0, &status));
    if (status != CL_SUCCESS) {
        unavailableReason_ = "the device '" + deviceInfoText(device, CL_DEVICE_NAME) +
                             "' refused a command queue (" + errorName(status) + ")";
        return;
    }
    context_ = std::move(context);
    queue_ = std::move(queue);
}

void IOOpenCL::requireDevice(const char* operation) const
{
    if (!isAvailable())
        throw UtilsRuntimeError(std::string("IOOpenCL: cannot ") + operation +
                                ": no OpenCL device, " + unavailableReason_ + ".");
}

void IOOpenCL::requireKernel(const char* operation) const
{
    requireDevice(operation);
    if (!kernel_)
        throw UtilsRuntimeError(std::string("IOOpenCL: cannot ") + operation +
                                ": no kernel is loaded.");
}

std::string IOOpenCL::deviceName() const
{
    requireDevice("name the device");
    return deviceInfoText(device_.get(), CL_DEVICE_NAME);
}

IOOpenCL::Buffer IOOpenCL::createBuffer(cl_mem_flags flags, size_t size, const void* hostData)
{
    requireDevice("create a buffer");
    cl_int status = CL_SUCCESS;
    Buffer buffer(clCreateBuffer(context_.get(), flags, size, const_cast<void*>(hostData), &status));
    check(status, "creating a buffer of " + std::to_string(size) + " bytes");
    return buffer;
}

void IOOpenCL::loadKernel(const std::string& file, const std::string& kernelName)
{
    requireDevice("load a kernel");
    std::ifstream in(file);
    if (!in)
        throw IOError("IOOpenCL: unable to read the kernel file '" + file + "': " +
                      std::strerror(errno));
    const std::string source((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    const char* text = source.c_str();
    const size_t length = source.size();

    cl_int status = CL_SUCCESS;
    Program program(clCreateProgramWithSource(context_.get(), 1, &text, &length, &status));
    check(status, "creating the program from '" + file + "'");
    cl_device_id device = device_.get();
    status = clBuildProgram(program.get(), 1, &device, "", nullptr, nullptr);
    if (status != CL_SUCCESS) {
        size_t logSize = 0;
        clGetProgramBuildInfo(program.get(), device, CL_PROGRAM_BUILD_LOG, 0, nullptr, &logSize);
        std::string log(logSize, '\0');
        clGetProgramBuildInfo(program.get(), device, CL_PROGRAM_BUILD_LOG, logSize, log.data(),
                              nullptr);
        log.resize(std::strlen(log.c_str()));
        throw UtilsRuntimeError("IOOpenCL: building '" + file + "' failed (" +
                                errorName(status) + "):\n" + log);
    }
    Kernel kernel(clCreateKernel(program.get(), kernelName.c_str(), &status));
    if (status == CL_INVALID_KERNEL_NAME)
        throw UtilsRuntimeError("IOOpenCL: '" + file + "' has no kernel '" + kernelName + "'.");
    check(status, "creating the kernel '" + kernelName + "'");
    kernel_ = std::move(kernel); // the old kernel goes before the program it came from
    program_ = std::move(program);
    kernelName_ = kernelName;
}

void IOOpenCL::setGlobalRange(std::vector<size_t> range)
{
    if (range.empty() || range.size() > 3)
        throw UtilsRuntimeError("IOOpenCL: a global range has 1 to 3 dimensions, not " +
                                std::to_string(range.size()) + ".");
    for (size_t size : range) {
        if (size == 0)
            throw UtilsRuntimeError("IOOpenCL: a global range has no empty dimension.");
    }
    globalRange_ = std::move(range);
}

void IOOpenCL::setKernelArgument(cl_uint index, const Buffer& buffer)
{
    cl_mem memory = buffer.get();
    setKernelArgument(index, sizeof memory, &memory);
}

void IOOpenCL::setKernelArgument(cl_uint index, size_t size, const void* value)
{
    requireKernel("set a kernel argument");
    check(clSetKernelArg(kernel_.get(), index, size, value),
          "setting argument " + std::to_string(index) + " of '" + kernelName_ + "'");
}

void IOOpenCL::enqueueKernel(const std::vector<size_t>& localRange)
{
    requireKernel("execute a kernel");
    if (globalRange_.empty())
        throw UtilsRuntimeError("IOOpenCL: cannot execute '" + kernelName_ +
                                "': no global range is set.");
    if (!localRange.empty() && localRange.size() != globalRange_.size())
        throw UtilsRuntimeError("IOOpenCL: the local range has " +
                                std::to_string(localRange.size()) + " dimensions, the global " +
                                std::to_string(globalRange_.size()) + ".");
    check(clEnqueueNDRangeKernel(queue_.get(), kernel_.get(), cl_uint(globalRange_.size()), nullptr,
                                 globalRange_.data(), localRange.empty() ? nullptr : localRange.data(),
                                 0, nullptr, nullptr),
          "executing '" + kernelName_ + "'");
}

void IOOpenCL::readBuffer(const Buffer& buffer, void* destination, size_t length)
{
    requireDevice("read a buffer");
    check(clEnqueueReadBuffer(queue_.get(), buffer.get(), CL_TRUE, 0, length, destination, 0,
                              nullptr, nullptr),
          "reading " + std::to_string(length) + " bytes from a buffer");
}

void IOOpenCL::writeBuffer(const Buffer& buffer, const void* source, size_t length)
{
    requireDevice("write a buffer");
    check(clEnqueueWriteBuffer(queue_.get(), buffer.get(), CL_TRUE, 0, length, source, 0, nullptr,
                               nullptr),
          "writing " + std::to_string(length) + " bytes to a buffer");
}

IOOpenCL::Mapping IOOpenCL::mapForWriting(const Buffer& buffer, size_t length)
{
    requireDevice("map a buffer");
    cl_int status = CL_SUCCESS;
    void* data = clEnqueueMapBuffer(queue_.get(), buffer.get(), CL_TRUE, CL_MAP_WRITE_INVALIDATE_REGION,
                                    0, length, 0, nullptr, nullptr, &status);
    check(status, "mapping " + std::to_string(length) + " bytes of a buffer");
    return Mapping(queue_.get(), buffer.get(), static_cast<uint8_t*>(data));
}

IOOpenCL::Mapping::Mapping(Mapping&& other) noexcept
    : queue_(other.queue_), buffer_(other.buffer_), data_(std::exchange(other.data_, nullptr))
{
}

IOOpenCL::Mapping::~Mapping()
{
    // The in-order queue runs the unmap before any command enqueued after it; nothing to
    // report from a destructor, and a failed unmap leaves only the mapping behind.
    if (data_)
        clEnqueueUnmapMemObject(queue_, buffer_, data_, 0, nullptr, nullptr);
}

} // namespace utils
