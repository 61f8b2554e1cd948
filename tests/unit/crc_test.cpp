#include "utils/base/crc.h"

#include <gtest/gtest.h>
#include <zlib.h>

#include <cstdint>
#include <vector>

namespace {

// Against zlib for many lengths, unaligned starts and seeds; chaining follows from the seeds.
// zlib's crc32 takes and returns the inverted register, so a register seeded with `seed`
// corresponds to zlib's running value ~seed.
TEST(CRCSum32, MatchesZlib)
{
    std::vector<unsigned char> data(70000); // every byte value, in no regular order
    for (size_t i = 0; i < data.size(); ++i)
        data[i] = static_cast<unsigned char>((i * 2654435761u) >> 13);
    const struct {
        std::size_t offset, length;
        uint32_t seed;
    } cases[] = {{0, 0, 0xFFFFFFFF}, {3, 1, 0xFFFFFFFF}, {1, 7, 0xFFFFFFFF},   {5, 63, 0xFFFFFFFF},
                 {7, 4097, 0xFFFFFFFF}, {0, 1000, 0},    {2, 333, 0x12345678}, {9, 69991, 0xDEADBEEF}};
    for (const auto& c : cases)
        EXPECT_EQ(utils::CRCSum32(data.data() + c.offset, c.length, c.seed),
                  static_cast<uint32_t>(crc32(~c.seed, data.data() + c.offset, static_cast<uInt>(c.length))))
            << "offset " << c.offset << " length " << c.length << " seed " << c.seed;
    EXPECT_EQ(utils::CRCSum32("123456789", 9, 0xFFFFFFFF), 0xCBF43926u);
}

} // namespace
