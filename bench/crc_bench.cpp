// CRCSum32 over a whole general container's checksummed span, next to zlib's crc32 on the same
// buffer in the same run as the reference.
#include "utils/base/crc.h"

#include <benchmark/benchmark.h>
#include <zlib.h>

#include <cstdint>
#include <vector>

namespace {

constexpr std::size_t checksummedBytes = 50333892; // general container size minus its checksum

const std::vector<unsigned char>& buffer()
{
    static const std::vector<unsigned char> bytes = [] {
        std::vector<unsigned char> data(checksummedBytes);
        uint32_t state = 0x9E3779B9;
        for (auto& byte : data) {
            state = state * 1664525u + 1013904223u;
            byte = static_cast<unsigned char>(state >> 24);
        }
        return data;
    }();
    return bytes;
}

void BM_CRCSum32(benchmark::State& state)
{
    const auto& data = buffer();
    for (auto _ : state)
        benchmark::DoNotOptimize(utils::CRCSum32(data.data(), data.size(), 0xFFFFFFFF));
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) *
                            static_cast<int64_t>(data.size()));
}

void BM_ZlibCrc32(benchmark::State& state)
{
    const auto& data = buffer();
    for (auto _ : state)
        benchmark::DoNotOptimize(crc32(0, data.data(), static_cast<uInt>(data.size())));
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) *
                            static_cast<int64_t>(data.size()));
}

BENCHMARK(BM_CRCSum32)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_ZlibCrc32)->Unit(benchmark::kMillisecond);

} // namespace

BENCHMARK_MAIN();
