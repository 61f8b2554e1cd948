#include "support/syslogcapture.h"

#include <cstdarg>
#include <cstdio>
#include <mutex>

namespace k52test {

namespace {

struct State {
    std::mutex mutex;
    bool capturing = false;
    std::vector<SyslogRecord> records;
    std::vector<SyslogCall> calls;
};

State& state()
{
    static State s;
    return s;
}

void record(int priority, const char* format, va_list args)
{
    char text[8192];
    std::vsnprintf(text, sizeof text, format, args);
    auto& s = state();
    std::lock_guard lock(s.mutex);
    if (s.capturing)
        s.records.push_back({priority, format, text});
}

} // namespace

SyslogCapture::SyslogCapture()
{
    auto& s = state();
    std::lock_guard lock(s.mutex);
    s.records.clear();
    s.calls.clear();
    s.capturing = true;
}

SyslogCapture::~SyslogCapture()
{
    auto& s = state();
    std::lock_guard lock(s.mutex);
    s.capturing = false;
}

std::vector<SyslogRecord> SyslogCapture::records() const
{
    auto& s = state();
    std::lock_guard lock(s.mutex);
    return s.records;
}

std::vector<SyslogCall> SyslogCapture::calls() const
{
    auto& s = state();
    std::lock_guard lock(s.mutex);
    return s.calls;
}

} // namespace k52test

// These definitions take precedence over the C library's for the whole test executable.
extern "C" {

void openlog(const char* ident, int option, int facility)
{
    auto& s = k52test::state();
    std::lock_guard lock(s.mutex);
    if (s.capturing)
        s.calls.push_back({k52test::SyslogCall::Kind::open, ident ? ident : "", option, facility});
}

void closelog(void)
{
    auto& s = k52test::state();
    std::lock_guard lock(s.mutex);
    if (s.capturing)
        s.calls.push_back({k52test::SyslogCall::Kind::close, "", 0, 0});
}

void syslog(int priority, const char* format, ...)
{
    va_list args;
    va_start(args, format);
    k52test::record(priority, format, args);
    va_end(args);
}

void __syslog_chk(int priority, int /*flag*/, const char* format, ...)
{
    va_list args;
    va_start(args, format);
    k52test::record(priority, format, args);
    va_end(args);
}

} // extern "C"
