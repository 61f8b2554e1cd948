#include "utils/base/crc.h"

#include <gtest/gtest.h>
#include <zlib.h>

#include <cstdint>
#include <vector>

namespace {

// zlib's crc32 takes and returns the inverted register, so a register seeded with `seed`
// corresponds to zlib's running value ~seed.
uint32_t zlibCrc(const std::vector<unsigned char>& data, std::size_t offset, std::size_t length,
                 uint32_t seed)
{
    return static_cast<uint32_t>(
        crc32(~seed & 0xFFFFFFFFu, data.data() + offset, static_cast<uInt>(length)));
}

std::vector<unsigned char> pseudoRandomBytes(std::size_t count)
{
    std::vector<unsigned char> bytes(count);
    uint32_t state = 0x2545F491;
    for (auto& byte : bytes) {
        state ^= state << 13;
        state ^= state >> 17;
        state ^= state << 5;
        byte = static_cast<unsigned char>(state);
    }
    return bytes;
}

TEST(CRCSum32, MatchesZlib)
{
    const auto data = pseudoRandomBytes(70000);
    struct Case {
        std::size_t offset; // odd offsets exercise unaligned starts
        std::size_t length;
        uint32_t seed;
    };
    const Case cases[] = {
        {0, 0, 0xFFFFFFFF},   {0, 1, 0xFFFFFFFF},     {3, 1, 0xFFFFFFFF},
        {1, 7, 0xFFFFFFFF},   {0, 15, 0xFFFFFFFF},    {5, 63, 0xFFFFFFFF},
        {0, 255, 0xFFFFFFFF}, {7, 4097, 0xFFFFFFFF},  {1, 65537, 0xFFFFFFFF},
        {0, 0, 0},            {0, 1, 0},              {0, 1000, 0},
        {0, 0, 0x12345678},   {2, 333, 0x12345678},   {9, 69991, 0xDEADBEEF},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << "offset " << c.offset << " length " << c.length
                                        << " seed 0x" << std::hex << c.seed);
        EXPECT_EQ(utils::CRCSum32(data.data() + c.offset, c.length, c.seed),
                  zlibCrc(data, c.offset, c.length, c.seed));
    }
}

TEST(CRCSum32, KnownCheckValues)
{
    const std::string check = "123456789";
    EXPECT_EQ(utils::CRCSum32(check.data(), check.size(), 0xFFFFFFFF), 0xCBF43926u);
    EXPECT_EQ(utils::CRCSum32(check.data(), 0, 0xFFFFFFFF), 0u);
    // Empty input returns the inverted seed.
    EXPECT_EQ(utils::CRCSum32(check.data(), 0, 0x12345678), 0xEDCBA987u);
}

TEST(CRCSum32, ChainsThroughTheInvertedResult)
{
    const auto data = pseudoRandomBytes(10001);
    const uint32_t whole = utils::CRCSum32(data.data(), data.size(), 0xFFFFFFFF);
    const uint32_t head = utils::CRCSum32(data.data(), 4321, 0xFFFFFFFF);
    EXPECT_EQ(utils::CRCSum32(data.data() + 4321, data.size() - 4321, ~head), whole);
}

} // namespace
