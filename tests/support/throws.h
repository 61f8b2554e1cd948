#pragma once

#include <gmock/gmock.h>

#include <string>

namespace k52test {

// Matches a callable that throws E (or a subclass) whose message contains every one of
// `texts`: EXPECT_THAT([&] { device.read(); }, throwsWith<utils::IOError>("/dev/x", "busy"));
template <typename E, typename... Texts>
auto throwsWith(const Texts&... texts)
{
    static_assert(sizeof...(texts) > 0, "name at least one text the message must contain");
    return testing::ThrowsMessage<E>(testing::AllOf(testing::HasSubstr(std::string(texts))...));
}

} // namespace k52test
