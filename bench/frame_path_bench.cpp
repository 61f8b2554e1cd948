// The whole frame path: the real daemon on the emulated board streaming with the RTU frame rate
// unconstrained, and a loopback client that reads and discards every frame. Next to it, in the
// same run and for the same bytes per frame: the ideal path (copy into a 48 MiB shared file
// mapping, CRC-32, one loopback send) and a bare loopback send.
//
//   frame_path_bench [--k52app=PATH] [--source=REPO] [--shm=DIR] [benchmark flags]
//
// PATH defaults to the k52app next to the build's bench/ directory, REPO to the directory
// holding etc/k52app-emulated.conf above it, DIR (the container files and the ideal path's
// mapping) to /dev/shm.
#include "utils/base/crc.h"

#include <benchmark/benchmark.h>

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <regex>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

constexpr size_t frameOverhead = 2248;     // header before the data and the trailing CRC
constexpr size_t containerSize = 50333896; // the general container file

struct Options {
    std::string k52app;
    std::string source;
    std::string shm = "/dev/shm";
} options;

[[noreturn]] void fail(const std::string& what)
{
    throw std::runtime_error(what + ": " + std::strerror(errno));
}

// An owned descriptor.
class Descriptor {
public:
    explicit Descriptor(int fd = -1) : fd_(fd) {}
    Descriptor(Descriptor&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
    Descriptor& operator=(Descriptor&& other) noexcept
    {
        std::swap(fd_, other.fd_);
        return *this;
    }
    ~Descriptor()
    {
        if (fd_ >= 0)
            ::close(fd_);
    }
    int get() const { return fd_; }

private:
    int fd_;
};

uint16_t freePort()
{
    Descriptor s(::socket(AF_INET, SOCK_STREAM, 0));
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address;
    if (::bind(s.get(), reinterpret_cast<sockaddr*>(&address), size) < 0 ||
        ::getsockname(s.get(), reinterpret_cast<sockaddr*>(&address), &size) < 0)
        fail("no free port");
    return ntohs(address.sin_port);
}

Descriptor connectTo(uint16_t port)
{
    Descriptor s(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(port);
    if (::connect(s.get(), reinterpret_cast<sockaddr*>(&address), sizeof address) < 0)
        fail("connect to port " + std::to_string(port));
    int on = 1;
    ::setsockopt(s.get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    return s;
}

void readExactly(int fd, void* data, size_t length)
{
    auto* bytes = static_cast<char*>(data);
    while (length > 0) {
        ssize_t n = ::recv(fd, bytes, length, 0);
        if (n <= 0) {
            if (n < 0 && errno == EINTR)
                continue;
            fail("stream read");
        }
        bytes += n;
        length -= size_t(n);
    }
}

void sendAll(int fd, const void* data, size_t length)
{
    const auto* bytes = static_cast<const char*>(data);
    while (length > 0) {
        ssize_t n = ::send(fd, bytes, length, MSG_NOSIGNAL);
        if (n < 0) {
            if (errno == EINTR)
                continue;
            fail("send");
        }
        bytes += n;
        length -= size_t(n);
    }
}

uint32_t wordAt(const uint8_t* bytes, size_t offset)
{
    uint32_t value;
    std::memcpy(&value, bytes + offset, sizeof value);
    return value;
}

// The daemon under measurement: its own configuration, ports and container directory.
class Daemon {
public:
    Daemon()
    {
        char pattern[] = "k52bench-XXXXXX";
        std::string templ = options.shm + "/" + pattern;
        if (!::mkdtemp(templ.data()))
            fail("mkdtemp in " + options.shm);
        dir_ = templ;
        controlPort_ = freePort();
        streamPort_ = freePort();
        writeConfig();

        pid_ = ::fork();
        if (pid_ == 0) {
            if (::chdir(options.source.c_str()) != 0)
                _exit(127);
            int null = ::open("/dev/null", O_RDWR);
            ::dup2(null, 1);
            ::dup2(null, 2);
            const std::string config = dir_ + "/k52app.conf";
            ::execl(options.k52app.c_str(), "k52app", "-c", config.c_str(), nullptr);
            _exit(127);
        }
        const auto deadline = Clock::now() + std::chrono::seconds(10);
        while (Clock::now() < deadline) {
            try {
                connectTo(controlPort_); // the daemon serves one control client: let it go
                std::this_thread::sleep_for(std::chrono::milliseconds(200));
                return;
            } catch (const std::runtime_error&) {
                std::this_thread::sleep_for(std::chrono::milliseconds(50));
            }
        }
        throw std::runtime_error("k52app did not start: " + options.k52app);
    }
    ~Daemon()
    {
        ::kill(pid_, SIGTERM);
        int status = 0;
        ::waitpid(pid_, &status, 0);
        fs::remove_all(dir_);
    }

    uint16_t controlPort() const { return controlPort_; }
    uint16_t streamPort() const { return streamPort_; }

private:
    void writeConfig()
    {
        std::ifstream in(options.source + "/etc/k52app-emulated.conf");
        if (!in)
            throw std::runtime_error("no etc/k52app-emulated.conf under " + options.source);
        std::ostringstream out;
        for (std::string line; std::getline(in, line);) {
            if (line.rfind("container-path=", 0) == 0)
                line = "container-path=" + dir_ + "/";
            else if (line.rfind("socket-ctrl=", 0) == 0)
                line = "socket-ctrl=" + std::to_string(controlPort_);
            else if (line.rfind("socket-stream=", 0) == 0)
                line = "socket-stream=" + std::to_string(streamPort_);
            out << line << '\n';
        }
        // A second worker, so that a stop command is served while the stream runs.
        out << "emulated-hardware-concurrency=8\n";
        std::ofstream(dir_ + "/k52app.conf") << out.str();
    }

    std::string dir_;
    uint16_t controlPort_ = 0;
    uint16_t streamPort_ = 0;
    pid_t pid_ = -1;
};

// Commands on the control socket and the notices that come back.
class Control {
public:
    explicit Control(uint16_t port) : socket_(connectTo(port)) {}

    void send(const std::string& command)
    {
        const std::string line = command + "\r";
        sendAll(socket_.get(), line.data(), line.size());
    }
    // Reads notices until one contains `text`; the Blue rate notices pass by on the way.
    std::string waitFor(const std::string& text, std::chrono::seconds timeout = std::chrono::seconds(10))
    {
        const auto deadline = Clock::now() + timeout;
        while (Clock::now() < deadline) {
            pollfd p{socket_.get(), POLLIN, 0};
            if (::poll(&p, 1, 100) != 1)
                continue;
            uint8_t head[8];
            readExactly(socket_.get(), head, sizeof head);
            std::string frame(wordAt(head, 4) - sizeof head, '\0');
            readExactly(socket_.get(), frame.data(), frame.size());
            std::string notice(frame.data() + 8);
            if (notice.find("Benchmark = ") != std::string::npos)
                lastRate_ = notice;
            if (notice.find(text) != std::string::npos)
                return notice;
        }
        throw std::runtime_error("no notice with '" + text + "'");
    }
    const std::string& lastRate() const { return lastRate_; }

private:
    Descriptor socket_;
    std::string lastRate_;
};

Daemon& daemon()
{
    static Daemon instance;
    return instance;
}

// Reads and discards until the peer closes or stop is set; used while a stream is stopped.
class Drain {
public:
    explicit Drain(int fd) : thread_([this, fd] {
        std::vector<char> sink(1 << 20);
        while (!stop_) {
            pollfd p{fd, POLLIN, 0};
            if (::poll(&p, 1, 20) == 1 && ::recv(fd, sink.data(), sink.size(), 0) <= 0)
                return;
        }
    })
    {
    }
    ~Drain()
    {
        stop_ = true;
        thread_.join();
    }

private:
    std::atomic<bool> stop_{false};
    std::thread thread_;
};

// The frame path: bytes per frame of the used part, as the daemon sends them.
void BM_FramePath(benchmark::State& state, const char* fourcc, int resolution)
{
    Daemon& d = daemon();
    Control control(d.controlPort());
    control.send("SetRTUFPS 0");
    control.waitFor("OK : ");
    Descriptor stream = connectTo(d.streamPort());
    std::this_thread::sleep_for(std::chrono::milliseconds(300)); // the stream channel accepts
    control.send(std::string("CaptureStreamStart ") + fourcc + " " + std::to_string(resolution));

    std::unique_ptr<uint8_t[]> buffer;
    size_t capacity = 0;
    size_t frameBytes = 0;
    auto readFrame = [&] {
        uint8_t head[8];
        readExactly(stream.get(), head, sizeof head);
        const size_t total = wordAt(head, 4);
        if (total > capacity) {
            buffer = std::make_unique_for_overwrite<uint8_t[]>(total);
            capacity = total;
        }
        readExactly(stream.get(), buffer.get() + sizeof head, total - sizeof head);
        frameBytes = total;
    };
    for (int i = 0; i < 5; ++i)
        readFrame(); // the stream settles: buffers queued, pages touched

    for (auto _ : state)
        readFrame();

    {
        Drain drain(stream.get());
        control.send("CaptureStreamStop");
        control.waitFor("Capture Stream finished.");
    }
    const double bytes = double(state.iterations()) * double(frameBytes);
    state.counters["frames/s"] = benchmark::Counter(double(state.iterations()), benchmark::Counter::kIsRate);
    state.counters["GB/s"] = benchmark::Counter(bytes / 1e9, benchmark::Counter::kIsRate);
    state.counters["frame_MB"] = double(frameBytes) / 1e6;
    state.SetLabel(control.lastRate().empty() ? "" : "daemon measured " +
                   std::regex_replace(control.lastRate(), std::regex(".*(Benchmark = '[^']*' FPS).*"), "$1"));
}

// A loopback connection with a reader that discards everything, for the reference paths.
class LoopbackSink {
public:
    LoopbackSink()
    {
        Descriptor listener(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t size = sizeof address;
        if (::bind(listener.get(), reinterpret_cast<sockaddr*>(&address), size) < 0 ||
            ::listen(listener.get(), 1) < 0 ||
            ::getsockname(listener.get(), reinterpret_cast<sockaddr*>(&address), &size) < 0)
            fail("loopback listener");
        sender_ = connectTo(ntohs(address.sin_port));
        receiver_ = Descriptor(::accept(listener.get(), nullptr, nullptr));
        reader_ = std::thread([fd = receiver_.get()] {
            std::vector<char> sink(1 << 20);
            while (::recv(fd, sink.data(), sink.size(), 0) > 0) {
            }
        });
    }
    ~LoopbackSink()
    {
        ::shutdown(sender_.get(), SHUT_WR);
        reader_.join();
    }
    int fd() const { return sender_.get(); }

private:
    Descriptor sender_;
    Descriptor receiver_;
    std::thread reader_;
};

// The data bytes of one frame without line padding, as the daemon stores it.
size_t dataBytes(const char* fourcc, int resolution)
{
    const size_t sizes[][2] = {{640, 480}, {1456, 1088}, {2472, 2064}};
    const size_t channels = std::string(fourcc) == "RGB3" ? 3 : 1;
    return sizes[resolution][0] * sizes[resolution][1] * channels;
}

// A frame as the capture device hands it over: rows padded to 64 bytes.
std::vector<uint8_t> paddedFrame(const char* fourcc, int resolution, size_t& stride, size_t& rows)
{
    const size_t sizes[][2] = {{640, 480}, {1456, 1088}, {2472, 2064}};
    const size_t channels = std::string(fourcc) == "RGB3" ? 3 : 1;
    const size_t rowBytes = sizes[resolution][0] * channels;
    stride = (rowBytes + 63) / 64 * 64;
    rows = sizes[resolution][1];
    std::vector<uint8_t> frame(stride * rows);
    for (size_t i = 0; i < frame.size(); ++i)
        frame[i] = uint8_t(i * 7);
    return frame;
}

// The ideal path for the same bytes: row copy into a shared file mapping, CRC, one send.
void BM_IdealPath(benchmark::State& state, const char* fourcc, int resolution)
{
    size_t stride = 0, rows = 0;
    const std::vector<uint8_t> frame = paddedFrame(fourcc, resolution, stride, rows);
    const size_t n = dataBytes(fourcc, resolution);
    const size_t rowBytes = n / rows;

    const std::string path = options.shm + "/k52bench-ideal-" + std::to_string(::getpid());
    Descriptor file(::open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC, 0600));
    if (file.get() < 0 || ::ftruncate(file.get(), containerSize) < 0)
        fail("ideal-path file " + path);
    ::unlink(path.c_str());
    void* mapping = ::mmap(nullptr, containerSize, PROT_READ | PROT_WRITE, MAP_SHARED, file.get(), 0);
    if (mapping == MAP_FAILED)
        fail("mmap " + path);
    auto* container = static_cast<uint8_t*>(mapping);
    LoopbackSink sink;

    for (auto _ : state) {
        for (size_t row = 0; row < rows; ++row)
            std::memcpy(container + 2244 + row * rowBytes, frame.data() + row * stride, rowBytes);
        const uint32_t crc = utils::CRCSum32(container, 2244 + n, 0xFFFFFFFF);
        std::memcpy(container + 2244 + n, &crc, sizeof crc);
        sendAll(sink.fd(), container, frameOverhead + n);
    }
    ::munmap(mapping, containerSize);
    const double bytes = double(state.iterations()) * double(frameOverhead + n);
    state.counters["frames/s"] = benchmark::Counter(double(state.iterations()), benchmark::Counter::kIsRate);
    state.counters["GB/s"] = benchmark::Counter(bytes / 1e9, benchmark::Counter::kIsRate);
}

// Only the loopback send of the same bytes.
void BM_LoopbackSend(benchmark::State& state, const char* fourcc, int resolution)
{
    const size_t length = frameOverhead + dataBytes(fourcc, resolution);
    std::vector<uint8_t> bytes(length, 0x5A);
    LoopbackSink sink;
    for (auto _ : state)
        sendAll(sink.fd(), bytes.data(), bytes.size());
    state.counters["frames/s"] = benchmark::Counter(double(state.iterations()), benchmark::Counter::kIsRate);
    state.counters["GB/s"] = benchmark::Counter(double(state.iterations()) * double(length) / 1e9,
                                                benchmark::Counter::kIsRate);
}

struct Format {
    const char* name;
    const char* fourcc;
    int resolution;
    int frames;
};
const Format formats[] = {
    {"1456x1088_GREY", "GREY", 1, 600},
    {"2472x2064_GREY", "GREY", 2, 300},
    {"2472x2064_RGB3", "RGB3", 2, 150},
};

void registerBenchmarks()
{
    for (const auto& f : formats) {
        benchmark::RegisterBenchmark((std::string("FramePath/") + f.name).c_str(), BM_FramePath, f.fourcc, f.resolution)
            ->Iterations(f.frames)
            ->UseRealTime()
            ->Unit(benchmark::kMillisecond);
        benchmark::RegisterBenchmark((std::string("IdealPath/") + f.name).c_str(), BM_IdealPath, f.fourcc, f.resolution)
            ->Iterations(f.frames)
            ->UseRealTime()
            ->Unit(benchmark::kMillisecond);
        benchmark::RegisterBenchmark((std::string("LoopbackSend/") + f.name).c_str(), BM_LoopbackSend, f.fourcc, f.resolution)
            ->Iterations(f.frames)
            ->UseRealTime()
            ->Unit(benchmark::kMillisecond);
    }
}

} // namespace

int main(int argc, char** argv)
{
    const fs::path self = fs::canonical("/proc/self/exe");
    options.k52app = (self.parent_path().parent_path() / "k52app").string();
    std::vector<char*> rest{argv[0]};
    for (int i = 1; i < argc; ++i) {
        const std::string argument = argv[i];
        if (argument.rfind("--k52app=", 0) == 0)
            options.k52app = argument.substr(9);
        else if (argument.rfind("--source=", 0) == 0)
            options.source = argument.substr(9);
        else if (argument.rfind("--shm=", 0) == 0)
            options.shm = argument.substr(6);
        else
            rest.push_back(argv[i]);
    }
    if (options.source.empty()) {
        for (fs::path dir = fs::path(options.k52app).parent_path(); !dir.empty() && dir != dir.root_path();
             dir = dir.parent_path()) {
            if (fs::exists(dir / "etc/k52app-emulated.conf")) {
                options.source = dir.string();
                break;
            }
        }
    }
    int count = static_cast<int>(rest.size());
    benchmark::Initialize(&count, rest.data());
    registerBenchmarks();
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
