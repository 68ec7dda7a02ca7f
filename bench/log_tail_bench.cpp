// "tailFile" over the journal: the console's usual request, the last 64 KiB,
// against journals of 10,000 and 100,000 entries, beside the same window from
// the start and from a plain log file. The window from the end should cost
// the same whatever the journal's size, since it walks back only as far as
// the window reaches.
#include <benchmark/benchmark.h>

#include <map>
#include <memory>

#include "bench_root.h"
#include "hubwardend/tail_service.h"
#include "platform/file_util.h"
#include "platform/linux/journal_test_support.h"

namespace {

constexpr int64_t kWindow = 64 * 1024;

std::vector<platform::testing::ExportEntry> entries(int count) {
  std::vector<platform::testing::ExportEntry> out;
  out.reserve(static_cast<size_t>(count));
  for (int i = 0; i < count; ++i) {
    out.push_back({1700000000000000 + static_cast<uint64_t>(i) * 1000,
                   {{"MESSAGE", "session " + std::to_string(i) + " opened for user root by (uid=0)"},
                    {"_HOSTNAME", "server"},
                    {"SYSLOG_IDENTIFIER", "sshd"},
                    {"SYSLOG_PID", std::to_string(1000 + i % 30000)},
                    {"SYSLOG_FACILITY", i % 3 == 0 ? "4" : "3"}}});
  }
  return out;
}

// A sandbox holding a journal of count entries, made once per size and
// kept for the whole run: writing 100,000 entries takes seconds.
const std::string* sandbox_with_journal(int count) {
  static std::map<int, std::unique_ptr<bench::ScratchDir>> made;
  auto& dir = made[count];
  if (!dir) {
    dir = std::make_unique<bench::ScratchDir>();
    platform::make_directories(dir->dir() + "/var/log/journal");
    if (!platform::testing::write_journal(dir->dir() + "/var/log/journal/system.journal", entries(count), 600))
      return nullptr;
  }
  return &dir->dir();
}

void tail(benchmark::State& state, const char* identifier, int64_t offset) {
  const std::string* dir =
      platform::testing::have_journal_remote() ? sandbox_with_journal(static_cast<int>(state.range(0))) : nullptr;
  if (!dir) {
    state.SkipWithError("cannot write a journal (is systemd-journal-remote installed?)");
    return;
  }
  platform::Paths paths(*dir);
  platform::testing::install<platform::Paths>(&paths);
  hubwardend::FileTailService service;
  plist::Dict table{{identifier, "/var/log/system.log"}};
  plist::Dict context;
  for (auto _ : state) {
    std::optional<std::string> path, contents;
    plist::Value at(offset), amount(kWindow);
    ErrorName error = service.tail(identifier, table, &path, &at, &amount, &contents, &context, plist::Dict());
    if (error || !contents || contents->empty()) state.SkipWithError("no window");
    benchmark::DoNotOptimize(contents);
  }
  platform::testing::install<platform::Paths>(nullptr);
}

void BM_JournalLastWindow(benchmark::State& state) { tail(state, "systemLog", -kWindow); }
void BM_JournalFirstWindow(benchmark::State& state) { tail(state, "systemLog", 0); }
// secureLog matches one entry in three: the walk back goes three times as far.
void BM_JournalLastWindowFiltered(benchmark::State& state) { tail(state, "secureLog", -kWindow); }

void BM_FileLastWindow(benchmark::State& state) {
  bench::BenchRoot root;
  std::string text;
  for (int i = 0; i < state.range(0); ++i)
    text += "Nov 14 22:13:20 server sshd[1000]: session " + std::to_string(i) + " opened for user root by (uid=0)\n";
  platform::write_file_atomically(root.dir() + "/var/log/system.log", text);
  hubwardend::FileTailService service;
  plist::Dict table{{"systemLog", "/var/log/system.log"}};
  plist::Dict context;
  for (auto _ : state) {
    std::optional<std::string> path, contents;
    plist::Value at(-kWindow), amount(kWindow);
    service.tail("systemLog", table, &path, &at, &amount, &contents, &context, plist::Dict());
    benchmark::DoNotOptimize(contents);
  }
}

BENCHMARK(BM_JournalLastWindow)->Arg(10000)->Arg(100000)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_JournalLastWindowFiltered)->Arg(10000)->Arg(100000)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_JournalFirstWindow)->Arg(10000)->Arg(100000)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_FileLastWindow)->Arg(100000)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
