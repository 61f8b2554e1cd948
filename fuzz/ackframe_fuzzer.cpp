// The decoder of acknowledgement frames and of the notice text inside them.
#include "client/notice.h"

#include <cstddef>
#include <cstdint>
#include <stdexcept>
#include <string_view>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    std::string_view frame(reinterpret_cast<const char*>(data), size);
    try {
        auto notice = k52client::parseNotice(k52client::unpackFrame(frame));
        if (notice && notice->isAcknowledgement()) {
            notice->status();
            notice->reply();
        }
    } catch (const std::runtime_error&) {
    }
    // The text alone, as a client meets it after its own framing.
    if (auto notice = k52client::parseNotice(frame)) {
        notice->status();
        notice->reply();
    }
    return 0;
}
