// Making local host names of computer names: the byte filter alone for
// Latin text, and the transliteration that names in other scripts need.
// One iteration munges 1,000 names.
#include <benchmark/benchmark.h>

#include <string>
#include <vector>

#include "identity/names.h"

namespace {

// Names as consoles send them: Latin ones that filter at once, and
// Cyrillic, Greek, Han, Arabic, Devanagari and symbol-only ones that go
// through the transliterator (the last to "Hostbox").
std::vector<std::string> mixed_script_names(int count) {
  const std::vector<std::string> stems = {
      "Mary's Server",
      "\xD0\xA1\xD0\xB5\xD1\x80\xD0\xB2\xD0\xB5\xD1\x80 \xD0\xBE\xD1\x84\xD0\xB8\xD1\x81\xD0\xB0",  // Сервер офиса
      "\xCE\x94\xCE\xB9\xCE\xB1\xCE\xBA\xCE\xBF\xCE\xBC\xCE\xB9\xCF\x83\xCF\x84\xCE\xAE\xCF\x82",  // Διακομιστής
      "\xE5\x8A\x9E\xE5\x85\xAC\xE5\xAE\xA4\xE6\x9C\x8D\xE5\x8A\xA1\xE5\x99\xA8",                  // 办公室服务器
      "\xD8\xAE\xD8\xA7\xD8\xAF\xD9\x85",                                                          // خادم
      "\xE0\xA4\xB8\xE0\xA4\xB0\xE0\xA5\x8D\xE0\xA4\xB5\xE0\xA4\xB0",                              // सर्वर
      "Front Desk 2nd Floor",
      "\xF0\x9F\x96\xA5\xEF\xB8\x8F\xE2\x98\x85",  // symbols only
  };
  std::vector<std::string> names;
  for (int i = 0; i < count; ++i) names.push_back(stems[i % stems.size()] + " " + std::to_string(i));
  return names;
}

void BM_MungeMixedScripts(benchmark::State& state) {
  const std::vector<std::string> names = mixed_script_names(1000);
  for (auto _ : state) {
    for (const std::string& name : names)
      benchmark::DoNotOptimize(hubwarden::munge_name_into_legal_localcast_name(name));
  }
  state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(names.size()));
}
BENCHMARK(BM_MungeMixedScripts)->Unit(benchmark::kMillisecond);

void BM_MungeLatinNames(benchmark::State& state) {
  std::vector<std::string> names;
  for (int i = 0; i < 1000; ++i) names.push_back("Office Server " + std::to_string(i));
  for (auto _ : state) {
    for (const std::string& name : names)
      benchmark::DoNotOptimize(hubwarden::munge_name_into_legal_localcast_name(name));
  }
  state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(names.size()));
}
BENCHMARK(BM_MungeLatinNames)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
