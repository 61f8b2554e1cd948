#pragma once

#include "utils/io/imageserializer.h"

#include <map>
#include <memory>
#include <string>

namespace utils {

// The fixed images a camera without a sensor can still serve: every .pgm and .ppm file of one
// directory (other files, subdirectories and hidden files are left alone), loaded once and
// keyed by file name.
class StaticFrames {
public:
    using Frames = std::map<std::string, std::unique_ptr<ImageSerializer::ImageData>>;

    // Loads the directory's images. Throws UtilsRuntimeError when `directory` is not a
    // directory or one of its images is malformed (naming the file), IOError when a file
    // cannot be read. One bad file fails the whole load: a frame set is shipped as a whole.
    explicit StaticFrames(const std::string& directory);

    const Frames& frames() const { return frames_; }
    // Hands the images over; afterwards this object holds none.
    Frames takeFrames() { return std::move(frames_); }

private:
    Frames frames_;
};

} // namespace utils
