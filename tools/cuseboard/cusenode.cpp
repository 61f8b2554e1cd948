#define FUSE_USE_VERSION 31
#include "cusenode.h"

#include <cuse_lowlevel.h>

#include <linux/ioctl.h>
#include <pthread.h>
#include <signal.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <stdexcept>
#include <vector>

namespace cuseboard {

namespace {

// Wakes a session thread out of its read of /dev/cuse; the loop then sees that it must stop.
constexpr int wakeUpSignal = SIGUSR1;

CuseNode& nodeOf(fuse_req_t request)
{
    return *static_cast<CuseNode*>(fuse_req_userdata(request));
}

int descriptorOf(const fuse_file_info* file)
{
    return static_cast<int>(file->fh);
}

void onOpen(fuse_req_t request, fuse_file_info* file)
{
    CuseNode& node = nodeOf(request);
    const int fd = node.board().open(node.path(), file->flags);
    if (fd < 0) {
        fuse_reply_err(request, errno);
        return;
    }
    file->fh = static_cast<uint64_t>(fd);
    file->nonseekable = 1;
    if (fuse_reply_open(request, file) != 0)
        node.board().close(fd); // the opener is gone
}

void onRelease(fuse_req_t request, fuse_file_info* file)
{
    CuseNode& node = nodeOf(request);
    node.pollWaiter().remove(descriptorOf(file));
    node.board().close(descriptorOf(file));
    fuse_reply_err(request, 0);
}

void onRead(fuse_req_t request, size_t size, off_t /*offset*/, fuse_file_info* file)
{
    std::vector<char> buffer(size);
    const ssize_t count = nodeOf(request).board().read(descriptorOf(file), buffer.data(), size);
    if (count < 0)
        fuse_reply_err(request, errno);
    else
        fuse_reply_buf(request, buffer.data(), static_cast<size_t>(count));
}

void onWrite(fuse_req_t request, const char* data, size_t size, off_t /*offset*/,
             fuse_file_info* file)
{
    const ssize_t count = nodeOf(request).board().write(descriptorOf(file), data, size);
    if (count < 0)
        fuse_reply_err(request, errno);
    else
        fuse_reply_write(request, static_cast<size_t>(count));
}

// Forwarded by request number alone: the kernel has already copied in the _IOC_SIZE bytes the
// request's encoding names and copies back what the reply carries, so no record layout is
// known here. A request without a size passes its argument as a value.
void onIoctl(fuse_req_t request, int command, void* argument, fuse_file_info* file,
             unsigned flags, const void* input, size_t inputSize, size_t outputSize)
{
    if (flags & FUSE_IOCTL_COMPAT) {
        fuse_reply_err(request, ENOTTY);
        return;
    }
    const auto number = static_cast<unsigned int>(command);
    const size_t size = _IOC_SIZE(number);
    utils::platform::Kernel& board = nodeOf(request).board();
    if (size == 0) {
        const int result = board.ioctl(descriptorOf(file), number, argument);
        if (result < 0)
            fuse_reply_err(request, errno);
        else
            fuse_reply_ioctl(request, result, nullptr, 0);
        return;
    }
    std::vector<unsigned char> record(size);
    std::memcpy(record.data(), input, std::min(inputSize, size));
    const int result = board.ioctl(descriptorOf(file), number, record.data());
    if (result < 0)
        fuse_reply_err(request, errno);
    else
        fuse_reply_ioctl(request, result, record.data(), std::min(outputSize, size));
}

void onPoll(fuse_req_t request, fuse_file_info* file, fuse_pollhandle* handle)
{
    CuseNode& node = nodeOf(request);
    pollfd ready{descriptorOf(file), POLLIN | POLLOUT | POLLPRI, 0};
    if (node.board().poll(&ready, 1, 0) < 0) {
        if (handle)
            fuse_pollhandle_destroy(handle);
        fuse_reply_err(request, errno);
        return;
    }
    if (handle) {
        if (ready.revents == 0)
            node.pollWaiter().add(ready.fd, handle);
        else
            fuse_pollhandle_destroy(handle);
    }
    fuse_reply_poll(request, static_cast<unsigned>(ready.revents));
}

const cuse_lowlevel_ops operations = [] {
    cuse_lowlevel_ops ops{};
    ops.open = onOpen;
    ops.release = onRelease;
    ops.read = onRead;
    ops.write = onWrite;
    ops.ioctl = onIoctl;
    ops.poll = onPoll;
    return ops;
}();

void ignoreSignal(int) {}

} // namespace

void installWakeUpSignal()
{
    struct sigaction action {};
    action.sa_handler = ignoreSignal;
    sigemptyset(&action.sa_mask);
    action.sa_flags = 0; // no SA_RESTART: the blocked read must return EINTR
    sigaction(wakeUpSignal, &action, nullptr);
}

PollWaiter::PollWaiter(utils::platform::Kernel& board)
    : board_(board), thread_([this](std::stop_token stop) { run(stop); })
{
}

PollWaiter::~PollWaiter()
{
    thread_.request_stop();
    thread_.join();
    for (const auto& [fd, handle] : handles_)
        fuse_pollhandle_destroy(handle);
}

void PollWaiter::add(int fd, fuse_pollhandle* handle)
{
    std::lock_guard lock(mutex_);
    auto [entry, added] = handles_.emplace(fd, handle);
    if (!added) {
        fuse_pollhandle_destroy(entry->second);
        entry->second = handle;
    }
    pending_.notify_one();
}

void PollWaiter::remove(int fd)
{
    std::lock_guard lock(mutex_);
    if (auto entry = handles_.find(fd); entry != handles_.end()) {
        fuse_pollhandle_destroy(entry->second);
        handles_.erase(entry);
    }
}

void PollWaiter::run(std::stop_token stop)
{
    // The board's poll wakes on its own changes; the short timeout bounds how late a newly
    // added descriptor or a stop request is seen.
    constexpr int sliceMs = 100;
    std::unique_lock lock(mutex_);
    while (!stop.stop_requested()) {
        if (handles_.empty()) {
            pending_.wait(lock, stop, [this] { return !handles_.empty(); });
            continue;
        }
        std::vector<pollfd> fds;
        for (const auto& [fd, handle] : handles_)
            fds.push_back({fd, POLLIN | POLLOUT | POLLPRI, 0});
        lock.unlock();
        const int ready = board_.poll(fds.data(), fds.size(), sliceMs);
        lock.lock();
        if (ready <= 0)
            continue;
        for (const pollfd& fd : fds) {
            auto entry = handles_.find(fd.fd);
            if (fd.revents == 0 || entry == handles_.end())
                continue;
            fuse_lowlevel_notify_poll(entry->second);
            fuse_pollhandle_destroy(entry->second);
            handles_.erase(entry);
        }
    }
}

void CuseNode::SessionTeardown::operator()(fuse_session* session) const
{
    cuse_lowlevel_teardown(session);
}

CuseNode::CuseNode(utils::platform::Kernel& board, std::string path)
    : board_(board), path_(std::move(path)), pollWaiter_(board)
{
    const std::string prefix = "/dev/";
    if (path_.rfind(prefix, 0) != 0 || path_.size() == prefix.size())
        throw std::invalid_argument("not a device node under /dev/: '" + path_ + "'");
    const std::string deviceName = "DEVNAME=" + path_.substr(prefix.size());
    const char* deviceInfo[] = {deviceName.c_str()};
    cuse_info info{};
    info.dev_info_argc = 1;
    info.dev_info_argv = deviceInfo;

    // Foreground: the server is one process with a session per node.
    std::string program = "k52-cuse-board", foreground = "-f";
    char* arguments[] = {program.data(), foreground.data(), nullptr};
    int multithreaded = 0;
    session_.reset(cuse_lowlevel_setup(2, arguments, &info, &operations, &multithreaded, this));
    if (!session_)
        throw std::runtime_error("cannot create the CUSE device " + path_ +
                                 " (is the cuse module loaded, /dev/cuse writable?)");
    loop_ = std::thread([this] {
        fuse_session_loop(session_.get());
        loopEnded_ = true;
    });
}

CuseNode::~CuseNode()
{
    fuse_session_exit(session_.get());
    // Repeated: a signal that lands before the thread enters its read would be lost.
    while (!loopEnded_) {
        pthread_kill(loop_.native_handle(), wakeUpSignal);
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    loop_.join();
}

} // namespace cuseboard
