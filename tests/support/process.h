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

// Runs `program` (argv[0] is the program path itself) with `arguments`, its standard input
// /dev/null, and waits for it, collecting its standard output and standard error; a program
// still running after ten seconds is killed (SIGKILL).
ProcessResult runProcess(const std::string& program, const std::vector<std::string>& arguments);

} // namespace k52test
