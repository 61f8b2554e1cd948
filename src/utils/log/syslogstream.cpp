#include "utils/log/syslogstream.h"

#include <syslog.h>

namespace {

int priority(uint32_t severity, uint32_t facility) { return static_cast<int>(severity | facility); }

} // namespace

namespace k52app {

SyslogStreamBuffer::SyslogStreamBuffer(const char* ident, SyslogSeverity severity,
                                       SyslogFacility facility)
    : severity_(severity), facility_(facility), devMode_(false)
{
    ::openlog(ident, LOG_PID, priority(severity, facility));
}

SyslogStreamBuffer::~SyslogStreamBuffer() { ::closelog(); }

SyslogStreamBuffer::int_type SyslogStreamBuffer::overflow(int_type ch)
{
    if (traits_type::eq_int_type(ch, traits_type::eof()))
        return ch;
    record_.put(traits_type::to_char_type(ch));
    return ch;
}

int SyslogStreamBuffer::sync()
{
    std::string text = record_.str();
    ::syslog(priority(severity_.load(), facility_.load()), "%s", text.c_str());
    record_.str({});
    return 0;
}

// The reopen passes no ident, so later records carry the C library's default ident.
void SyslogStreamBuffer::reopen()
{
    ::closelog();
    ::openlog(nullptr, LOG_PID, priority(severity_.load(), facility_.load()));
}

void SyslogStreamBuffer::setSeverity(SyslogSeverity severity)
{
    severity_ = severity;
    reopen();
}

void SyslogStreamBuffer::setFacility(SyslogFacility facility)
{
    facility_ = facility;
    reopen();
}

SyslogStream::SyslogStream(const char* ident, SyslogSeverity severity, SyslogFacility facility)
    : std::ostream(nullptr), buffer_(ident, severity, facility)
{
    rdbuf(&buffer_);
}

SyslogStream::~SyslogStream() { rdbuf(nullptr); }

SyslogStream& SyslogStream::operator<<(SyslogSeverity severity)
{
    buffer_.setSeverity(severity);
    return *this;
}

SyslogStream& SyslogStream::operator<<(SyslogFacility facility)
{
    buffer_.setFacility(facility);
    return *this;
}

SyslogStream& SyslogStream::operator<<(std::ios_base& (*manipulator)(std::ios_base&))
{
    manipulator(*this);
    return *this;
}

SyslogStream log("k52app", info, user);

} // namespace k52app
