#include "support/process.h"
#include "support/bytes.h"
#include "support/tempdir.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <sstream>
#include <stdexcept>
#include <thread>

extern char** environ;

namespace k52test {

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

pid_t spawn(std::vector<std::string> argv, std::vector<std::string> environment,
            const std::string& outputPath, const std::string& errorPath, const char* directory)
{
    std::vector<char*> args, envp;
    for (auto& a : argv)
        args.push_back(a.data());
    args.push_back(nullptr);
    for (auto& e : environment)
        envp.push_back(e.data());
    envp.push_back(nullptr);

    // Only async-signal-safe calls between fork and exec.
    pid_t pid = ::fork();
    if (pid < 0)
        throw std::runtime_error("fork " + argv[0] + ": " + std::strerror(errno));
    if (pid == 0) {
        struct sigaction defaults{};
        defaults.sa_handler = SIG_DFL;
        for (int signal = 1; signal < NSIG; ++signal)
            ::sigaction(signal, &defaults, nullptr);
        sigset_t none;
        sigemptyset(&none);
        ::sigprocmask(SIG_SETMASK, &none, nullptr);
        const int flags = O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC; // dup2 keeps only the copies
        if (::dup2(::open("/dev/null", O_RDONLY | O_CLOEXEC), STDIN_FILENO) < 0 ||
            ::dup2(::open(errorPath.c_str(), flags, 0644), STDERR_FILENO) < 0 ||
            (!outputPath.empty() && ::dup2(::open(outputPath.c_str(), flags, 0644), STDOUT_FILENO) < 0) ||
            (directory && ::chdir(directory) != 0))
            ::_exit(126);
        ::execve(args[0], args.data(), envp.data());
        ::_exit(127);
    }
    return pid;
}

ProcessResult runProcess(const std::string& program, const std::vector<std::string>& arguments)
{
    TempDir dir("k52run");
    std::vector<std::string> words = testLauncher();
    words.push_back(program);
    words.insert(words.end(), arguments.begin(), arguments.end());
    std::vector<std::string> environment;
    for (char** e = environ; *e; ++e)
        environment.emplace_back(*e);
    const pid_t pid = spawn(words, environment, dir.file("out"), dir.file("err"));

    ProcessResult result;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    int status = 0;
    for (pid_t rc; (rc = ::waitpid(pid, &status, WNOHANG)) != pid;) {
        if (rc < 0 && errno != EINTR)
            throw std::runtime_error("waitpid " + program + ": " + std::strerror(errno));
        if (std::chrono::steady_clock::now() > deadline && !result.timedOut) {
            result.timedOut = true;
            ::kill(pid, SIGKILL);
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    if (WIFEXITED(status))
        result.exitStatus = WEXITSTATUS(status);
    result.out = fileBytes(dir.file("out"));
    result.err = fileBytes(dir.file("err"));
    return result;
}

} // namespace k52test
