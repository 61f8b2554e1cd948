#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>
#include <ostream>
#include <sstream>
#include <streambuf>

namespace k52app {

enum SyslogSeverity : uint32_t {
    emerg = 0,
    alert = 1,
    crit = 2,
    err = 3,
    warn = 4,
    notice = 5,
    info = 6,
    debug = 7,
};

enum SyslogFacility : uint32_t {
    kern = 0,
    user = 8,
    mail = 16,
    daemon = 24,
    auth = 32,
    syslogf = 40,
    lpr = 48,
    news = 56,
    uucp = 64,
    cron = 72,
    authpriv = 80,
    ftp = 88,
    local0 = 128,
    local1 = 136,
    local2 = 144,
    local3 = 152,
    local4 = 160,
    local5 = 168,
    local6 = 176,
    local7 = 184,
};

// Collects characters into one record; each sync() sends the record as one syslog entry.
// It keeps no put area, so every character arrives through overflow().
class SyslogStreamBuffer : public std::streambuf {
public:
    SyslogStreamBuffer(const char* ident, SyslogSeverity severity, SyslogFacility facility);
    ~SyslogStreamBuffer() override;
    SyslogStreamBuffer(const SyslogStreamBuffer&) = delete;
    SyslogStreamBuffer& operator=(const SyslogStreamBuffer&) = delete;

    void setSeverity(SyslogSeverity severity);
    void setFacility(SyslogFacility facility);
    void setDevMode(bool flag) { devMode_ = flag; }
    bool devMode() const { return devMode_; }

protected:
    int_type overflow(int_type ch) override;
    int sync() override;

private:
    void reopen();

    std::ostringstream record_;
    std::atomic<SyslogSeverity> severity_;
    std::atomic<SyslogFacility> facility_;
    std::atomic<bool> devMode_;
};

// The daemon's log. Writers lock `mutex` for exactly one record (see LogRecord).
class SyslogStream : public std::ostream {
public:
    SyslogStream(const char* ident, SyslogSeverity severity, SyslogFacility facility);
    ~SyslogStream() override;

    SyslogStream& operator<<(SyslogSeverity severity);
    SyslogStream& operator<<(SyslogFacility facility);
    SyslogStream& operator<<(std::ios_base& (*manipulator)(std::ios_base&));

    void devMode(bool flag) { buffer_.setDevMode(flag); }

    std::mutex mutex;

private:
    SyslogStreamBuffer buffer_;
};

extern SyslogStream log;

} // namespace k52app
