#pragma once

#include <functional>
#include <string>

namespace k52app {

// Writes one debug record; handed to drivers that report through a print function.
extern const std::function<void(const std::string&)> printFunc;

} // namespace k52app
