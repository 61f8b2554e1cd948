#pragma once

#include <atomic>
#include <cstdint>

namespace k52app {

class K52ResourceManager;

// Turns the image sensor into a frame source: acquisition, snapshots into the general
// container, streaming to the stream client.
class Capture {
public:
    explicit Capture(K52ResourceManager& resources);

    // Ends a running stream after its current frame; harmless when no stream runs.
    void streamStop();
    bool isStreaming() const { return streaming_.load(); }

private:
    K52ResourceManager* resources_;
    std::atomic<uint8_t> streaming_{0};
};

} // namespace k52app
