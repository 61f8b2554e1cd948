#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

// The container files: magic, size, sub-containers back to back (identifier, size including
// these 8 bytes, payload), and a checksum of everything before it in the last four bytes.
namespace utils::wire {

inline constexpr uint32_t xmlSubContainerId = 0x052A0201;
inline constexpr uint32_t rtuSubContainerId = 0x0510F000;
inline constexpr uint32_t imxSubContainerId = 0x0510F001;
inline constexpr uint32_t frameMetadataSubContainerId = 0x051A0801;
inline constexpr uint32_t frameDataSubContainerId = 0x051A0601;

// What a reader finds in a container; `problems` is empty when it is consistent.
struct ContainerCheck {
    uint32_t identifier = 0;
    uint32_t size = 0;             // the size word at offset 4
    uint32_t storedChecksum = 0;   // the four bytes after the used part
    uint32_t computedChecksum = 0; // CRC-32 over all bytes before them
    struct SubContainer {
        uint64_t offset;
        uint32_t identifier;
        uint32_t size;
    };
    std::vector<SubContainer> subContainers;
    std::vector<std::string> problems;

    bool ok() const { return problems.empty(); }
};

// Checks the framing and checksum of `length` bytes of a container as mapped from its file.
ContainerCheck checkContainer(const uint8_t* bytes, size_t length);

} // namespace utils::wire
