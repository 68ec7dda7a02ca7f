// Whole-file reads and atomic writes: the cost of confinement below a
// sandbox root against the real root, and of looking for a dead writer's
// temporary files in a folder that holds many records.
#include <benchmark/benchmark.h>

#include <string>

#include "bench_root.h"
#include "platform/file_util.h"

namespace {

// Arguments: sandbox root (1) or a scratch folder at the real root (0),
// and the number of other files in the folder written to.
void prepare(const std::string& dir, int neighbours) {
  for (int i = 0; i < neighbours; ++i)
    platform::write_file_atomically(dir + "/var/db/records/record" + std::to_string(i) + ".plist", "x");
}

void BM_ReadFile(benchmark::State& state) {
  bench::ScratchDir scratch;
  bench::BenchRoot root(state.range(0) != 0);
  std::string dir = state.range(0) != 0 ? root.dir() : scratch.dir();
  std::string path = dir + "/var/db/hubwarden/deep/folder/settings.plist";
  platform::write_file_atomically(path, std::string(4096, 'x'));
  for (auto _ : state) benchmark::DoNotOptimize(platform::read_file(path));
}
BENCHMARK(BM_ReadFile)->Arg(0)->Arg(1);

void BM_WriteFileAtomically(benchmark::State& state) {
  bench::ScratchDir scratch;
  bench::BenchRoot root(state.range(0) != 0);
  std::string dir = state.range(0) != 0 ? root.dir() : scratch.dir();
  prepare(dir, static_cast<int>(state.range(1)));
  std::string path = dir + "/var/db/records/target.plist";
  std::string contents(4096, 'x');
  for (auto _ : state) benchmark::DoNotOptimize(platform::write_file_atomically(path, contents));
}
BENCHMARK(BM_WriteFileAtomically)->Args({0, 0})->Args({1, 0})->Args({0, 1000})->Args({1, 1000});

}  // namespace

BENCHMARK_MAIN();
