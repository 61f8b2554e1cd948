#pragma once

#include <string>
#include <vector>

namespace utils {

// True for an optionally signed run of decimal digits ("42", "-1", "+7"); false for "", "-",
// " 1", "1.5" or "0x10".
bool isNumericalString(const std::string& text);

// Path names matching a shell pattern, sorted; throws UtilsRuntimeError when nothing matches
// or the pattern cannot be expanded.
std::vector<std::string> findMatchingPattern(const std::string& pattern);

} // namespace utils
