#pragma once

#include "utils/platform/kernel.h"

#include <atomic>
#include <condition_variable>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

struct fuse_session;
struct fuse_pollhandle;

namespace cuseboard {

// Pollers CUSE asked to be woken when a descriptor of the board becomes ready: one thread
// waits on the board for them and tells the kernel.
class PollWaiter {
public:
    explicit PollWaiter(utils::platform::Kernel& board);
    ~PollWaiter();
    PollWaiter(const PollWaiter&) = delete;
    PollWaiter& operator=(const PollWaiter&) = delete;

    // Takes ownership of `handle`; a newer handle for the same descriptor replaces it.
    void add(int fd, fuse_pollhandle* handle);
    // Drops the handle of a descriptor being closed.
    void remove(int fd);

private:
    void run(std::stop_token stop);

    utils::platform::Kernel& board_;
    std::mutex mutex_;
    std::condition_variable_any pending_;
    std::map<int, fuse_pollhandle*> handles_;
    std::jthread thread_;
};

// One device node of the board served as /dev/<name> through its own CUSE session, answered
// by its own thread: open, release, read, write, ioctl and poll go to the board's calls for
// the same path.
class CuseNode {
public:
    CuseNode(utils::platform::Kernel& board, std::string path);
    ~CuseNode();
    CuseNode(const CuseNode&) = delete;
    CuseNode& operator=(const CuseNode&) = delete;

    const std::string& path() const { return path_; }
    utils::platform::Kernel& board() { return board_; }
    PollWaiter& pollWaiter() { return pollWaiter_; }

private:
    struct SessionTeardown {
        void operator()(fuse_session* session) const;
    };

    utils::platform::Kernel& board_;
    std::string path_;
    // Declared before the poll waiter, so that the waiter stops before the session goes.
    std::unique_ptr<fuse_session, SessionTeardown> session_;
    PollWaiter pollWaiter_;
    std::atomic<bool> loopEnded_{false};
    std::thread loop_;
};

// Lets a signal interrupt a session thread's blocking read of /dev/cuse (see ~CuseNode).
void installWakeUpSignal();

} // namespace cuseboard
