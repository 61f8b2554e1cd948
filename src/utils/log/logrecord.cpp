#include "utils/log/logrecord.h"

#include <cstdio>
#include <ostream>

namespace k52app {

LogRecord::LogRecord(SyslogSeverity severity, const char* file, int line, const char* function,
                     Ending ending)
    : lock_(log.mutex), ending_(ending)
{
    log << severity;
    static_cast<std::ostream&>(log) << "[" << file << ":" << std::dec << line << ":" << function
                                    << "] ";
}

LogRecord::~LogRecord()
{
    if (ending_ == Ending::flush)
        static_cast<std::ostream&>(log) << std::endl;
}

LogRecord& LogRecord::operator<<(std::ios_base& (*manipulator)(std::ios_base&))
{
    log << manipulator;
    return *this;
}

std::string hex32(uint32_t value)
{
    char text[11];
    std::snprintf(text, sizeof text, "0x%08x", value);
    return text;
}

} // namespace k52app
