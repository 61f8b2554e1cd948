#pragma once

#include "utils/base/crc.h"
#include "utils/base/exceptions.h"
#include "utils/container/xmlblock.h"
#include "utils/io/ioimxdataadapter.h"
#include "utils/io/iortudataadapter.h"
#include "utils/io/iov4l2frame.h"
#include "utils/wire/framing.h"

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <type_traits>

namespace utils {

// These layouts are laid out in place in files that other processes map: every member sits at
// a fixed offset, in the processor's native (little-endian) order, with no padding anywhere.

// One framed area: identifier, size including this 8-byte header, then the payload.
template <typename Payload>
struct SubContainer {
    uint32_t identifier;
    uint32_t size;
    Payload payload;
};

namespace detail {

// Sub-containers back to back, in declaration order.
template <typename First, typename... Rest>
struct SubContainerList {
    First first;
    SubContainerList<Rest...> rest;
};

template <typename Last>
struct SubContainerList<Last> {
    Last first;
};

template <std::size_t I, typename List>
constexpr auto& subContainerAt(List& list)
{
    if constexpr (I == 0)
        return list.first;
    else
        return subContainerAt<I - 1>(list.rest);
}

template <std::size_t I, typename First, typename... Rest>
constexpr std::size_t offsetInList()
{
    if constexpr (I == 0)
        return 0;
    else
        return sizeof(First) + offsetInList<I - 1, Rest...>();
}

} // namespace detail

// A container file: identifier, size of the whole file, the sub-containers, and a CRC-32 of
// everything before it in its last four bytes.
template <typename... SubContainers>
struct Container {
    static constexpr uint32_t seed = wire::checksumSeed;

    uint32_t identifier;
    uint32_t size;
    detail::SubContainerList<SubContainers...> subContainers;
    uint32_t checksum;

    template <std::size_t I>
    auto& subContainer()
    {
        return detail::subContainerAt<I>(subContainers);
    }
    template <std::size_t I>
    const auto& subContainer() const
    {
        return detail::subContainerAt<I>(subContainers);
    }

    // Where sub-container I starts in the file. Exact because the layout has no padding, which
    // hasNoPadding() proves: the members' sizes add up to the whole.
    template <std::size_t I>
    static constexpr std::size_t offsetOf()
    {
        return 2 * sizeof(uint32_t) + detail::offsetInList<I, SubContainers...>();
    }
    static constexpr bool hasNoPadding()
    {
        return sizeof(Container) == 3 * sizeof(uint32_t) + (sizeof(SubContainers) + ...) &&
               offsetof(Container, subContainers) == 2 * sizeof(uint32_t) &&
               offsetof(Container, checksum) == sizeof(Container) - sizeof(uint32_t);
    }

    // Recomputes the checksum over the size recorded at offset 4 minus the last four bytes and
    // stores it there, as every writer must after changing the container. Returns it.
    uint32_t updateChecksum()
    {
        if (size < 3 * sizeof(uint32_t) || size > sizeof(Container))
            throw UtilsOutOfRangeError("Container size field " + std::to_string(size) +
                                       " outside 12.." + std::to_string(sizeof(Container)));
        auto* bytes = reinterpret_cast<unsigned char*>(this);
        const uint32_t crc = CRCSum32(bytes, size - sizeof(uint32_t), seed);
        std::memcpy(bytes + size - sizeof(uint32_t), &crc, sizeof crc);
        return crc;
    }
};

// The XML container file: one sub-container holding the XML block.
using XMLContainer = Container<SubContainer<XmlContainerBlock>>;

// The general container file: device records and the latest frame.
using GeneralContainer = Container<SubContainer<IORTUDataAdapter>, SubContainer<IOIMXDataAdapter>,
                                   SubContainer<IOV4L2FrameMetadata>, SubContainer<IOV4L2FrameData>>;
// Indices for GeneralContainer::subContainer<I>().
struct GeneralSubContainer {
    enum : std::size_t { rtuData = 0, imxData = 1, frameMetadata = 2, frameData = 3 };
};

// Readers in other processes depend on these numbers.
static_assert(std::is_standard_layout_v<XMLContainer> && XMLContainer::hasNoPadding());
static_assert(sizeof(XMLContainer) == 229376);
static_assert(XMLContainer::offsetOf<0>() == 8);
static_assert(sizeof(SubContainer<XmlContainerBlock>) == 229364);
static_assert(offsetof(SubContainer<XmlContainerBlock>, payload) == 8);
static_assert(offsetof(XMLContainer, checksum) == 229372);

static_assert(std::is_standard_layout_v<GeneralContainer> && GeneralContainer::hasNoPadding());
static_assert(sizeof(GeneralContainer) == 50333896);
static_assert(GeneralContainer::offsetOf<GeneralSubContainer::rtuData>() == 8);
static_assert(GeneralContainer::offsetOf<GeneralSubContainer::imxData>() == 2152);
static_assert(GeneralContainer::offsetOf<GeneralSubContainer::frameMetadata>() == 2216);
static_assert(GeneralContainer::offsetOf<GeneralSubContainer::frameData>() == 2236);
static_assert(sizeof(SubContainer<IORTUDataAdapter>) == 2144);
static_assert(sizeof(SubContainer<IOIMXDataAdapter>) == 64);
static_assert(sizeof(SubContainer<IOV4L2FrameMetadata>) == 20);
static_assert(sizeof(SubContainer<IOV4L2FrameData>) == 50331656);
static_assert(offsetof(GeneralContainer, checksum) == 50333892);

} // namespace utils
