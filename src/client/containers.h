#pragma once

#include "utils/wire/containerheader.h"

#include <cstdint>
#include <string>

namespace k52client {

// What a reader finds in one of the daemon's container files.
struct ContainerReport : utils::wire::ContainerCheck {
    std::string path;
    uint64_t fileSize = 0;
};

// Maps the file read-only and checks its framing and checksum; throws std::runtime_error when
// the file cannot be opened or mapped.
ContainerReport inspectContainer(const std::string& path);

constexpr const char* xmlContainerName = "k52XMLContainer";
constexpr const char* generalContainerName = "k52generalContainer";

} // namespace k52client
