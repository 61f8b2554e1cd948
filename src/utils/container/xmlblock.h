#pragma once

#include <cstddef>
#include <type_traits>

namespace utils {

// N bytes of XML text as other processes read it straight from a mapped file: the document from
// the first byte, then at least one zero byte, and zero up to the end. No header and no checksum:
// the container that holds the block keeps those.
template <std::size_t N>
struct XmlBlock {
    static constexpr std::size_t size = N;
    char text[N];
};

// The one block size in use: the XML container's payload.
inline constexpr std::size_t xmlContainerBlockSize = 229356;
using XmlContainerBlock = XmlBlock<xmlContainerBlockSize>;

static_assert(sizeof(XmlContainerBlock) == xmlContainerBlockSize);
static_assert(std::is_standard_layout_v<XmlContainerBlock> &&
              std::is_trivially_copyable_v<XmlContainerBlock>);

} // namespace utils
