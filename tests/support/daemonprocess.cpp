#include "support/daemonprocess.h"
#include "support/bytes.h"
#include "support/process.h"

#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>

#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <utility>

extern char** environ;

namespace k52test {

namespace {

using Clock = std::chrono::steady_clock;

bool acceptsConnections(uint16_t port)
{
    const utils::FileDescriptor fd(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0),
                                   utils::FileDescriptor::Closer::system);
    sockaddr_in address{AF_INET, htons(port), {htonl(INADDR_LOOPBACK)}, {}};
    return ::connect(fd.get(), reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
}

EmulatedConfig::Overrides withoutPorts(EmulatedConfig::Overrides overrides)
{
    overrides["socket-ctrl"] = std::nullopt;
    overrides["socket-stream"] = std::nullopt;
    return overrides;
}

// What the daemon gets besides the caller's environment: the syslog shim and sanitizer options.
// Its signal handler logs and stops the core, as designed; that is not async-signal-safe, and a
// sanitizer build must not fail the daemon for it. The caller's own options (where reports go,
// halting on the first) still apply to the daemon.
std::vector<std::string> ownEnvironment(const std::string& socketPath)
{
    const char* caller = std::getenv("TSAN_OPTIONS");
    return {std::string("LD_PRELOAD=") + K52_SYSLOG_SHIM, "K52TEST_SYSLOG_SOCKET=" + socketPath,
            "ASAN_OPTIONS=verify_asan_link_order=0:detect_leaks=1",
            std::string("TSAN_OPTIONS=report_signal_unsafe=0") + (caller ? std::string(" ") + caller : "")};
}

} // namespace

DaemonProcess::DaemonProcess(const EmulatedConfig::Overrides& overrides)
    : config_(overrides),
      controlPort_(config_.controlPort()),
      streamPort_(config_.streamPort()),
      socketPath_(config_.dir().file("syslog.sock"))
{
    start({});
}

DaemonProcess::DaemonProcess(SocketActivation, const EmulatedConfig::Overrides& overrides)
    : config_(withoutPorts(overrides)),
      controlPort_(freePort()),
      streamPort_(freePort()),
      socketPath_(config_.dir().file("syslog.sock"))
{
    while (streamPort_ == controlPort_)
        streamPort_ = freePort();
    std::vector<std::string> launcher = {"/usr/bin/systemd-socket-activate", "-l",
                                         "127.0.0.1:" + std::to_string(controlPort_), "-l",
                                         "127.0.0.1:" + std::to_string(streamPort_), "--fdname=ctrl:stream"};
    for (const auto& variable : ownEnvironment(socketPath_))
        launcher.insert(launcher.end(), {"-E", variable});
    start(launcher);
}

void DaemonProcess::start(const std::vector<std::string>& launcher)
{
    sink_.reset(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, socketPath_.c_str(), sizeof address.sun_path - 1);
    if (!sink_ || ::bind(sink_.get(), reinterpret_cast<sockaddr*>(&address), sizeof address) != 0)
        throw std::runtime_error("cannot bind the syslog sink " + socketPath_);
    int size = 4 << 20;
    ::setsockopt(sink_.get(), SOL_SOCKET, SO_RCVBUF, &size, sizeof size);
    std::vector<std::string> arguments = launcher, emulator = testLauncher();
    arguments.insert(arguments.end(), emulator.begin(), emulator.end());
    arguments.insert(arguments.end(), {K52APP_BINARY, "-c", config_.path()});
    std::vector<std::string> environment = ownEnvironment(socketPath_);
    for (char** e = environ; *e; ++e) {
        const std::string entry = *e;
        if (!entry.starts_with("LD_PRELOAD=") && !entry.starts_with("ASAN_OPTIONS=") &&
            !entry.starts_with("TSAN_OPTIONS="))
            environment.push_back(entry);
    }
    // Run from the source tree, as a developer does, so relative paths of the configuration
    // resolve.
    pid_ = spawn(arguments, environment, "", config_.dir().file("stderr.txt"), K52_SOURCE_DIR);
    collector_ = std::thread([this] { collect(); });
    auto deadline = Clock::now() + std::chrono::seconds(20);
    while (!acceptsConnections(controlPort_)) {
        if (!running() || Clock::now() > deadline) {
            std::string error = standardError();
            release();
            throw std::runtime_error("k52app did not start listening: " + error);
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    // The sockets listen before the routes are registered and the workers run; under an
    // emulated CPU that gap outlasts a client's reply timeout, so wait for the workers too.
    deadline = Clock::now() + std::chrono::seconds(60);
    while (findRecord("Core: started.") < 0 && running() && Clock::now() < deadline)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
}

DaemonProcess::~DaemonProcess() { release(); }

void DaemonProcess::release()
{
    if (running()) {
        ::kill(pid_, SIGKILL);
        ::waitpid(pid_, nullptr, 0);
    }
    {
        std::lock_guard lock(mutex_);
        collecting_ = false;
    }
    if (collector_.joinable())
        collector_.join();
    sink_.reset();
}

bool DaemonProcess::running()
{
    if (pid_ <= 0 || status_ >= 0)
        return false;
    int status;
    if (::waitpid(pid_, &status, WNOHANG) == pid_) {
        // Without WUNTRACED, waitpid reports only an exit or a killing signal.
        status_ = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
        return false;
    }
    return true;
}

int DaemonProcess::wait(std::chrono::milliseconds timeout)
{
    auto deadline = Clock::now() + timeout;
    while (running()) {
        if (Clock::now() > deadline)
            return -1;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return status_;
}

int DaemonProcess::stop(int signal, std::chrono::milliseconds timeout)
{
    if (running())
        ::kill(pid_, signal);
    return wait(timeout);
}

void DaemonProcess::collect()
{
    char buffer[16384];
    for (;;) {
        {
            std::lock_guard lock(mutex_);
            if (!collecting_)
                return;
        }
        pollfd p{sink_.get(), POLLIN, 0};
        if (::poll(&p, 1, 50) <= 0)
            continue;
        ssize_t n = ::recv(sink_.get(), buffer, sizeof buffer, 0);
        if (n <= 0)
            continue;
        std::string datagram(buffer, static_cast<size_t>(n));
        auto close = datagram.find('>');
        if (datagram.empty() || datagram[0] != '<' || close == std::string::npos)
            continue;
        DaemonRecord record{std::stoi(datagram.substr(1, close - 1)), datagram.substr(close + 1)};
        std::lock_guard lock(mutex_);
        records_.push_back(std::move(record));
    }
}

std::vector<DaemonRecord> DaemonProcess::records() const
{
    std::lock_guard lock(mutex_);
    return records_;
}

long DaemonProcess::findRecord(const std::string& text, size_t from) const
{
    std::lock_guard lock(mutex_);
    for (size_t i = from; i < records_.size(); ++i)
        if (records_[i].text.find(text) != std::string::npos)
            return static_cast<long>(i);
    return -1;
}

bool DaemonProcess::waitForRecord(const std::string& text, size_t from) const
{
    auto deadline = Clock::now() + std::chrono::seconds(5);
    while (findRecord(text, from) < 0) {
        if (Clock::now() > deadline)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return true;
}

std::string DaemonProcess::standardError() const { return fileBytes(config_.dir().file("stderr.txt")); }

} // namespace k52test
