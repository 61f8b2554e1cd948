#pragma once

#include <CL/cl.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <type_traits>
#include <vector>

namespace utils {

// The accelerator the frame path runs its image kernels on: the first OpenCL device of the
// installed platforms (the board's GPU there, the CPU device of a development machine), with
// one context, one in-order command queue and one loaded kernel.
//
// A machine without any OpenCL device still constructs the object, so that the daemon starts;
// every use then throws UtilsRuntimeError saying why there is no device. Not thread-safe: one
// user at a time, as the frame path is.
class IOOpenCL {
    template <auto release>
    struct Releaser {
        template <typename T>
        void operator()(T* object) const { release(object); }
    };

public:
    // A device buffer, released when the handle goes.
    using Buffer = std::unique_ptr<std::remove_pointer_t<cl_mem>, Releaser<clReleaseMemObject>>;

    IOOpenCL();

    // Whether a device was found; when not, unavailableReason() says why.
    bool isAvailable() const { return static_cast<bool>(context_); }
    const std::string& unavailableReason() const { return unavailableReason_; }

    // The device's name as its driver reports it.
    std::string deviceName() const;

    // A buffer of `size` bytes in the device's context. With CL_MEM_COPY_HOST_PTR (or
    // CL_MEM_USE_HOST_PTR) in `flags`, `hostData` supplies the content.
    Buffer createBuffer(cl_mem_flags flags, size_t size, const void* hostData = nullptr);

    // Builds the program in `file` and takes its kernel `kernelName`, replacing the kernel
    // loaded before. Throws IOError when the file cannot be read and UtilsRuntimeError when
    // the build fails (the message carries the compiler's log) or there is no such kernel.
    void loadKernel(const std::string& file, const std::string& kernelName);

    // The work size of enqueueKernel(): one to three dimensions, none of them 0.
    void setGlobalRange(std::vector<size_t> range);

    // Kernel arguments, by index, for the loaded kernel: a buffer, or a plain value such as an
    // int32_t (its bytes are copied, as the kernel's parameter type expects them).
    void setKernelArgument(cl_uint index, const Buffer& buffer);
    template <typename T>
        requires std::is_trivially_copyable_v<T>
    void setKernelArgument(cl_uint index, const T& value)
    {
        setKernelArgument(index, sizeof(T), &value);
    }
    void setKernelArgument(cl_uint index, size_t size, const void* value);

    // Queues a run of the loaded kernel over the global range without waiting: a later blocking
    // read waits for it (the queue runs in order) and reports its failure, which spares a
    // hand-over to the device's threads. An empty `localRange` lets the implementation choose
    // the work-group size.
    void enqueueKernel(const std::vector<size_t>& localRange = {});

    // Copies `length` bytes from the start of `buffer` into `destination`, waiting for them.
    void readBuffer(const Buffer& buffer, void* destination, size_t length);
    // Copies `length` bytes from `source` to the start of `buffer`, waiting for them.
    void writeBuffer(const Buffer& buffer, const void* source, size_t length);

    // The first `length` bytes of a buffer mapped for the host to write, their old content
    // discarded; unmapped (handed back to the device, ahead of any later command) when the
    // handle goes. With CL_MEM_ALLOC_HOST_PTR on a device sharing the host's memory, writing
    // through it costs no further copy.
    class Mapping {
    public:
        Mapping(Mapping&& other) noexcept;
        Mapping& operator=(Mapping&&) = delete;
        ~Mapping();
        uint8_t* data() const { return data_; }

    private:
        friend class IOOpenCL;
        Mapping(cl_command_queue queue, cl_mem buffer, uint8_t* data)
            : queue_(queue), buffer_(buffer), data_(data) {}
        cl_command_queue queue_;
        cl_mem buffer_;
        uint8_t* data_;
    };
    Mapping mapForWriting(const Buffer& buffer, size_t length);

private:
    // Throws UtilsRuntimeError with unavailableReason() when there is no device.
    void requireDevice(const char* operation) const;
    void requireKernel(const char* operation) const;

    using Device = std::unique_ptr<std::remove_pointer_t<cl_device_id>, Releaser<clReleaseDevice>>;
    using Context = std::unique_ptr<std::remove_pointer_t<cl_context>, Releaser<clReleaseContext>>;
    using Queue =
        std::unique_ptr<std::remove_pointer_t<cl_command_queue>, Releaser<clReleaseCommandQueue>>;
    using Program = std::unique_ptr<std::remove_pointer_t<cl_program>, Releaser<clReleaseProgram>>;
    using Kernel = std::unique_ptr<std::remove_pointer_t<cl_kernel>, Releaser<clReleaseKernel>>;

    // Released in reverse: kernel, program, queue, context, device.
    Device device_;
    Context context_;
    Queue queue_;
    Program program_;
    Kernel kernel_;
    std::string kernelName_;
    std::vector<size_t> globalRange_;
    std::string unavailableReason_;
};

} // namespace utils
