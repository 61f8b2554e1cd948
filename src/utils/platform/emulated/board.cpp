#include "utils/platform/emulated/board.h"

#include <sys/mman.h>

#include <chrono>

namespace utils::platform::emulated {

EmulatedBoard::EmulatedBoard() = default;
EmulatedBoard::~EmulatedBoard() = default;

void EmulatedBoard::attach(const std::string& path, std::shared_ptr<VirtualDevice> device)
{
    std::lock_guard lock(mutex_);
    devices_[path] = std::move(device);
}

std::shared_ptr<VirtualDevice> EmulatedBoard::device(const std::string& path) const
{
    std::lock_guard lock(mutex_);
    auto it = devices_.find(path);
    return it == devices_.end() ? nullptr : it->second;
}

void EmulatedBoard::notify()
{
    {
        std::lock_guard lock(mutex_);
        ++generation_;
    }
    changed_.notify_all();
}

std::shared_ptr<VirtualFile> EmulatedBoard::file(int fd) const
{
    std::lock_guard lock(mutex_);
    auto it = files_.find(fd);
    if (it == files_.end()) {
        errno = EBADF;
        return nullptr;
    }
    if (faults_.fault(it->second.path) == Fault::ioError) {
        errno = EIO;
        return nullptr;
    }
    return it->second.file;
}

int EmulatedBoard::open(const std::string& path, int flags, mode_t /*mode*/)
{
    auto node = device(path);
    if (!node)
        return fail(ENOENT);
    if (faults_.fault(path) == Fault::openFails)
        return fail(ENODEV);
    std::shared_ptr<VirtualFile> opened = node->open(flags);
    if (!opened)
        return -1; // the device set errno
    std::lock_guard lock(mutex_);
    int fd = nextDescriptor_++;
    files_[fd] = OpenFile{path, std::move(opened)};
    return fd;
}

int EmulatedBoard::close(int fd)
{
    std::shared_ptr<VirtualFile> closed;
    {
        std::lock_guard lock(mutex_);
        auto it = files_.find(fd);
        if (it == files_.end())
            return fail(EBADF);
        closed = std::move(it->second.file);
        files_.erase(it);
    }
    return 0; // `closed` is released outside the lock: its destructor may notify the board
}

ssize_t EmulatedBoard::read(int fd, void* buffer, size_t length)
{
    auto f = file(fd);
    return f ? f->read(buffer, length) : -1;
}

ssize_t EmulatedBoard::write(int fd, const void* buffer, size_t length)
{
    auto f = file(fd);
    return f ? f->write(buffer, length) : -1;
}

ssize_t EmulatedBoard::pread(int fd, void* buffer, size_t length, off_t offset)
{
    auto f = file(fd);
    return f ? f->pread(buffer, length, offset) : -1;
}

ssize_t EmulatedBoard::pwrite(int fd, const void* buffer, size_t length, off_t offset)
{
    auto f = file(fd);
    return f ? f->pwrite(buffer, length, offset) : -1;
}

int EmulatedBoard::ioctl(int fd, unsigned long request, void* argument)
{
    auto f = file(fd);
    return f ? f->ioctl(request, argument) : -1;
}

void* EmulatedBoard::mmap(void* /*address*/, size_t length, int /*protection*/, int /*flags*/,
                          int fd, off_t offset)
{
    auto f = file(fd);
    if (!f)
        return MAP_FAILED;
    void* address = f->mmap(length, offset);
    if (!address)
        return MAP_FAILED;
    std::lock_guard lock(mutex_);
    mappings_[address] = std::move(f); // the memory lives as long as the mapping
    return address;
}

int EmulatedBoard::munmap(void* address, size_t /*length*/)
{
    std::shared_ptr<VirtualFile> owner; // released after the lock, like close()
    std::lock_guard lock(mutex_);
    auto it = mappings_.find(address);
    if (it == mappings_.end())
        return fail(EINVAL);
    owner = std::move(it->second);
    mappings_.erase(it);
    return 0;
}

int EmulatedBoard::poll(struct pollfd* fds, nfds_t count, int timeoutMs)
{
    using Clock = std::chrono::steady_clock;
    const auto deadline = Clock::now() + std::chrono::milliseconds(timeoutMs < 0 ? 0 : timeoutMs);
    std::unique_lock lock(mutex_);
    for (;;) {
        unsigned long seen = generation_;
        int ready = 0;
        for (nfds_t i = 0; i < count; ++i) {
            auto it = files_.find(fds[i].fd);
            if (it == files_.end()) {
                fds[i].revents = POLLNVAL;
                ++ready;
                continue;
            }
            auto f = it->second.file;
            lock.unlock();
            short events = f->readyEvents();
            lock.lock();
            fds[i].revents = static_cast<short>(events & (fds[i].events | POLLERR | POLLHUP));
            if (fds[i].revents)
                ++ready;
        }
        if (ready > 0)
            return ready;
        if (timeoutMs >= 0 && Clock::now() >= deadline)
            return 0;
        auto stillWaiting = [&] { return generation_ != seen; };
        if (timeoutMs < 0)
            changed_.wait(lock, stillWaiting);
        else
            changed_.wait_until(lock, deadline, stillWaiting);
    }
}

} // namespace utils::platform::emulated
