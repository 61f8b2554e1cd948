#include "utils/base/exceptions.h"
#include "utils/io/imageserializer.h"
#include "utils/io/staticframes.h"

#include <gtest/gtest.h>

#include <stdlib.h>

#include <array>
#include <filesystem>
#include <fstream>

using utils::ImageSerializer;
using utils::StaticFrames;

namespace {

class TempDirectory {
public:
    TempDirectory()
    {
        char pattern[] = "/tmp/k52-frames-XXXXXX";
        path_ = ::mkdtemp(pattern);
    }
    ~TempDirectory() { std::filesystem::remove_all(path_); }
    const std::filesystem::path& path() const { return path_; }

    void write(const std::string& name, const std::string& bytes) const
    {
        std::ofstream(path_ / name, std::ios::binary) << bytes;
    }

private:
    std::filesystem::path path_;
};

uint8_t at(const ImageSerializer::ImageData& image, uint32_t x, uint32_t y, uint32_t channel = 0)
{
    return image.pixels.at((size_t(y) * image.width + x) * image.channels + channel);
}

// Loading `path` must fail with every one of `texts` in the message.
void expectRefused(const std::filesystem::path& path, std::initializer_list<std::string> texts)
{
    try {
        StaticFrames frames(path);
        ADD_FAILURE() << path << " loaded";
    } catch (const utils::UtilsRuntimeError& error) {
        for (const auto& text : texts)
            EXPECT_NE(std::string(error.what()).find(text), std::string::npos) << error.what();
    }
}

} // namespace

TEST(StaticFrames, LoadsTheShippedFrames)
{
    StaticFrames loaded(K52_SOURCE_DIR "/etc/static-frames");
    auto frames = loaded.takeFrames();
    EXPECT_TRUE(loaded.frames().empty()) << "taken over";
    ASSERT_EQ(frames.size(), 3u);

    const auto& gradient = *frames.at("gradient-640x480.pgm");
    EXPECT_EQ(gradient.width, 640u);
    EXPECT_EQ(gradient.height, 480u);
    EXPECT_EQ(gradient.channels, 1u);
    EXPECT_EQ(at(gradient, 0, 0), 0);
    EXPECT_EQ(at(gradient, 639, 479), 255);

    const auto& checkerboard = *frames.at("checkerboard-1456x1088.pgm");
    EXPECT_EQ(checkerboard.pixels.size(), 1456u * 1088u);
    EXPECT_EQ(at(checkerboard, 0, 0), 255);
    EXPECT_EQ(at(checkerboard, 64, 0), 0);
    EXPECT_EQ(at(checkerboard, 0, 64), 0);
    EXPECT_EQ(at(checkerboard, 1455, 1087), 255) << "square (22, 16), like (0, 0)";

    const auto& bars = *frames.at("colourbars-320x240.ppm");
    EXPECT_EQ(bars.channels, 3u);
    EXPECT_EQ(bars.bytesPerLine(), 960u);
    // Sixth of eight bars: red.
    EXPECT_EQ((std::array{at(bars, 200, 100, 0), at(bars, 200, 100, 1), at(bars, 200, 100, 2)}),
              (std::array<uint8_t, 3>{255, 0, 0}));
}

TEST(StaticFrames, MalformedImagesAreRefusedByName)
{
    struct Case {
        const char* name;
        std::string bytes;
        std::string expectedText;
    };
    const std::vector<Case> cases = {
        {"ascii.pgm", "P2\n2 1\n255\n0 1\n", "P5"},
        {"sixteen-bit.pgm", "P5\n1 1\n65535\n\x01\x02", "maximum value 65535"},
        {"truncated.ppm", "P6\n2 2\n255\n" + std::string(11, 'x'), "11 of 12"},
        {"empty.pgm", "P5\n0 4\n255\n", "no pixels"},
        {"no-height.pgm", "P5\n4\n", "no height"},
        {"glued.pgm", "P5 1 1 255", "no whitespace"},
        {"huge.pgm", "P5\n99999999 1\n255\n", "too large"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        TempDirectory directory;
        directory.write("good.pgm", "P5\n1 1\n255\nx");
        directory.write(c.name, c.bytes);
        expectRefused(directory.path(), {c.name, c.expectedText});
    }
}

TEST(StaticFrames, ReadsWhatImageToolsWriteAndSkipsOtherFiles)
{
    TempDirectory directory;
    // A comment in the header, a maximum below 255 (kept raw) and a second image after it.
    directory.write("commented.PGM", "P5\n# made by hand\n3 1 # width height\n100\n\x01\x02\x03"
                                     "P5\n1 1\n255\n\xff");
    directory.write("README.txt", "not an image");
    directory.write(".hidden.pgm", "garbage");
    std::filesystem::create_directory(directory.path() / "nested.ppm");

    StaticFrames loaded(directory.path());
    ASSERT_EQ(loaded.frames().size(), 1u);
    const auto& image = *loaded.frames().at("commented.PGM");
    EXPECT_EQ(image.width, 3u);
    EXPECT_EQ(image.pixels, (std::vector<uint8_t>{1, 2, 3}));
}

TEST(StaticFrames, MissingDirectoryIsAClearError)
{
    TempDirectory directory;
    directory.write("frame.pgm", "P5\n1 1\n255\nx");
    for (const auto& path : {directory.path() / "absent", directory.path() / "frame.pgm"})
        expectRefused(path, {path.string() + "' is not a directory"});
}

TEST(ImageSerializer, WritesWhatOtherToolsRead)
{
    TempDirectory directory;
    ImageSerializer::ImageData rgb{2, 1, 3, {1, 2, 3, 4, 5, 6}};
    const std::string expected = std::string("P6\n2 1\n255\n") + "\x01\x02\x03\x04\x05\x06";
    auto encoded = ImageSerializer::encode(rgb);
    EXPECT_EQ(std::string(encoded.begin(), encoded.end()), expected);

    const auto file = (directory.path() / "out.ppm").string();
    ImageSerializer::write(file, rgb);
    auto back = ImageSerializer::read(file);
    EXPECT_EQ(back.pixels, rgb.pixels);
    EXPECT_EQ(back.channels, 3u);

    EXPECT_THROW(ImageSerializer::encode({2, 2, 1, {1, 2, 3}}), utils::UtilsRuntimeError);
    EXPECT_THROW(ImageSerializer::encode({1, 1, 2, {1, 2}}), utils::UtilsRuntimeError);
    EXPECT_THROW(ImageSerializer::write((directory.path() / "no/such/dir.pgm").string(),
                                        {1, 1, 1, {0}}),
                 utils::IOError);
}
