#include "utils/io/staticframes.h"

#include "utils/base/exceptions.h"

#include <algorithm>
#include <cctype>
#include <filesystem>

namespace utils {

namespace {

bool isImageFile(const std::filesystem::directory_entry& entry)
{
    const std::string name = entry.path().filename().string();
    if (name.empty() || name[0] == '.' || !entry.is_regular_file())
        return false;
    std::string extension = entry.path().extension().string();
    std::transform(extension.begin(), extension.end(), extension.begin(),
                   [](unsigned char c) { return char(std::tolower(c)); });
    return extension == ".pgm" || extension == ".ppm";
}

} // namespace

StaticFrames::StaticFrames(const std::string& directory)
{
    std::error_code error;
    if (!std::filesystem::is_directory(directory, error))
        throw UtilsRuntimeError("StaticFrames: '" + directory + "' is not a directory of images.");
    std::filesystem::directory_iterator entries(directory, error);
    if (error)
        throw IOError("StaticFrames: unable to list '" + directory + "': " + error.message());
    for (const auto& entry : entries) {
        if (!isImageFile(entry))
            continue;
        auto image = ImageSerializer::read(entry.path().string());
        frames_[entry.path().filename().string()] =
            std::make_unique<ImageSerializer::ImageData>(std::move(image));
    }
}

} // namespace utils
