#pragma once

#include "utils/platform/emulated/sensorformats.h"

#include <array>
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <type_traits>
#include <vector>

namespace utils::platform::emulated::sensor {

inline constexpr uint32_t pageSize = 4096;

// Device memory behind one buffer. It outlives the queue while a descriptor still maps it,
// and remembers what was painted into it so that the next frame only touches what changes.
struct BufferMemory {
    struct Free {
        void operator()(uint8_t* bytes) const { std::free(bytes); }
    };
    explicit BufferMemory(size_t length)
        : bytes(static_cast<uint8_t*>(std::aligned_alloc(pageSize, length))), size(length)
    {
        if (!bytes)
            throw std::bad_alloc();
        std::memset(bytes.get(), 0, size);
    }

    std::unique_ptr<uint8_t, Free> bytes;
    size_t size;
    // Painter state, touched only by the producer.
    uint64_t paintedVersion = 0;
    uint32_t markerX = 0, markerY = 0, markerSize = 0;
};

// Everything that decides what the static part of a frame looks like.
struct SceneKey {
    v4l2_pix_format pix{};
    v4l2_rect crop{};
    int32_t roiX = 0, roiY = 0;
    uint32_t exposureUs = nominalExposureUs;
    int32_t brightness = 0, gain = 0, hflip = 0, vflip = 0, pattern = gradient;

    bool operator==(const SceneKey& other) const
    {
        return std::memcmp(this, &other, sizeof(SceneKey)) == 0;
    }
};
static_assert(std::has_unique_object_representations_v<SceneKey>); // memcmp is equality

// Paints frames: a static scene computed once per SceneKey, then per frame a moving marker and
// the frame counter on top, restoring only what the buffer's previous frame changed.
class FramePainter {
public:
    // Renders the static scene again only when `key` differs from the last one.
    void prepare(const SceneKey& key);
    void paint(BufferMemory& memory, uint32_t counter);

private:
    uint32_t channels() const { return findFormat(key_.pix.pixelformat)->channels; }

    std::array<uint8_t, 3> sceneColor(int64_t sx, int64_t sy) const;
    void renderScene();
    void restore(BufferMemory& memory, uint32_t x, uint32_t y, uint32_t size) const;

    // A white square bouncing left and right through the middle band of the frame.
    void drawMarker(BufferMemory& memory, uint32_t counter) const;

    // The counter in decimal, white on black in the top-left corner, and in binary in the
    // first bytes of the first row: the counter then its complement, little-endian.
    void drawCounter(uint8_t* frame, uint32_t counter) const;

    static inline std::atomic<uint64_t> nextVersion_{1};
    SceneKey key_;
    uint64_t version_ = 0;
    std::vector<uint8_t> scene_;
};

} // namespace utils::platform::emulated::sensor
