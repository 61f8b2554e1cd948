#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

namespace k52test {

struct ProcessResult {
    int exitStatus = -1; // -1 when a signal ended the program
    bool timedOut = false;
    std::string out;
    std::string err;
};

// The command prefix that runs the programs under test (the daemon, k52ctl) from the
// environment variable K52_TEST_LAUNCHER, split at spaces; empty when unset. A cross build's
// tests set it to an emulator, e.g. "/usr/bin/qemu-aarch64-static",
// as the machine cannot run the build's executables by itself. Its first word is an absolute path.
std::vector<std::string> testLauncher();

// Starts argv[0] (an absolute path) with `environment`, standard input /dev/null and standard
// error into `errorPath`; standard output goes to `outputPath`, or stays the caller's when empty.
// The child starts with every signal at its default action and none blocked, whatever the test
// process has set up for itself, in `directory` when one is given.
pid_t spawn(std::vector<std::string> argv, std::vector<std::string> environment,
            const std::string& outputPath, const std::string& errorPath, const char* directory = nullptr);

// Runs `program` (through testLauncher(); argv[0] is the program path itself) with `arguments`
// and the caller's environment, and waits for it, collecting its standard output and standard
// error; a program still running after ten seconds is killed (SIGKILL).
ProcessResult runProcess(const std::string& program, const std::vector<std::string>& arguments);

} // namespace k52test
