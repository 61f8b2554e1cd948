#pragma once

#include "utils/log/syslogstream.h"

#include <cstdint>
#include <mutex>
#include <string>

namespace k52app {

// One log record: holds the log mutex from construction to destruction, starts with the
// severity and the "[file:line:function] " prefix and, unless told otherwise, ends with the
// end-of-line that sends it. Use through K52_LOG / K52_LOG_UNFLUSHED.
class LogRecord {
public:
    enum class Ending { flush, keepInBuffer };

    LogRecord(SyslogSeverity severity, const char* file, int line, const char* function,
              Ending ending = Ending::flush);
    ~LogRecord();
    LogRecord(const LogRecord&) = delete;
    LogRecord& operator=(const LogRecord&) = delete;

    template <typename T>
    LogRecord& operator<<(const T& value)
    {
        static_cast<std::ostream&>(log) << value;
        return *this;
    }
    LogRecord& operator<<(std::ios_base& (*manipulator)(std::ios_base&));

private:
    std::lock_guard<std::mutex> lock_;
    Ending ending_;
};

// "0x" and eight lower-case, zero-padded hexadecimal digits: how the log prints a 32-bit value.
std::string hex32(uint32_t value);

} // namespace k52app

#define K52_LOG(severity) ::k52app::LogRecord(::k52app::severity, __FILE__, __LINE__, __func__)
// A record left in the stream's buffer: it becomes the head of the next flushed record.
#define K52_LOG_UNFLUSHED(severity)                                                            \
    ::k52app::LogRecord(::k52app::severity, __FILE__, __LINE__, __func__,                      \
                        ::k52app::LogRecord::Ending::keepInBuffer)
