#pragma once

#include "support/tempdir.h"

#include <cstdint>
#include <map>
#include <optional>
#include <string>

namespace k52test {

// True when the base configuration (K52_TEST_CONFIG) drives the real kernel (platform=linux).
bool onRealKernel();

// For tests that need what only the emulated board has (fault injection, the button file, its
// deterministic pattern): they skip, with the reason, on the real kernel.
#define K52_SKIP_ON_REAL_KERNEL(reason)                                                          \
    if (k52test::onRealKernel())                                                                 \
    GTEST_SKIP() << "needs the emulated board: " << (reason)

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
    uint16_t controlPort() const { return port("socket-ctrl"); }
    uint16_t streamPort() const { return port("socket-stream"); }
    const TempDir& dir() const { return dir_; }

private:
    uint16_t port(const char* key) const;

    TempDir dir_;
    std::map<std::string, std::string> values_;
    std::string path_;
};

} // namespace k52test
