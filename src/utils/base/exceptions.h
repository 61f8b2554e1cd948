#pragma once

#include <exception>
#include <string>

namespace utils {

// Root of the support library's errors; every exception carries its own copy of the text.
class UtilsException : public std::exception {
public:
    explicit UtilsException(std::string message) : message_(std::move(message)) {}
    const char* what() const noexcept override { return message_.c_str(); }

private:
    std::string message_;
};

class UtilsError : public UtilsException {
public:
    using UtilsException::UtilsException;
};

class UtilsTimeoutException : public UtilsException {
public:
    using UtilsException::UtilsException;
};

class UtilsRuntimeError : public UtilsError {
public:
    using UtilsError::UtilsError;
};

class UtilsOutOfRangeError : public UtilsError {
public:
    using UtilsError::UtilsError;
};

class IOError : public UtilsError {
public:
    using UtilsError::UtilsError;
};

} // namespace utils
