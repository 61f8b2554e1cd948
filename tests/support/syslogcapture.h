#pragma once

#include <string>
#include <vector>

namespace k52test {

// What the process handed to the C library's syslog: this test binary replaces openlog,
// closelog and syslog, so records are captured exactly as the daemon's code sends them.
struct SyslogRecord {
    int priority;
    std::string format; // the format argument as given (must be "%s")
    std::string text;   // the formatted entry
};

struct SyslogCall {
    enum class Kind { open, close } kind;
    std::string ident; // openlog only; empty for a null ident
    int option;
    int facility;
};

class SyslogCapture {
public:
    SyslogCapture();  // starts capturing, empty
    ~SyslogCapture(); // stops capturing

    std::vector<SyslogRecord> records() const;
    std::vector<SyslogCall> calls() const;
};

} // namespace k52test
