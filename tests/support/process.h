#pragma once

#include <string>
#include <vector>

namespace k52test {

struct ProcessResult {
    int exitStatus = -1; // -1 when a signal ended the program
    int signal = 0;      // the signal that ended it, 0 when it exited
    bool timedOut = false;
    std::string out;
    std::string err;
};

// The command prefix that runs the programs under test (the daemon, k52ctl) from the
// environment variable K52_TEST_LAUNCHER, split at spaces; empty when unset. A cross build's
// tests set it to an emulator, e.g. "/usr/bin/qemu-aarch64-static",
// as the machine cannot run the build's executables by itself. Its first word is an absolute path.
std::vector<std::string> testLauncher();

// Runs `program` (through testLauncher(); argv[0] is the program path itself) with `arguments`,
// its standard input /dev/null, and waits for it, collecting its standard output and standard
// error; a program still running after ten seconds is killed (SIGKILL).
ProcessResult runProcess(const std::string& program, const std::vector<std::string>& arguments);

} // namespace k52test
