#include "utils/base/strings.h"

#include "utils/base/exceptions.h"

#include <glob.h>

#include <memory>

namespace utils {

bool isNumericalString(const std::string& text)
{
    size_t start = (!text.empty() && (text[0] == '-' || text[0] == '+')) ? 1 : 0;
    if (start == text.size())
        return false;
    for (size_t i = start; i < text.size(); ++i) {
        if (text[i] < '0' || text[i] > '9')
            return false;
    }
    return true;
}

std::vector<std::string> findMatchingPattern(const std::string& pattern)
{
    glob_t matches{};
    std::unique_ptr<glob_t, decltype(&globfree)> owner(&matches, &globfree);
    int rc = ::glob(pattern.c_str(), 0, nullptr, &matches);
    if (rc == GLOB_NOMATCH)
        throw UtilsRuntimeError("No path matches the pattern '" + pattern + "'.");
    if (rc != 0)
        throw UtilsRuntimeError("Unable to expand the pattern '" + pattern + "'.");
    return {matches.gl_pathv, matches.gl_pathv + matches.gl_pathc};
}

} // namespace utils
