// Benchmarks of the XML property-list codec against pugixml's own parse of
// the same text, the floor below which parse_xml cannot go. The goal is that
// parse_xml costs at most twice a bare pugixml load.
#include <benchmark/benchmark.h>
#include <pugixml.hpp>

#include <time.h>

#include <cstdio>
#include <string>

#include "plist/codec.h"

namespace {

// About 100 KB of the shape the module stores: many small dictionaries of
// short keys, strings and numbers, a few arrays.
plist::Value make_document() {
  plist::Dict root;
  for (int i = 0; i < 160; ++i) {
    plist::Dict service;
    service.set("name", "com.example.service" + std::to_string(i));
    service.set("enabled", i % 2 == 0);
    service.set("pid", i * 37);
    service.set("cpuUsageBy100", static_cast<uint64_t>(i) * 1234567u);
    service.set("load", i * 0.25);
    service.set("startedAt", plist::Date{1.7e9 + i});
    plist::Array users;
    for (int u = 0; u < 3; ++u) users.emplace_back("user" + std::to_string(u) + "@host");
    service.set("users", std::move(users));
    plist::Dict limits;
    limits.set("maxConnections", 100 + i);
    limits.set("note", "limits & <quotas>");
    service.set("limits", std::move(limits));
    root.set("service" + std::to_string(i), std::move(service));
  }
  return plist::Value(std::move(root));
}

const std::string& document_text() {
  static const std::string text = plist::write_xml(make_document());
  return text;
}

// Thread CPU time, so that other load on a shared machine skews the ratio
// less than wall-clock time would.
double cpu_seconds() {
  timespec ts{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
  return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) * 1e-9;
}

double gPugiSeconds = 0;
double gParseSeconds = 0;

void BM_PugixmlLoad(benchmark::State& state) {
  const std::string& text = document_text();
  double start = cpu_seconds();
  int64_t runs = 0;
  for (auto _ : state) {
    pugi::xml_document doc;
    pugi::xml_parse_result r = doc.load_buffer(text.data(), text.size());
    benchmark::DoNotOptimize(r.status);
    ++runs;
  }
  gPugiSeconds = (cpu_seconds() - start) / static_cast<double>(runs);
  state.SetBytesProcessed(runs * static_cast<int64_t>(text.size()));
}
BENCHMARK(BM_PugixmlLoad);

void BM_ParseXml(benchmark::State& state) {
  const std::string& text = document_text();
  double start = cpu_seconds();
  int64_t runs = 0;
  for (auto _ : state) {
    plist::Parsed p = plist::parse_xml(text);
    if (!p.ok()) state.SkipWithError(p.error.c_str());
    benchmark::DoNotOptimize(p.value);
    ++runs;
  }
  gParseSeconds = (cpu_seconds() - start) / static_cast<double>(runs);
  state.SetBytesProcessed(runs * static_cast<int64_t>(text.size()));
  if (gPugiSeconds > 0) state.counters["vs_pugixml"] = gParseSeconds / gPugiSeconds;
}
BENCHMARK(BM_ParseXml);

void BM_WriteXml(benchmark::State& state) {
  const plist::Value value = make_document();
  int64_t bytes = 0;
  for (auto _ : state) {
    std::string out = plist::write_xml(value);
    bytes += static_cast<int64_t>(out.size());
    benchmark::DoNotOptimize(out.data());
  }
  state.SetBytesProcessed(bytes);
}
BENCHMARK(BM_WriteXml);

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  std::fprintf(stderr, "document: %zu bytes\n", document_text().size());
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  if (gPugiSeconds > 0 && gParseSeconds > 0)
    std::fprintf(stderr, "parse_xml / pugixml load: %.2f (target at most 2.00)\n", gParseSeconds / gPugiSeconds);
  return 0;
}
