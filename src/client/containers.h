#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace k52client {

// What a reader finds in one of the daemon's container files.
struct ContainerReport {
    std::string path;
    uint64_t fileSize = 0;
    uint32_t identifier = 0;
    uint32_t size = 0;             // the size word at offset 4
    uint32_t storedChecksum = 0;   // the last four bytes of the file
    uint32_t computedChecksum = 0; // CRC-32 over all bytes before them
    struct SubContainer {
        uint64_t offset;
        uint32_t identifier;
        uint32_t size;
    };
    std::vector<SubContainer> subContainers;
    std::vector<std::string> problems; // empty when the file is consistent

    bool ok() const { return problems.empty(); }
};

// Maps the file read-only and checks its framing and checksum; throws std::runtime_error when
// the file cannot be opened or mapped.
ContainerReport inspectContainer(const std::string& path);

constexpr const char* xmlContainerName = "k52XMLContainer";
constexpr const char* generalContainerName = "k52generalContainer";

} // namespace k52client
