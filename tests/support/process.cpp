#include "support/process.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <sstream>
#include <stdexcept>
#include <thread>
#include <utility>

extern char** environ;

namespace k52test {

namespace {

using Clock = std::chrono::steady_clock;

std::runtime_error systemError(const std::string& what)
{
    return std::runtime_error(what + ": " + std::strerror(errno));
}

class Pipe {
public:
    Pipe()
    {
        if (::pipe2(ends_, O_CLOEXEC) != 0)
            throw systemError("pipe2");
    }
    ~Pipe()
    {
        closeRead();
        closeWrite();
    }
    Pipe(const Pipe&) = delete;
    Pipe& operator=(const Pipe&) = delete;

    int readEnd() const { return ends_[0]; }
    int writeEnd() const { return ends_[1]; }
    void closeRead() { closeEnd(ends_[0]); }
    void closeWrite() { closeEnd(ends_[1]); }

private:
    static void closeEnd(int& fd)
    {
        if (fd >= 0)
            ::close(std::exchange(fd, -1));
    }
    int ends_[2] = {-1, -1};
};

class SpawnActions {
public:
    SpawnActions() { posix_spawn_file_actions_init(&actions_); }
    ~SpawnActions() { posix_spawn_file_actions_destroy(&actions_); }
    SpawnActions(const SpawnActions&) = delete;
    SpawnActions& operator=(const SpawnActions&) = delete;
    posix_spawn_file_actions_t* get() { return &actions_; }

private:
    posix_spawn_file_actions_t actions_;
};

class SpawnAttributes {
public:
    // The child starts with every signal at its default action and none blocked, whatever
    // the test process has set up for itself.
    SpawnAttributes()
    {
        posix_spawnattr_init(&attributes_);
        sigset_t all;
        sigset_t none;
        sigfillset(&all);
        sigemptyset(&none);
        posix_spawnattr_setsigdefault(&attributes_, &all);
        posix_spawnattr_setsigmask(&attributes_, &none);
        posix_spawnattr_setflags(&attributes_, POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETSIGMASK);
    }
    ~SpawnAttributes() { posix_spawnattr_destroy(&attributes_); }
    SpawnAttributes(const SpawnAttributes&) = delete;
    SpawnAttributes& operator=(const SpawnAttributes&) = delete;
    posix_spawnattr_t* get() { return &attributes_; }

private:
    posix_spawnattr_t attributes_;
};

// Reaps the child in every case; kills it first if it is still running when we give up.
class Child {
public:
    explicit Child(pid_t pid) : pid_(pid) {}
    ~Child()
    {
        if (pid_ > 0) {
            ::kill(pid_, SIGKILL);
            int status;
            while (::waitpid(pid_, &status, 0) < 0 && errno == EINTR) {
            }
        }
    }
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;

    // True once the child has ended; fills `result` then.
    bool reap(ProcessResult& result, bool block)
    {
        int status = 0;
        pid_t rc;
        do {
            rc = ::waitpid(pid_, &status, block ? 0 : WNOHANG);
        } while (rc < 0 && errno == EINTR);
        if (rc == 0)
            return false;
        if (rc < 0)
            throw systemError("waitpid");
        pid_ = -1;
        if (WIFEXITED(status))
            result.exitStatus = WEXITSTATUS(status);
        else if (WIFSIGNALED(status))
            result.signal = WTERMSIG(status);
        return true;
    }

    void kill() { ::kill(pid_, SIGKILL); }

private:
    pid_t pid_;
};

int remainingMs(Clock::time_point deadline)
{
    auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
    return left.count() > 0 ? static_cast<int>(left.count()) : 0;
}

// Appends what is available; false once the other end is closed.
bool drain(int fd, std::string& into)
{
    char buffer[4096];
    ssize_t n = ::read(fd, buffer, sizeof buffer);
    if (n > 0) {
        into.append(buffer, static_cast<size_t>(n));
        return true;
    }
    return n < 0 && (errno == EINTR || errno == EAGAIN);
}

} // namespace

std::vector<std::string> testLauncher()
{
    std::vector<std::string> words;
    if (const char* launcher = std::getenv("K52_TEST_LAUNCHER")) {
        std::istringstream in(launcher);
        for (std::string word; in >> word;)
            words.push_back(word);
    }
    return words;
}

ProcessResult runProcess(const std::string& program, const std::vector<std::string>& arguments)
{
    Pipe output, error;
    SpawnActions actions;
    posix_spawn_file_actions_addopen(actions.get(), STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_adddup2(actions.get(), output.writeEnd(), STDOUT_FILENO);
    posix_spawn_file_actions_adddup2(actions.get(), error.writeEnd(), STDERR_FILENO);
    SpawnAttributes attributes;

    std::vector<std::string> words = testLauncher();
    words.push_back(program);
    words.insert(words.end(), arguments.begin(), arguments.end());
    std::vector<char*> argv;
    for (auto& word : words)
        argv.push_back(word.data());
    argv.push_back(nullptr);

    pid_t pid = 0;
    int rc = ::posix_spawn(&pid, argv[0], actions.get(), attributes.get(), argv.data(), environ);
    if (rc != 0) {
        errno = rc;
        throw systemError("posix_spawn " + program);
    }
    Child child(pid);
    output.closeWrite();
    error.closeWrite();

    ProcessResult result;
    const auto deadline = Clock::now() + std::chrono::seconds(10);
    // A closed end is -1, which poll skips.
    while (output.readEnd() >= 0 || error.readEnd() >= 0) {
        pollfd fds[2] = {{output.readEnd(), POLLIN, 0}, {error.readEnd(), POLLIN, 0}};
        int ready = ::poll(fds, 2, remainingMs(deadline));
        if (ready < 0 && errno != EINTR)
            throw systemError("poll");
        if (ready == 0)
            break; // timed out: killed below
        if (fds[0].revents && !drain(output.readEnd(), result.out))
            output.closeRead();
        if (fds[1].revents && !drain(error.readEnd(), result.err))
            error.closeRead();
    }

    // Both outputs are closed (or time is up); the program may still be finishing.
    while (!child.reap(result, false)) {
        if (remainingMs(deadline) == 0) {
            result.timedOut = true;
            child.kill();
            child.reap(result, true);
            break;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return result;
}

} // namespace k52test
