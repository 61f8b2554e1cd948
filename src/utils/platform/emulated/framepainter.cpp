#include "utils/platform/emulated/framepainter.h"

#include <algorithm>
#include <cmath>

namespace utils::platform::emulated::sensor {

namespace {

// 5x7 digits, one row per byte, most significant of the five bits on the left.
constexpr uint8_t digitGlyphs[10][7] = {
    {0x0e, 0x11, 0x13, 0x15, 0x19, 0x11, 0x0e}, {0x04, 0x0c, 0x04, 0x04, 0x04, 0x04, 0x0e},
    {0x0e, 0x11, 0x01, 0x02, 0x04, 0x08, 0x1f}, {0x1f, 0x02, 0x04, 0x02, 0x01, 0x11, 0x0e},
    {0x02, 0x06, 0x0a, 0x12, 0x1f, 0x02, 0x02}, {0x1f, 0x10, 0x1e, 0x01, 0x01, 0x11, 0x0e},
    {0x06, 0x08, 0x10, 0x1e, 0x11, 0x11, 0x0e}, {0x1f, 0x01, 0x02, 0x04, 0x08, 0x08, 0x08},
    {0x0e, 0x11, 0x11, 0x0e, 0x11, 0x11, 0x0e}, {0x0e, 0x11, 0x11, 0x0f, 0x01, 0x02, 0x0c},
};
constexpr uint32_t counterDigits = 10;

} // namespace

void FramePainter::prepare(const SceneKey& key)
{
    if (version_ != 0 && key == key_)
        return;
    key_ = key;
    version_ = nextVersion_.fetch_add(1);
    renderScene();
}

void FramePainter::paint(BufferMemory& memory, uint32_t counter)
{
    const auto& pix = key_.pix;
    if (memory.paintedVersion != version_) {
        std::memcpy(memory.bytes.get(), scene_.data(), pix.sizeimage);
        memory.paintedVersion = version_;
    } else {
        restore(memory, memory.markerX, memory.markerY, memory.markerSize);
    }
    drawMarker(memory, counter);
    drawCounter(memory.bytes.get(), counter);
}

std::array<uint8_t, 3> FramePainter::sceneColor(int64_t sx, int64_t sy) const
{
    if (sx < 0 || sy < 0 || sx >= sensorWidth || sy >= sensorHeight)
        return {0, 0, 0};
    switch (key_.pattern) {
    case colorBars: {
        static constexpr uint8_t bars[8][3] = {{255, 255, 255}, {255, 255, 0}, {0, 255, 255},
                                               {0, 255, 0},     {255, 0, 255}, {255, 0, 0},
                                               {0, 0, 255},     {0, 0, 0}};
        const auto* bar = bars[sx * 8 / sensorWidth];
        return {bar[0], bar[1], bar[2]};
    }
    case checkerboard: {
        uint8_t level = ((sx / 128 + sy / 128) & 1) ? 224 : 32;
        return {level, level, level};
    }
    case flatField:
        return {128, 128, 128};
    default: { // gradient with a grid every 256 sensor pixels, so crop and ROI show
        if (sx % 256 < 4 || sy % 256 < 4)
            return {255, 255, 255};
        auto r = static_cast<uint8_t>(sx * 255 / (sensorWidth - 1));
        auto g = static_cast<uint8_t>(sy * 255 / (sensorHeight - 1));
        return {r, g, static_cast<uint8_t>(255 - (r + g) / 2)};
    }
    }
}

void FramePainter::renderScene()
{
    const auto& pix = key_.pix;
    const uint32_t ch = channels();
    scene_.assign(pix.sizeimage, 0); // padding bytes stay 0

    // Exposure, gain and brightness act on the light reaching the pixels: one tone curve.
    std::array<uint8_t, 256> tone{};
    const double factor = double(key_.exposureUs) / nominalExposureUs *
                          std::pow(10.0, key_.gain / 20.0);
    for (int level = 0; level < 256; ++level) {
        long value = std::lround(level * factor) + key_.brightness;
        tone[level] = static_cast<uint8_t>(std::clamp(value, 0L, 255L));
    }

    std::vector<int64_t> columnToSensor(pix.width);
    for (uint32_t x = 0; x < pix.width; ++x) {
        uint32_t from = key_.hflip ? pix.width - 1 - x : x;
        columnToSensor[x] =
            key_.crop.left + key_.roiX + int64_t(from) * key_.crop.width / pix.width;
    }
    for (uint32_t y = 0; y < pix.height; ++y) {
        uint32_t from = key_.vflip ? pix.height - 1 - y : y;
        int64_t sy = key_.crop.top + key_.roiY + int64_t(from) * key_.crop.height / pix.height;
        uint8_t* row = scene_.data() + size_t(y) * pix.bytesperline;
        for (uint32_t x = 0; x < pix.width; ++x) {
            auto rgb = sceneColor(columnToSensor[x], sy);
            if (ch == 1) {
                row[x] = tone[(299 * rgb[0] + 587 * rgb[1] + 114 * rgb[2]) / 1000];
            } else {
                row[3 * x] = tone[rgb[0]];
                row[3 * x + 1] = tone[rgb[1]];
                row[3 * x + 2] = tone[rgb[2]];
            }
        }
    }
}

void FramePainter::restore(BufferMemory& memory, uint32_t x, uint32_t y, uint32_t size) const
{
    const auto& pix = key_.pix;
    const uint32_t ch = channels();
    for (uint32_t row = y; row < y + size; ++row) {
        size_t offset = size_t(row) * pix.bytesperline + size_t(x) * ch;
        std::memcpy(memory.bytes.get() + offset, scene_.data() + offset, size_t(size) * ch);
    }
}

void FramePainter::drawMarker(BufferMemory& memory, uint32_t counter) const
{
    const auto& pix = key_.pix;
    const uint32_t ch = channels();
    const uint32_t size = std::max(1u, pix.height / 16);
    const uint32_t travel = pix.width - size;
    const uint32_t step = std::max(1u, pix.width / 128);
    const uint32_t position = uint32_t((uint64_t(counter) * step) % (2 * uint64_t(travel)));
    const uint32_t x = position < travel ? position : 2 * travel - position;
    const uint32_t y = (pix.height - size) / 2;
    for (uint32_t row = y; row < y + size; ++row)
        std::memset(memory.bytes.get() + size_t(row) * pix.bytesperline + size_t(x) * ch, 255,
                    size_t(size) * ch);
    memory.markerX = x;
    memory.markerY = y;
    memory.markerSize = size;
}

void FramePainter::drawCounter(uint8_t* frame, uint32_t counter) const
{
    const auto& pix = key_.pix;
    const uint32_t ch = channels();
    const uint32_t scale = std::max(1u, pix.width / 480);
    const uint32_t boxWidth = (counterDigits * 6 + 2) * scale;
    const uint32_t boxHeight = (7 + 4) * scale;
    for (uint32_t row = 0; row < boxHeight; ++row)
        std::memset(frame + size_t(row) * pix.bytesperline, 0, size_t(boxWidth) * ch);

    uint32_t rest = counter;
    for (int digit = counterDigits - 1; digit >= 0; --digit, rest /= 10) {
        const uint8_t* glyph = digitGlyphs[rest % 10];
        const uint32_t left = (1 + digit * 6) * scale;
        for (uint32_t gy = 0; gy < 7; ++gy) {
            for (uint32_t gx = 0; gx < 5; ++gx) {
                if (!(glyph[gy] & (0x10 >> gx)))
                    continue;
                for (uint32_t dy = 0; dy < scale; ++dy) {
                    uint8_t* at = frame + size_t((2 + gy) * scale + dy) * pix.bytesperline +
                                  size_t(left + gx * scale) * ch;
                    std::memset(at, 255, size_t(scale) * ch);
                }
            }
        }
    }

    const uint32_t words[2] = {counter, ~counter};
    for (int i = 0; i < 8; ++i)
        frame[i] = static_cast<uint8_t>(words[i / 4] >> (8 * (i % 4)));
}

} // namespace utils::platform::emulated::sensor
