// "listProcesses" and "killProcesses" over the process sampler.
//
// Choices where the console's request may be odd:
// - "fieldsToReturn" that is not an array counts as naming unknown fields;
//   a sort key or direction that is not a string is an unknown key or a
//   malformed direction. A field named more than once is output once, where
//   it was first named.
// - "limit" and the "pids" elements are read by their integer value, as the
//   older text form (strings only) needs: a number is truncated toward zero,
//   a string counts when it is decimal digits with an optional sign (blanks
//   around them allowed) and is 0 otherwise. A "limit" beyond the 32-bit
//   range means no limit rather than wrapping.
// - "killResults" keys each element by its decimal text: a string element
//   under the string itself, a number under its integer value (so 7.9 is
//   "7"). Elements of any other type cannot be named in the reply; they are
//   skipped but still make "killedAllProcesses" false. Numbers beyond the
//   range of process numbers are "FAILURE" without a signal, and so is every
//   pid when no signal service is installed.
// - When the sampler cannot sample, the reply is an empty "processInfo"
//   array (the reason is in the system log).
//
// The listing asks the process table for no more than the reply needs: the
// first sample only has to give CPU times to difference, so it reads one
// file per process; the second reads the parts that the requested fields
// and sort keys use, and region figures only when "Private" or "Shared" is
// among them.
//
// Log lines: "Got headers" at notice priority, the failed checks at error
// priority, like every other failure the module logs.
#include "monitor/process_list.h"

#include <errno.h>
#include <signal.h>
#include <stdarg.h>
#include <stdio.h>

#include <algorithm>
#include <charconv>
#include <chrono>
#include <climits>
#include <cstdint>
#include <limits>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "monitor/sampler/process_sampler.h"
#include "platform/clock.h"
#include "platform/log.h"
#include "platform/process_table.h"
#include "platform/registry.h"
#include "platform/signals.h"
#include "platform/sleeper.h"
#include "platform/utf8.h"
#include "request/operations.h"

namespace hubwarden {

namespace {

// The accepted names, in the order the list is built; Field numbers them.
constexpr std::string_view kAcceptedFields[] = {
    "Command", "PID",     "UIDPPID",      "CPUUsage",          "GID",         "Ports",
    "Shared",  "Threads", "Private",      "VPrivate",          "VirtualSize", "ResidentSize",
    "Faults",  "PageIns", "TotalSeconds", "TotalMicroSeconds", "Username",
};
enum Field : uint8_t {
  kCommand,
  kPid,
  kUidPpid,
  kCpuUsage,
  kGid,
  kPorts,
  kShared,
  kThreads,
  kPrivate,
  kVPrivate,
  kVirtualSize,
  kResidentSize,
  kFaults,
  kPageIns,
  kTotalSeconds,
  kTotalMicroSeconds,
  kUsername,
  kFieldCount,
};
static_assert(std::size(kAcceptedFields) == kFieldCount);

constexpr int64_t kNoLimit = 2147483647;

// The figures samp_p_sort_subcomp can compare, one per matched name.
enum class SortKey : uint8_t {
  kNone,
  kCommand,
  kPid,
  kUid,
  kPpid,
  kGid,
  kPorts,
  kShared,
  kThreads,
  kPrivate,
  kVPrivate,
  kVirtualSize,
  kResidentSize,
  kFaults,
  kPageIns,
  kCpuUsage,
  kTotalTime,
};

SortKey sort_key_named(std::string_view key) {
  static constexpr std::pair<std::string_view, SortKey> kKeys[] = {
      {"Command", SortKey::kCommand},
      {"PID", SortKey::kPid},
      {"UID", SortKey::kUid},
      {"PPID", SortKey::kPpid},
      {"GID", SortKey::kGid},
      {"Ports", SortKey::kPorts},
      {"Shared", SortKey::kShared},
      {"Threads", SortKey::kThreads},
      {"Private", SortKey::kPrivate},
      {"VPrivate", SortKey::kVPrivate},
      {"VirtualSize", SortKey::kVirtualSize},
      {"ResidentSize", SortKey::kResidentSize},
      {"Faults", SortKey::kFaults},
      {"PageIns", SortKey::kPageIns},
      {"CPUUsage", SortKey::kCpuUsage},
      {"TotalSeconds", SortKey::kTotalTime},
      {"TotalMicroSeconds", SortKey::kTotalTime},
  };
  for (const auto& [name, k] : kKeys)
    if (key == name) return k;
  return SortKey::kNone;
}

// The accepted field of that name, or nullopt. A request may repeat names
// millions of times, so the length is compared before any bytes.
std::optional<Field> field_named(const Value& name) {
  const std::string* s = name.as_string();
  if (!s) return std::nullopt;
  for (uint8_t i = 0; i < kFieldCount; ++i)
    if (kAcceptedFields[i].size() == s->size() && kAcceptedFields[i] == *s) return static_cast<Field>(i);
  return std::nullopt;
}

bool is_direction(const Value& v) {
  const std::string* s = v.as_string();
  return s && (*s == "ASC" || *s == "DESC");
}

// Decimal digits with an optional sign and blanks around them; 0 for any
// other text. Out-of-range values saturate.
int64_t integer_from_text(std::string_view text) {
  auto blank = [](char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r'; };
  while (!text.empty() && blank(text.front())) text.remove_prefix(1);
  while (!text.empty() && blank(text.back())) text.remove_suffix(1);
  bool negative = false;
  if (!text.empty() && (text.front() == '+' || text.front() == '-')) {
    negative = text.front() == '-';
    text.remove_prefix(1);
  }
  if (text.empty()) return 0;
  for (char c : text)
    if (c < '0' || c > '9') return 0;
  uint64_t magnitude = 0;
  auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), magnitude);
  (void)end;
  constexpr uint64_t kMaxMagnitude = static_cast<uint64_t>(std::numeric_limits<int64_t>::max());
  if (ec == std::errc::result_out_of_range || magnitude > kMaxMagnitude)
    return negative ? std::numeric_limits<int64_t>::min() : std::numeric_limits<int64_t>::max();
  return negative ? -static_cast<int64_t>(magnitude) : static_cast<int64_t>(magnitude);
}

// A number's or a numeric string's integer value; nullopt for other types.
std::optional<int64_t> integer_value(const Value& v) {
  if (v.is_number()) return v.to_int64();
  if (const std::string* s = v.as_string()) return integer_from_text(*s);
  return std::nullopt;
}

template <typename T>
int three_way(T a, T b) {
  return a < b ? -1 : (b < a ? 1 : 0);
}

int compare_times(libtop_time_t a, libtop_time_t b) {
  if (int r = three_way(a.seconds, b.seconds)) return r;
  return three_way(a.microseconds, b.microseconds);
}

libtop_time_t used_since_previous(const libtop_pinfo_t* p) { return libtop_time_sub(p->total_time, p->p_total_time); }

int compare_on(SortKey key, const libtop_pinfo_t* a, const libtop_pinfo_t* b) {
  switch (key) {
    case SortKey::kCommand:
      return three_way(a->command.compare(b->command), 0);
    case SortKey::kPid:
      return three_way(static_cast<int32_t>(a->pid), static_cast<int32_t>(b->pid));
    case SortKey::kUid:
      return three_way(a->uid, b->uid);
    case SortKey::kPpid:
      return three_way(static_cast<int32_t>(a->ppid), static_cast<int32_t>(b->ppid));
    case SortKey::kGid:
      return three_way(a->pgid, b->pgid);
    case SortKey::kPorts:
      return three_way(a->ports, b->ports);
    case SortKey::kShared:
      return three_way(a->rshrd, b->rshrd);
    case SortKey::kThreads:
      return three_way(a->threads, b->threads);
    case SortKey::kPrivate:
      return three_way(a->rprvt, b->rprvt);
    case SortKey::kVPrivate:
      return three_way(a->vprvt, b->vprvt);
    case SortKey::kVirtualSize:
      return three_way(a->vsize, b->vsize);
    case SortKey::kResidentSize:
      return three_way(a->rsize, b->rsize);
    case SortKey::kFaults:
      return three_way(libtop_i64_value(&a->faults), libtop_i64_value(&b->faults));
    case SortKey::kPageIns:
      return three_way(libtop_i64_value(&a->pageins), libtop_i64_value(&b->pageins));
    case SortKey::kCpuUsage:
      return compare_times(used_since_previous(a), used_since_previous(b));
    case SortKey::kTotalTime:
      return compare_times(a->total_time, b->total_time);
    case SortKey::kNone:
      break;
  }
  return 0;
}

// The sort keys and directions, their names looked up once rather than at
// each of the twenty-odd thousand comparisons of a server-sized table; it
// orders exactly as samp_p_sort does with the same dictionary.
struct ResolvedSort {
  SortKey primary;
  SortKey secondary;
  bool primary_ascending;
  bool secondary_ascending;

  static int compare(const void* data, const libtop_pinfo_t* a, const libtop_pinfo_t* b) {
    const ResolvedSort& spec = *static_cast<const ResolvedSort*>(data);
    int r = compare_on(spec.primary, a, b);
    if (!spec.primary_ascending) r = -r;
    if (r != 0) return r;
    r = compare_on(spec.secondary, a, b);
    return spec.secondary_ascending ? r : -r;
  }
};

uint32_t clamp32(int64_t v) {
  if (v < 0) return 0;
  if (v > static_cast<int64_t>(std::numeric_limits<uint32_t>::max())) return std::numeric_limits<uint32_t>::max();
  return static_cast<uint32_t>(v);
}

void add_field(Dict* out, Field field, const libtop_pinfo_t* p, const libtop_tsamp_t* sample) {
  std::string_view name = kAcceptedFields[field];
  switch (field) {
    case kCommand:
      out->set(name, platform::is_valid_utf8(p->command) ? Value(p->command) : Value("?"));
      break;
    case kPid:
      out->set(name, p->pid);
      break;
    case kCpuUsage:
      out->set(name, double_from_usage(p, sample));
      break;
    case kPorts:
      out->set(name, p->ports);
      break;
    case kShared:
      out->set(name, p->rshrd);
      break;
    case kThreads:
      out->set(name, p->threads);
      break;
    case kPrivate:
      out->set(name, p->rprvt);
      break;
    case kVPrivate:
      out->set(name, p->vprvt);
      break;
    case kVirtualSize:
      out->set(name, p->vsize);
      break;
    case kResidentSize:
      out->set(name, p->rsize);
      break;
    case kFaults:
      out->set(name, clamp32(libtop_i64_value(&p->faults)));
      break;
    case kPageIns:
      out->set(name, clamp32(libtop_i64_value(&p->pageins)));
      break;
    case kTotalSeconds:
      out->set(name, clamp32(p->total_time.seconds));
      break;
    case kTotalMicroSeconds:
      out->set(name, clamp32(p->total_time.microseconds));
      break;
    case kUidPpid:
    case kUsername:
    case kGid:
    case kFieldCount:
      break;  // accepted, and add nothing
  }
}

// The fields a request names, each once, in the order first named; nullopt
// when one is not accepted.
std::optional<std::vector<Field>> requested_fields(const Array& names) {
  std::vector<Field> fields;
  uint32_t seen = 0;
  for (const Value& name : names) {
    std::optional<Field> field = field_named(name);
    if (!field) return std::nullopt;
    if (seen & (1u << *field)) continue;
    seen |= 1u << *field;
    fields.push_back(*field);
  }
  return fields;
}

// What the second sample must read for these output fields and sort keys.
SampleScope scope_for(const std::vector<Field>& fields, const ResolvedSort& sort) {
  SampleScope scope;
  scope.parts = platform::kProcessStatOnly;
  scope.host_load = false;
  auto need = [&scope](bool descriptors, bool private_size, bool regions) {
    if (descriptors) scope.parts |= platform::kProcessDescriptors;
    if (private_size) scope.parts |= platform::kProcessPrivateSize;
    scope.regions = scope.regions || regions;
  };
  for (Field f : fields) need(f == kPorts, f == kVPrivate, f == kPrivate || f == kShared);
  for (SortKey k : {sort.primary, sort.secondary})
    need(k == SortKey::kPorts, k == SortKey::kVPrivate, k == SortKey::kPrivate || k == SortKey::kShared);
  return scope;
}

void print_to_log(void*, const char* format, ...) {
  char text[512];
  va_list args;
  va_start(args, format);
  ::vsnprintf(text, sizeof(text), format, args);
  va_end(args);
  platform::log_error(std::string("hubwarden_info: ") + text);
}

void pause_between_samples() {
  if (platform::has<platform::Sleeper>())
    platform::get<platform::Sleeper>().sleep_for(1.0);
  else
    std::this_thread::sleep_for(std::chrono::seconds(1));
}

// The sampled, sorted, limited table; empty when the sampler fails.
Array sample_processes(const std::vector<Field>& fields, int64_t limit, const ResolvedSort& sort) {
  Array rows;
  if (!platform::has<platform::ProcessTable>()) {
    print_to_log(nullptr, "%s(): Error in process table: %s", "libtop_init", "none installed");
    return rows;
  }
  platform::Clock* clock = platform::has<platform::Clock>() ? &platform::get<platform::Clock>() : nullptr;
  ProcessSampler sampler(platform::get<platform::ProcessTable>(), clock, print_to_log, nullptr);

  // The first sample is the baseline the CPU figures are measured from;
  // every other figure comes from the second.
  SampleScope baseline;
  baseline.parts = platform::kProcessStatOnly;
  baseline.host_load = false;
  if (sampler.sample(baseline) != 0) return rows;
  pause_between_samples();
  if (sampler.sample(scope_for(fields, sort)) != 0) return rows;

  sampler.sort(ResolvedSort::compare, &sort);
  const libtop_tsamp_t* sample = &sampler.tsamp();
  size_t count = static_cast<size_t>(std::min<int64_t>(limit, sample->processes));
  rows.reserve(count);
  for (const libtop_pinfo_t* p = sampler.next(); p && static_cast<int64_t>(rows.size()) < limit; p = sampler.next()) {
    Dict row;
    row.reserve(fields.size());
    for (Field field : fields) add_field(&row, field, p, sample);
    rows.emplace_back(std::move(row));
  }
  return rows;
}

// The signal service's answer, or a refusal when there is none.
int send_signal(pid_t pid, int signal) {
  if (!platform::has<platform::ProcessSignals>()) return EPERM;
  return platform::get<platform::ProcessSignals>().send(pid, signal);
}

}  // namespace

int samp_p_sort_subcomp(std::string_view key, const libtop_pinfo_t* a, const libtop_pinfo_t* b) {
  return compare_on(sort_key_named(key), a, b);
}

int samp_p_sort(const void* sort_spec, const libtop_pinfo_t* a, const libtop_pinfo_t* b) {
  const Dict& spec = *static_cast<const Dict*>(sort_spec);
  auto text = [&spec](std::string_view key) -> std::string_view {
    const std::string* s = spec.find_string(key);
    return s ? std::string_view(*s) : std::string_view();
  };
  int r = samp_p_sort_subcomp(text("primarySortKey"), a, b);
  if (text("primarySortDirection") != "ASC") r = -r;
  if (r != 0) return r;
  r = samp_p_sort_subcomp(text("secondarySortKey"), a, b);
  if (text("secondarySortDirection") != "ASC") r = -r;
  return r;
}

double double_from_usage(const libtop_pinfo_t* process, const libtop_tsamp_t* sample) {
  if (process->p_seq == 0) return 0.0;
  double used = libtop_time_seconds(used_since_previous(process));
  double elapsed = libtop_time_seconds(libtop_time_sub(sample->time, sample->p_time));
  // A clock that stood still or was set back gives no interval to divide by.
  if (elapsed <= 0) return 0.0;
  return used * 100.0 / elapsed;
}

ErrorName list_processes(const Dict& request, ReplySlot& reply, Dict* context) {
  (void)context;
  const Value* fields_value = request.find("fieldsToReturn");
  const Array* field_names = fields_value ? fields_value->as_array() : nullptr;

  int64_t limit = kNoLimit;
  if (const Value* requested = request.find("limit")) {
    int64_t n = integer_value(*requested).value_or(0);
    if (n > 0) limit = n < kNoLimit ? n : kNoLimit;
  }

  const Value kDefaultPrimaryKey("CPUUsage");
  const Value kDefaultSecondaryKey("Command");
  const Value kDefaultPrimaryDirection("DESC");
  const Value kDefaultSecondaryDirection("ASC");
  auto or_default = [&request](const char* key, const Value& fallback) -> const Value& {
    const Value* v = request.find(key);
    return v ? *v : fallback;
  };
  const Value& primary_key = or_default("primarySortKey", kDefaultPrimaryKey);
  const Value& secondary_key = or_default("secondarySortKey", kDefaultSecondaryKey);
  const Value& primary_direction = or_default("primarySortDirection", kDefaultPrimaryDirection);
  const Value& secondary_direction = or_default("secondarySortDirection", kDefaultSecondaryDirection);

  platform::log_notice("hubwarden_info: Got headers");

  std::optional<std::vector<Field>> fields;
  if (!fields_value)
    fields.emplace();
  else if (field_names)
    fields = requested_fields(*field_names);
  if (!fields) {
    platform::log_error("hubwarden_info: Failed error check: Specified an invalid unknown field to return.");
    return kUnknownFieldsToReturnErr;
  }
  if (!field_named(primary_key) || !field_named(secondary_key)) {
    platform::log_error("hubwarden_info: Failed error check: Specified an invalid sort key.");
    return kUnknownSortKeyErr;
  }
  if (!is_direction(primary_direction) || !is_direction(secondary_direction)) {
    platform::log_error("hubwarden_info: Failed error check: Specified an invalid sort direction.");
    return kMalformedSortDirectionErr;
  }

  ResolvedSort sort;
  sort.primary = sort_key_named(*primary_key.as_string());
  sort.secondary = sort_key_named(*secondary_key.as_string());
  sort.primary_ascending = *primary_direction.as_string() == "ASC";
  sort.secondary_ascending = *secondary_direction.as_string() == "ASC";

  Dict result;
  result.set("processInfo", sample_processes(*fields, limit, sort));
  reply = std::move(result);
  return nullptr;
}

ErrorName kill_processes(const Dict& request, ReplySlot& reply, Dict* context) {
  (void)context;
  bool all_killed = true;
  Dict results;
  if (const Array* pids = request.find_array("pids")) {
    for (const Value& n : *pids) {
      std::optional<int64_t> p = integer_value(n);
      if (!p) {
        all_killed = false;
        continue;
      }
      std::string key;
      if (const std::string* text = n.as_string())
        key = *text;
      else if (const uint64_t* u = n.as_unsigned())
        key = std::to_string(*u);
      else
        key = std::to_string(*p);
      bool killed = false;
      // 0 and 1 are the kernel's and init's; negative numbers would signal
      // whole process groups. Neither is ever signalled. The signal service
      // adds its own refusals (the host, its parent, a sandbox's outside).
      if (*p > 1 && *p <= INT32_MAX) {
        pid_t pid = static_cast<pid_t>(*p);
        // The second signal only stands in when the first could not be
        // sent at all; a process that ignores termination counts as ended.
        killed = send_signal(pid, SIGTERM) == 0 || send_signal(pid, SIGKILL) == 0;
      }
      if (!killed) all_killed = false;
      results.set(key, killed ? "SUCCESS" : "FAILURE");
    }
  }
  Dict result;
  result.set("killedAllProcesses", all_killed);
  result.set("killResults", std::move(results));
  reply = std::move(result);
  return nullptr;
}

}  // namespace hubwarden
