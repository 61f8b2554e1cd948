#include "utils/io/imageserializer.h"

#include "utils/base/exceptions.h"

#include <cctype>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <iterator>

namespace utils {

namespace {

// Walks the text header: numbers separated by whitespace, with '#' comments to the line end.
class HeaderReader {
public:
    HeaderReader(const uint8_t* data, size_t length, const std::string& name)
        : data_(data), length_(length), name_(name)
    {
    }

    [[noreturn]] void reject(const std::string& fault) const
    {
        throw UtilsRuntimeError("ImageSerializer: '" + name_ + "' is not a usable PGM/PPM image: " +
                                fault + ".");
    }

    uint32_t number(const char* what)
    {
        skipSpaceAndComments();
        uint64_t value = 0;
        size_t start = position_;
        while (position_ < length_ && std::isdigit(data_[position_])) {
            value = value * 10 + (data_[position_++] - '0');
            if (value > 0xFFFF)
                reject(std::string(what) + " is too large");
        }
        if (position_ == start)
            reject(std::string("no ") + what);
        return static_cast<uint32_t>(value);
    }

    // Exactly one whitespace byte separates the header from the samples.
    size_t endOfHeader()
    {
        if (position_ >= length_ || !std::isspace(data_[position_]))
            reject("no whitespace after the header");
        return position_ + 1;
    }

private:
    void skipSpaceAndComments()
    {
        while (position_ < length_) {
            if (data_[position_] == '#') {
                while (position_ < length_ && data_[position_] != '\n')
                    ++position_;
            } else if (std::isspace(data_[position_])) {
                ++position_;
            } else {
                break;
            }
        }
    }

    const uint8_t* data_;
    size_t length_;
    const std::string& name_;
    size_t position_ = 2; // after the magic
};

} // namespace

ImageSerializer::ImageData ImageSerializer::decode(const uint8_t* data, size_t length,
                                                   const std::string& name)
{
    HeaderReader header(data, length, name);
    if (length < 2 || data[0] != 'P' || (data[1] != '5' && data[1] != '6'))
        header.reject("it does not start with P5 (grey) or P6 (RGB)");
    ImageData image;
    image.channels = data[1] == '5' ? 1 : 3;
    image.width = header.number("width");
    image.height = header.number("height");
    uint32_t maximum = header.number("maximum value");
    if (image.width == 0 || image.height == 0)
        header.reject("it has no pixels");
    if (maximum == 0 || maximum > 255)
        header.reject("the maximum value " + std::to_string(maximum) + " is not 8-bit");
    size_t start = header.endOfHeader();
    size_t size = size_t(image.width) * image.height * image.channels;
    if (length - start < size)
        header.reject("it holds " + std::to_string(length - start) + " of " +
                      std::to_string(size) + " sample bytes");
    image.pixels.assign(data + start, data + start + size);
    return image;
}

ImageSerializer::ImageData ImageSerializer::read(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    if (!in)
        throw IOError("ImageSerializer: unable to open '" + path + "': " + std::strerror(errno));
    std::vector<uint8_t> bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    if (in.bad())
        throw IOError("ImageSerializer: unable to read '" + path + "'.");
    return decode(bytes.data(), bytes.size(), path);
}

std::vector<uint8_t> ImageSerializer::encode(const ImageData& image)
{
    if (image.channels != 1 && image.channels != 3)
        throw UtilsRuntimeError("ImageSerializer: " + std::to_string(image.channels) +
                                " channels cannot be written as PGM/PPM (1 or 3).");
    if (image.pixels.size() != image.bytesPerLine() * image.height)
        throw UtilsRuntimeError("ImageSerializer: " + std::to_string(image.pixels.size()) +
                                " pixel bytes do not make a " + std::to_string(image.width) + "x" +
                                std::to_string(image.height) + " image.");
    const std::string header = std::string(image.channels == 1 ? "P5" : "P6") + "\n" +
                               std::to_string(image.width) + " " + std::to_string(image.height) +
                               "\n255\n";
    std::vector<uint8_t> bytes(header.begin(), header.end());
    bytes.insert(bytes.end(), image.pixels.begin(), image.pixels.end());
    return bytes;
}

void ImageSerializer::write(const std::string& path, const ImageData& image)
{
    std::vector<uint8_t> bytes = encode(image);
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(reinterpret_cast<const char*>(bytes.data()), std::streamsize(bytes.size()));
    out.close();
    if (!out)
        throw IOError("ImageSerializer: unable to write '" + path + "': " + std::strerror(errno));
}

} // namespace utils
