#include "support/tempdir.h"
#include "support/throws.h"
#include "utils/base/exceptions.h"
#include "utils/io/imageserializer.h"
#include "utils/io/staticframes.h"

#include <gtest/gtest.h>

#include <array>
#include <filesystem>

using k52test::throwsWith;
using utils::ImageSerializer;
using utils::StaticFrames;

namespace {

uint8_t at(const ImageSerializer::ImageData& image, uint32_t x, uint32_t y, uint32_t channel = 0)
{
    return image.pixels.at((size_t(y) * image.width + x) * image.channels + channel);
}

TEST(StaticFrames, LoadsTheShippedFrames)
{
    StaticFrames loaded(K52_SOURCE_DIR "/etc/static-frames");
    auto frames = loaded.takeFrames();
    EXPECT_TRUE(loaded.frames().empty()) << "taken over";
    ASSERT_EQ(frames.size(), 3u);
    const auto& gradient = *frames.at("gradient-640x480.pgm");
    EXPECT_EQ((std::array{gradient.width, gradient.height, gradient.channels}), (std::array{640u, 480u, 1u}));
    EXPECT_EQ(frames.at("checkerboard-1456x1088.pgm")->pixels.size(), 1456u * 1088u);
    const auto& bars = *frames.at("colourbars-320x240.ppm");
    EXPECT_EQ(bars.bytesPerLine(), 960u);
    // Sixth of eight bars: red.
    EXPECT_EQ((std::array{at(bars, 200, 100, 0), at(bars, 200, 100, 1), at(bars, 200, 100, 2)}),
              (std::array<uint8_t, 3>{255, 0, 0}));
}

// One bad file refuses the whole directory, naming the file and what is wrong with it.
TEST(StaticFrames, MalformedImagesAndMissingDirectoriesAreRefusedByName)
{
    const struct { const char* name; std::string bytes; const char* reason; } cases[] = {
        {"ascii.pgm", "P2\n2 1\n255\n0 1\n", "P5"},
        {"sixteen-bit.pgm", "P5\n1 1\n65535\n\x01\x02", "maximum value 65535"},
        {"truncated.ppm", "P6\n2 2\n255\n" + std::string(11, 'x'), "11 of 12"},
        {"empty.pgm", "P5\n0 4\n255\n", "no pixels"},
        {"no-height.pgm", "P5\n4\n", "no height"},
        {"glued.pgm", "P5 1 1 255", "no whitespace"},
        {"huge.pgm", "P5\n99999999 1\n255\n", "too large"},
    };
    for (const auto& c : cases) {
        k52test::TempDir directory;
        directory.writeFile("good.pgm", "P5\n1 1\n255\nx");
        directory.writeFile(c.name, c.bytes);
        EXPECT_THAT([&] { StaticFrames frames(directory.path()); }, throwsWith<utils::UtilsRuntimeError>(c.name, c.reason));
    }
    k52test::TempDir directory;
    for (const auto& path : {directory.file("absent"), directory.writeFile("frame.pgm", "P5\n1 1\n255\nx")})
        EXPECT_THAT([&] { StaticFrames frames(path); },
                    throwsWith<utils::UtilsRuntimeError>(path + "' is not a directory"));
}

TEST(StaticFrames, ReadsWhatImageToolsWriteAndSkipsOtherFiles)
{
    k52test::TempDir directory;
    // A comment in the header, a maximum below 255 (kept raw) and a second image after it.
    directory.writeFile("commented.PGM", "P5\n# made by hand\n3 1 # width height\n100\n\x01\x02\x03"
                                         "P5\n1 1\n255\n\xff");
    directory.writeFile("README.txt", "not an image");
    directory.writeFile(".hidden.pgm", "garbage");
    std::filesystem::create_directory(directory.file("nested.ppm"));

    StaticFrames loaded(directory.path());
    ASSERT_EQ(loaded.frames().size(), 1u);
    EXPECT_EQ(loaded.frames().at("commented.PGM")->pixels, (std::vector<uint8_t>{1, 2, 3}));
}

TEST(ImageSerializer, WritesWhatOtherToolsRead)
{
    k52test::TempDir directory;
    ImageSerializer::ImageData rgb{2, 1, 3, {1, 2, 3, 4, 5, 6}};
    auto encoded = ImageSerializer::encode(rgb);
    EXPECT_EQ(std::string(encoded.begin(), encoded.end()), std::string("P6\n2 1\n255\n") + "\x01\x02\x03\x04\x05\x06");
    ImageSerializer::write(directory.file("out.ppm"), rgb);
    auto back = ImageSerializer::read(directory.file("out.ppm"));
    EXPECT_EQ(back.pixels, rgb.pixels);
    EXPECT_EQ(back.channels, 3u);

    EXPECT_THROW(ImageSerializer::encode({2, 2, 1, {1, 2, 3}}), utils::UtilsRuntimeError);
    EXPECT_THROW(ImageSerializer::encode({1, 1, 2, {1, 2}}), utils::UtilsRuntimeError);
    EXPECT_THROW(ImageSerializer::write(directory.file("no/such/dir.pgm"), {1, 1, 1, {0}}), utils::IOError);
}

} // namespace
