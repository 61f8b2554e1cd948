#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace utils {

// Reads and writes images as binary PGM (P5, grey) and PPM (P6, RGB) with 8-bit samples: the
// simplest formats every image tool opens, so a client can look at what it received.
class ImageSerializer {
public:
    struct ImageData {
        uint32_t width = 0;
        uint32_t height = 0;
        uint32_t channels = 0;       // 1: grey, 3: RGB
        std::vector<uint8_t> pixels; // rows top to bottom, channels interleaved, no padding

        size_t bytesPerLine() const { return size_t(width) * channels; }
    };

    // Parses one image. Samples with a maximum value below 255 are kept as they are, not
    // rescaled. Bytes after the image are ignored. Throws UtilsRuntimeError naming `name`
    // and the fault for anything else (other formats, 16-bit samples, a truncated image).
    static ImageData decode(const uint8_t* data, size_t length, const std::string& name);
    // decode() of a whole file; IOError when it cannot be read.
    static ImageData read(const std::string& path);

    // The image as P5 (1 channel) or P6 (3 channels). Throws UtilsRuntimeError when the pixel
    // count does not match the size or the channel count is neither.
    static std::vector<uint8_t> encode(const ImageData& image);
    // encode() into a file; IOError when it cannot be written.
    static void write(const std::string& path, const ImageData& image);
};

} // namespace utils
