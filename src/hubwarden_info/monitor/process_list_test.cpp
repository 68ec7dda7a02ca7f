#include "monitor/process_list.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <functional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "monitor/monitor_test_support.h"
#include "platform/fake/fake_log.h"
#include "platform/fake/fake_process_signals.h"
#include "platform/fake/fake_process_table.h"
#include "platform/linux/proc_process_table.h"
#include "platform/linux/process_signals.h"
#include "platform/log.h"
#include "platform/sleeper.h"
#include "request/operations.h"

namespace hubwarden {
namespace {

using testing::Installed;
using testing::ManualClock;

// Stands in for the second between samples: runs the test's action (or
// sleeps a little, for tests on the real table) instead.
class ActionSleeper : public platform::Sleeper {
 public:
  explicit ActionSleeper(std::function<void(double)> action) : action_(std::move(action)) {}
  void sleep_for(double seconds) override { action_(seconds); }

 private:
  std::function<void(double)> action_;
};

class ProcessListTest : public ::testing::Test {
 protected:
  ProcessListTest()
      : sleeper_([this](double seconds) {
          clock_.time += seconds;
          if (between_samples_) between_samples_();
        }),
        table_slot_(&table_),
        clock_slot_(&clock_),
        log_slot_(&log_),
        sleeper_slot_(&sleeper_) {}

  // Runs "listProcesses"; on success returns the rows.
  std::pair<ErrorName, Array> list(Dict request) {
    ReplySlot reply;
    ErrorName error = list_processes(request, reply, &context_);
    if (error) return {error, {}};
    EXPECT_TRUE(reply.has_value());
    EXPECT_EQ(reply->size(), 1u);
    const Array* rows = reply->find_array("processInfo");
    EXPECT_NE(rows, nullptr);
    return {nullptr, rows ? *rows : Array{}};
  }

  static std::vector<uint64_t> column(const Array& rows, const char* field) {
    std::vector<uint64_t> out;
    for (const Value& row : rows) out.push_back(row.as_dict()->find(field)->to_uint64().value_or(0));
    return out;
  }

  platform::FakeProcessTable table_;
  ManualClock clock_;
  platform::FakeLog log_;
  ActionSleeper sleeper_;
  Installed<platform::ProcessTable> table_slot_;
  Installed<platform::Clock> clock_slot_;
  Installed<platform::Log> log_slot_;
  Installed<platform::Sleeper> sleeper_slot_;
  std::function<void()> between_samples_;
  Dict context_;
};

TEST_F(ProcessListTest, RequestChecksInOrderAndTheirLogLines) {
  table_.add(2, "p");
  struct Case {
    Dict request;
    ErrorName error;
    const char* logged;
  };
  const char* kField = "hubwarden_info: Failed error check: Specified an invalid unknown field to return.";
  const char* kKey = "hubwarden_info: Failed error check: Specified an invalid sort key.";
  const char* kDirection = "hubwarden_info: Failed error check: Specified an invalid sort direction.";
  Case cases[] = {
      {Dict{{"fieldsToReturn", Array{"PID", "UID"}}}, kUnknownFieldsToReturnErr, kField},
      {Dict{{"fieldsToReturn", Array{"PID", 3}}}, kUnknownFieldsToReturnErr, kField},
      {Dict{{"fieldsToReturn", "PID"}}, kUnknownFieldsToReturnErr, kField},
      {Dict{{"fieldsToReturn", Array{"pid"}}, {"primarySortKey", "Bogus"}, {"primarySortDirection", "x"}},
       kUnknownFieldsToReturnErr, kField},
      {Dict{{"primarySortKey", "UID"}}, kUnknownSortKeyErr, kKey},
      {Dict{{"secondarySortKey", "PGID"}, {"primarySortDirection", "up"}}, kUnknownSortKeyErr, kKey},
      {Dict{{"primarySortKey", 1}}, kUnknownSortKeyErr, kKey},
      {Dict{{"primarySortDirection", "asc"}}, kMalformedSortDirectionErr, kDirection},
      {Dict{{"secondarySortDirection", "DESC "}}, kMalformedSortDirectionErr, kDirection},
      {Dict{{"secondarySortDirection", Value()}}, kMalformedSortDirectionErr, kDirection},
  };
  for (Case& c : cases) {
    log_.clear();
    EXPECT_TRUE(same_error(list(c.request).first, c.error)) << c.logged;
    EXPECT_EQ(log_.entries(),
              (std::vector<platform::FakeLog::Entry>{{platform::Priority::Notice, "hubwarden_info: Got headers"},
                                                     {platform::Priority::Error, c.logged}}));
  }
  EXPECT_EQ(table_.lists, 0);  // nothing is sampled for a refused request
}

TEST_F(ProcessListTest, AcceptedFieldsWithoutOutputAndLimits) {
  for (uint32_t pid = 2; pid <= 9; ++pid) table_.add(pid, "p" + std::to_string(pid));

  auto [error, rows] = list(Dict{{"fieldsToReturn", Array{"UIDPPID", "Username", "GID"}}});
  ASSERT_EQ(error, nullptr);
  ASSERT_EQ(rows.size(), 8u);
  for (const Value& row : rows) EXPECT_TRUE(row.as_dict()->empty());
  EXPECT_EQ(table_.lists, 2);  // two samples per request

  EXPECT_EQ(list(Dict{}).second.size(), 8u);  // no fields: empty rows
  EXPECT_TRUE(list(Dict{}).second[0].as_dict()->empty());

  // Strings are the older text form.
  const std::pair<Value, size_t> limits[] = {{Value(0), 8},
                                             {Value(5), 5},
                                             {Value(2.9), 2},
                                             {Value(0.5), 8},
                                             {Value(1e300), 8},
                                             {Value(true), 1},
                                             {Value("5"), 5},
                                             {Value(" +2 "), 2},
                                             {Value("-4"), 8},
                                             {Value("3x"), 8},
                                             {Value(Array{}), 8},
                                             {Value("99999999999999999999999"), 8},
                                             {Value(uint64_t{18446744073709551615u}), 8}};
  for (const auto& [limit, expected] : limits) {
    auto [e, limited] = list(Dict{{"limit", limit}, {"fieldsToReturn", Array{"PID"}}});
    ASSERT_EQ(e, nullptr);
    EXPECT_EQ(limited.size(), expected);
  }
}

TEST_F(ProcessListTest, RepeatedFieldNamesAreOutputOnce) {
  table_.add(2, "a");
  table_.add(3, "b");
  Array fields{"Threads"};
  fields.insert(fields.end(), 100000, Value("Command"));
  fields.push_back("PID");
  fields.push_back("Threads");
  auto [error, rows] = list(Dict{{"fieldsToReturn", fields}});
  ASSERT_EQ(error, nullptr);
  ASSERT_EQ(rows.size(), 2u);
  for (const Value& row : rows)
    EXPECT_EQ(testing::keys_of(*row.as_dict()), (std::vector<std::string>{"Threads", "Command", "PID"}));

  // An unknown name behind many good ones is still found.
  Array bad(100000, Value("PID"));
  bad.push_back("UID");
  EXPECT_TRUE(same_error(list(Dict{{"fieldsToReturn", bad}}).first, kUnknownFieldsToReturnErr));
}

// The first sample reads CPU times alone; the second reads what the fields
// and sort keys use, and region figures only for "Private" and "Shared".
// The fake table leaves out what it is not asked for, so a reply built
// from too little would show zeros here.
TEST_F(ProcessListTest, ReadsOnlyWhatTheReplyNeeds) {
  for (uint32_t pid = 2; pid <= 5; ++pid) {
    platform::ProcessFacts& f = table_.add(pid, "p");
    f.ports = 10 - pid;
    f.virtual_private_bytes = pid * 4096;
    f.uid = 501;
    table_.process_regions[pid] = platform::ProcessRegions{pid * 100, pid};
  }
  using platform::kProcessDescriptors;
  using platform::kProcessPrivateSize;
  using platform::kProcessStatOnly;
  struct Case {
    Dict request;
    uint32_t parts;
    int region_reads;
  };
  Case cases[] = {
      {Dict{}, kProcessStatOnly, 0},
      {Dict{{"fieldsToReturn", Array{"PID", "CPUUsage", "Command", "Username", "UIDPPID"}}}, kProcessStatOnly, 0},
      {Dict{{"fieldsToReturn", Array{"Ports"}}}, kProcessDescriptors, 0},
      {Dict{{"primarySortKey", "Ports"}}, kProcessDescriptors, 0},
      {Dict{{"fieldsToReturn", Array{"VPrivate"}}}, kProcessPrivateSize, 0},
      {Dict{{"fieldsToReturn", Array{"Private"}}}, kProcessStatOnly, 4},
      {Dict{{"secondarySortKey", "Shared"}}, kProcessStatOnly, 4},
      {Dict{{"fieldsToReturn", Array{"Shared", "Ports", "VPrivate"}}}, kProcessDescriptors | kProcessPrivateSize, 4},
  };
  for (Case& c : cases) {
    table_.parts_asked.clear();
    table_.region_reads = 0;
    ASSERT_EQ(list(c.request).first, nullptr);
    EXPECT_EQ(table_.parts_asked, (std::vector<uint32_t>{kProcessStatOnly, c.parts}));
    EXPECT_EQ(table_.region_reads, c.region_reads);
  }

  // Sorting on a figure that is not output still sees it.
  auto [error, rows] = list(Dict{{"fieldsToReturn", Array{"PID", "VPrivate", "Private", "Shared"}},
                                 {"primarySortKey", "Ports"},
                                 {"primarySortDirection", "ASC"}});
  ASSERT_EQ(error, nullptr);
  EXPECT_EQ(column(rows, "PID"), (std::vector<uint64_t>{5, 4, 3, 2}));
  EXPECT_EQ(column(rows, "VPrivate"), (std::vector<uint64_t>{5 * 4096, 4 * 4096, 3 * 4096, 2 * 4096}));
  EXPECT_EQ(column(rows, "Private"), (std::vector<uint64_t>{500, 400, 300, 200}));
  EXPECT_EQ(column(rows, "Shared"), (std::vector<uint64_t>{5, 4, 3, 2}));
}

TEST_F(ProcessListTest, SortOrdersAndTieBreakByPid) {
  // pid, command, pgid, CPU time at both samples (µs).
  table_.add(7, "beta", 0).pgid = 3;
  table_.add(3, "alpha", 0).pgid = 9;
  table_.add(12, "beta", 0).pgid = 1;
  table_.add(5, "beta", 0).pgid = 3;
  table_.add(9, "alpha", 0).pgid = 2;
  between_samples_ = [this] {
    table_.processes[7].cpu_microseconds = 300;
    table_.processes[3].cpu_microseconds = 300;
    table_.processes[12].cpu_microseconds = 900;
  };
  auto pids = [this](Dict request) {
    request.set("fieldsToReturn", Array{"PID"});
    auto [error, rows] = list(std::move(request));
    EXPECT_EQ(error, nullptr);
    return column(rows, "PID");
  };
  using V = std::vector<uint64_t>;
  // Defaults: CPU usage descending, then command ascending, then pid.
  EXPECT_EQ(pids(Dict{}), (V{12, 3, 7, 9, 5}));
  // Username compares equal: the secondary key decides, ties by pid.
  EXPECT_EQ(pids(Dict{{"primarySortKey", "Username"}}), (V{3, 9, 5, 7, 12}));
  EXPECT_EQ(pids(Dict{{"primarySortKey", "Username"}, {"secondarySortDirection", "DESC"}}), (V{5, 7, 12, 3, 9}));
  EXPECT_EQ(pids(Dict{{"primarySortKey", "UIDPPID"}, {"secondarySortKey", "UIDPPID"}}), (V{3, 5, 7, 9, 12}));
  EXPECT_EQ(pids(Dict{{"primarySortKey", "PID"}}), (V{12, 9, 7, 5, 3}));
  EXPECT_EQ(pids(Dict{{"primarySortKey", "GID"}, {"primarySortDirection", "ASC"}}), (V{12, 9, 5, 7, 3}));
  EXPECT_EQ(pids(Dict{{"primarySortKey", "TotalMicroSeconds"},
                      {"primarySortDirection", "ASC"},
                      {"secondarySortKey", "PID"},
                      {"secondarySortDirection", "DESC"}}),
            (V{9, 5, 7, 3, 12}));
}

TEST_F(ProcessListTest, CpuUsageOverTheInterval) {
  clock_.time = 1000.75;
  table_.add(2, "steady", 1900000);
  table_.add(3, "two-cores", 0);
  table_.add(4, "exits", 0);
  table_.add(5, "idle", 5000000);
  between_samples_ = [this] {
    clock_.time = 1001.25;                           // half a second, across a whole second
    table_.processes[2].cpu_microseconds = 2100000;  // 0.2 s, with a borrow
    table_.processes[3].cpu_microseconds = 1000000;
    table_.processes.erase(4);
    table_.add(6, "new", 7000000);
  };
  auto [error, rows] = list(Dict{{"fieldsToReturn", Array{"PID", "CPUUsage", "TotalSeconds", "TotalMicroSeconds"}}});
  ASSERT_EQ(error, nullptr);
  // New and idle processes both show 0.0; "Command" ascending breaks the
  // tie ("idle" < "new").
  ASSERT_EQ(column(rows, "PID"), (std::vector<uint64_t>{3, 2, 5, 6}));
  const double usage[] = {200.0, 40.0, 0.0, 0.0};
  for (size_t i = 0; i < 4; ++i) EXPECT_NEAR(*rows[i].as_dict()->find("CPUUsage")->as_real(), usage[i], 1e-9) << i;
  EXPECT_EQ(*rows[1].as_dict()->find("TotalSeconds")->as_unsigned(), 2u);
  EXPECT_EQ(*rows[1].as_dict()->find("TotalMicroSeconds")->as_unsigned(), 100000u);

  libtop_pinfo_t p;
  libtop_tsamp_t t;
  p.p_seq = 1;
  p.total_time = {5, 0};
  p.p_total_time = {4, 0};
  t.time = t.p_time = {10, 0};
  EXPECT_EQ(double_from_usage(&p, &t), 0.0);  // no interval to divide by
}

TEST_F(ProcessListTest, OutputValuesAndTypes) {
  platform::ProcessFacts& f = table_.add(4000000000u, std::string("bad\xc3", 4), 0);
  f.uid = 501;
  f.ppid = 1;
  f.threads = 7;
  f.ports = 12;
  f.resident_bytes = 18446744073709551615u;
  f.virtual_bytes = 1ull << 40;
  f.virtual_private_bytes = 8192;
  f.faults = 5000000000u;
  f.page_ins = 9;
  table_.process_regions[4000000000u] = platform::ProcessRegions{4096, 1024};
  table_.add(2, "caf\xc3\xa9 (x)", 0);
  const Array fields = {"ResidentSize", "Command",  "PID",    "Threads", "Ports",   "VirtualSize", "Private",
                        "Shared",       "VPrivate", "Faults", "PageIns", "UIDPPID", "Username",    "GID"};
  auto [error, rows] = list(Dict{{"fieldsToReturn", fields}, {"primarySortKey", "PID"}});
  ASSERT_EQ(error, nullptr);
  ASSERT_EQ(rows.size(), 2u);
  // "PID" sorts signed: 4000000000 is negative that way, so it comes last
  // in descending order.
  const Dict& big = *rows[1].as_dict();
  EXPECT_EQ(testing::keys_of(big),
            (std::vector<std::string>{"ResidentSize", "Command", "PID", "Threads", "Ports", "VirtualSize", "Private",
                                      "Shared", "VPrivate", "Faults", "PageIns"}));
  EXPECT_EQ(*big.find_string("Command"), "?");
  const std::pair<const char*, uint64_t> numbers[] = {{"PID", 4000000000u},
                                                      {"ResidentSize", 18446744073709551615u},
                                                      {"VirtualSize", 1ull << 40},
                                                      {"Private", 4096},
                                                      {"Shared", 1024},
                                                      {"VPrivate", 8192},
                                                      {"PageIns", 9},
                                                      {"Threads", 7},
                                                      {"Ports", 12},
                                                      {"Faults", 4294967295u}};  // held at the 32-bit top
  for (const auto& [key, n] : numbers) EXPECT_EQ(*big.find(key)->as_unsigned(), n) << key;
  EXPECT_EQ(*rows[0].as_dict()->find_string("Command"), "caf\xc3\xa9 (x)");
}

TEST_F(ProcessListTest, SamplerFailureGivesAnEmptyTable) {
  table_.add(2, "p");
  table_.list_error = EIO;
  auto [error, rows] = list(Dict{{"fieldsToReturn", Array{"PID"}}});
  EXPECT_EQ(error, nullptr);
  EXPECT_TRUE(rows.empty());
  EXPECT_EQ(log_.lines().back(), "hubwarden_info: libtop_sample(): Error in list(): Input/output error");

  Installed<platform::ProcessTable> none(nullptr);
  EXPECT_TRUE(list(Dict{}).second.empty());
}

TEST_F(ProcessListTest, ConcurrentRequestsEachSeeAWholeTable) {
  for (uint32_t pid = 2; pid < 200; ++pid) table_.add(pid, "p");
  ActionSleeper brief([](double) { std::this_thread::sleep_for(std::chrono::milliseconds(5)); });
  Installed<platform::Sleeper> brief_slot(&brief);
  std::vector<size_t> sizes(4);
  std::vector<std::thread> threads;
  for (size_t i = 0; i < sizes.size(); ++i)
    threads.emplace_back([&sizes, i] {
      ReplySlot reply;
      Dict request{{"fieldsToReturn", Array{"PID"}}};
      Dict context;
      if (!list_processes(request, reply, &context) && reply)
        if (const Array* rows = reply->find_array("processInfo")) sizes[i] = rows->size();
    });
  for (std::thread& t : threads) t.join();
  for (size_t n : sizes) EXPECT_EQ(n, 198u);
}

TEST_F(ProcessListTest, KillRules) {
  platform::FakeProcessSignals signals;
  Installed<platform::ProcessSignals> signals_slot(&signals);
  signals.pid_results[99999] = ESRCH;        // no such process
  signals.results[{4242, SIGTERM}] = EPERM;  // refused the polite way only
  signals.pid_results[77] = EPERM;           // refused both ways
  ReplySlot reply;
  Dict request{{"pids", Array{1, 0, -3, 99999, 4242, 7.9, "12", Array{}, 1e12, true, 7, "-1", " 13", "x14", "",
                              uint64_t{18446744073709551615u}, 77}}};
  ASSERT_EQ(kill_processes(request, reply, nullptr), nullptr);
  ASSERT_TRUE(reply);
  EXPECT_EQ(testing::keys_of(*reply), (std::vector<std::string>{"killedAllProcesses", "killResults"}));
  EXPECT_EQ(*reply->find("killedAllProcesses")->as_bool(), false);
  const Dict& results = *reply->find_dict("killResults");
  // Strings keep their own text as the key; numbers are keyed by their
  // integer value; the array is left out.
  EXPECT_EQ(testing::keys_of(results),
            (std::vector<std::string>{"1", "0", "-3", "99999", "4242", "7", "12", "1000000000000", "-1", " 13", "x14",
                                      "", "18446744073709551615", "77"}));
  std::string outcome;
  for (const auto& [key, result] : results) outcome += *result.as_string() == "SUCCESS" ? '+' : '-';
  EXPECT_EQ(outcome, "----+++--+----");  // "+" for SUCCESS, in key order
  // Nothing at or below 1 and nothing out of range is signalled; the
  // second signal follows only a refused first.
  EXPECT_EQ(signals.sent, (std::vector<std::pair<pid_t, int>>{{99999, SIGTERM},
                                                              {99999, SIGKILL},
                                                              {4242, SIGTERM},
                                                              {4242, SIGKILL},
                                                              {7, SIGTERM},
                                                              {12, SIGTERM},
                                                              {7, SIGTERM},
                                                              {13, SIGTERM},
                                                              {77, SIGTERM},
                                                              {77, SIGKILL}}));

  // No pids is all killed; without a signal service nothing is signalled
  // and nothing succeeds.
  auto kill = [](Dict request) {
    ReplySlot r;
    EXPECT_EQ(kill_processes(request, r, nullptr), nullptr);
    return std::pair(*r->find("killedAllProcesses")->as_bool(), *r->find_dict("killResults"));
  };
  signals.sent.clear();
  EXPECT_EQ(kill(Dict{}), std::pair(true, Dict{}));
  EXPECT_TRUE(kill(Dict{{"pids", Array{"5", 6}}}).first);
  EXPECT_EQ(signals.sent.size(), 2u);
  Installed<platform::ProcessSignals> none(nullptr);
  EXPECT_EQ(kill(Dict{{"pids", Array{5}}}), std::pair(false, Dict{{"5", "FAILURE"}}));
}

volatile sig_atomic_t gTerminationsReceived = 0;

// The host itself is never signalled, however the request names it; a child
// of the host is, by number or by text. (The host's parent is checked with
// harmless probes in the signal service's own tests.)
TEST(ProcessKillTest, RealSignalsSpareTheHost) {
  auto signals = platform::make_linux_process_signals();
  Installed<platform::ProcessSignals> slot(signals.get());
  pid_t child = ::fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    for (;;) ::pause();
  }
  // Should the host be signalled after all, the test sees it instead of
  // dying of it.
  struct sigaction counting = {}, previous = {};
  counting.sa_handler = [](int) { gTerminationsReceived = gTerminationsReceived + 1; };
  ASSERT_EQ(::sigaction(SIGTERM, &counting, &previous), 0);
  ReplySlot reply;
  Dict request{{"pids", Array{static_cast<int64_t>(::getpid()), std::to_string(child)}}};
  ASSERT_EQ(kill_processes(request, reply, nullptr), nullptr);
  int status = 0;
  ASSERT_EQ(::waitpid(child, &status, 0), child);
  ::sigaction(SIGTERM, &previous, nullptr);
  EXPECT_EQ(gTerminationsReceived, 0);
  EXPECT_TRUE(WIFSIGNALED(status));
  EXPECT_EQ(WTERMSIG(status), SIGTERM);
  EXPECT_EQ(*reply->find("killedAllProcesses")->as_bool(), false);
  const Dict& results = *reply->find_dict("killResults");
  EXPECT_EQ(*results.find_string(std::to_string(::getpid())), "FAILURE");
  EXPECT_EQ(*results.find_string(std::to_string(child)), "SUCCESS");
}

// The whole path on this host's /proc, with a short pause.
TEST(ProcessListRealTest, ListsThisProcess) {
  std::unique_ptr<platform::ProcessTable> table = platform::make_proc_process_table();
  Installed<platform::ProcessTable> slot(table.get());
  ActionSleeper brief([](double) { std::this_thread::sleep_for(std::chrono::milliseconds(20)); });
  Installed<platform::Sleeper> sleeper_slot(&brief);
  ReplySlot reply;
  Dict request{{"fieldsToReturn", Array{"PID", "Command", "ResidentSize", "Private", "CPUUsage"}},
               {"primarySortKey", "PID"},
               {"primarySortDirection", "ASC"}};
  ErrorName error = list_processes(request, reply, nullptr);
  ASSERT_EQ(error, nullptr);
  const Array& rows = *reply->find_array("processInfo");
  ASSERT_GT(rows.size(), 1u);
  bool found = false;
  uint64_t previous = 0;
  for (const Value& row : rows) {
    uint64_t pid = *row.as_dict()->find("PID")->as_unsigned();
    EXPECT_GT(pid, previous);
    previous = pid;
    if (pid != static_cast<uint64_t>(getpid())) continue;
    found = true;
    EXPECT_GT(*row.as_dict()->find("ResidentSize")->as_unsigned(), 0u);
    EXPECT_GT(*row.as_dict()->find("Private")->as_unsigned(), 0u);
    EXPECT_GE(*row.as_dict()->find("CPUUsage")->as_real(), 0.0);
  }
  EXPECT_TRUE(found);
}

}  // namespace
}  // namespace hubwarden
