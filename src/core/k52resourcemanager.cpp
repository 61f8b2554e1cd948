#include "k52app/logrecord.h"
#include "k52app/printfunc.h"

namespace k52app {

const std::function<void(const std::string&)> printFunc = [](const std::string& text) {
    K52_LOG(debug) << text;
};

} // namespace k52app
