// Time for the daemon to create, map and initialise both container files, and to remove them
// again: ContainerManager construction plus destruction in a fresh directory.
#include "core/container/containermanager.h"

#include <benchmark/benchmark.h>

#include <cstdlib>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

std::string makeTemporaryDirectory()
{
    const char* base = std::getenv("TMPDIR");
    std::string pattern = std::string(base && *base ? base : "/tmp") + "/k52bench-XXXXXX";
    std::vector<char> buffer(pattern.begin(), pattern.end());
    buffer.push_back('\0');
    if (!::mkdtemp(buffer.data()))
        throw std::runtime_error("mkdtemp failed for " + pattern);
    return buffer.data();
}

void BM_ContainerManagerCreateAndDestroy(benchmark::State& state)
{
    const std::string directory = makeTemporaryDirectory();
    for (auto _ : state) {
        k52app::ContainerManager manager(directory + "/");
        benchmark::DoNotOptimize(manager.xmlBlock().text[0]);
    }
    std::filesystem::remove_all(directory);
}

BENCHMARK(BM_ContainerManagerCreateAndDestroy)->Unit(benchmark::kMillisecond);

} // namespace

BENCHMARK_MAIN();
