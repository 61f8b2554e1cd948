#pragma once

#include "support/tempdir.h"

#include <cstdint>
#include <map>
#include <optional>
#include <string>

namespace k52test {

// A port nobody listens on right now (bound and released at once).
uint16_t freePort();

// The example emulated-board configuration made private to one test: its own container
// directory and free ports, absolute paths to the shipped static frames and firmware, and any
// overrides (a key mapped to nullopt is removed).
class EmulatedConfig {
public:
    using Overrides = std::map<std::string, std::optional<std::string>>;

    explicit EmulatedConfig(const Overrides& overrides = {});

    const std::string& path() const { return path_; }
    std::string containerDir() const { return dir_.path() + "/containers/"; }
    const std::map<std::string, std::string>& values() const { return values_; }
    // 0 when the configuration names no port.
    uint16_t controlPort() const;
    uint16_t streamPort() const;
    const TempDir& dir() const { return dir_; }

private:
    TempDir dir_;
    std::map<std::string, std::string> values_;
    std::string path_;
};

} // namespace k52test
