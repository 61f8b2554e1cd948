#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <vector>

namespace k52test {

struct ProcessOptions {
    // Written to the program's standard input, which is then closed; without it the program
    // reads /dev/null.
    std::optional<std::string> input;
    // The program is killed (SIGKILL) when it has not ended by then.
    std::chrono::milliseconds timeout{10000};
};

struct ProcessResult {
    int exitStatus = -1; // -1 when a signal ended the program
    int signal = 0;      // the signal that ended it, 0 when it exited
    bool timedOut = false;
    std::string out;
    std::string err;
};

// Runs `program` (argv[0] is the program path itself) with `arguments` and waits for it,
// collecting its standard output and standard error.
ProcessResult runProcess(const std::string& program, const std::vector<std::string>& arguments,
                         const ProcessOptions& options = {});

} // namespace k52test
