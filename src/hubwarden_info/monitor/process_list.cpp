// "listProcesses" and "killProcesses" over the process sampler.
//
// Choices where the console's request may be odd:
// - "fieldsToReturn" that is not an array counts as naming unknown fields;
//   a sort key or direction that is not a string is an unknown key or a
//   malformed direction.
// - "limit" counts only as a number; reals are truncated and values beyond
//   the 32-bit range saturate, so they mean "no limit" rather than wrap.
// - "pids" elements that are numbers are signalled by their integer value
//   (reals truncated) and reported under its decimal text. A string element
//   is never signalled (not even one holding digits): it is "FAILURE" under
//   its own text. Elements of any other type cannot be named in the reply;
//   they are skipped but still make "killedAllProcesses" false. Numbers
//   beyond the range of process numbers are "FAILURE" without a signal.
// - When the sampler cannot start or sample, the reply is an empty
//   "processInfo" array (the reason is in the system log).
//
// Log lines: "Got headers" at notice priority, the failed checks at error
// priority, like every other failure the module logs.
#include "monitor/process_list.h"

#include <signal.h>
#include <stdarg.h>
#include <stdio.h>

#include <chrono>
#include <climits>
#include <cstdint>
#include <limits>
#include <mutex>
#include <string>
#include <thread>
#include <utility>

#include "platform/log.h"
#include "request/operations.h"

namespace hubwarden {

namespace {

constexpr const char* kAcceptedFields[] = {
    "Command", "PID",     "UIDPPID",      "CPUUsage",          "GID",         "Ports",
    "Shared",  "Threads", "Private",      "VPrivate",          "VirtualSize", "ResidentSize",
    "Faults",  "PageIns", "TotalSeconds", "TotalMicroSeconds", "Username",
};

constexpr int64_t kNoLimit = 2147483647;

// One sampler per process: a second request waits for the first to finish.
std::mutex gSamplerMutex;

std::function<void()>& sample_pause() {
  static std::function<void()> pause;
  return pause;
}

std::function<int(pid_t, int)>& signal_sender() {
  static std::function<int(pid_t, int)> send;
  return send;
}

void pause_between_samples() {
  if (sample_pause())
    sample_pause()();
  else
    std::this_thread::sleep_for(std::chrono::seconds(1));
}

int send_signal(pid_t pid, int signal) {
  if (signal_sender()) return signal_sender()(pid, signal);
  return ::kill(pid, signal);
}

void print_to_log(void*, const char* format, ...) {
  char text[512];
  va_list args;
  va_start(args, format);
  ::vsnprintf(text, sizeof(text), format, args);
  va_end(args);
  platform::log_error(std::string("hubwarden_info: ") + text);
}

bool is_accepted(const Value& name) {
  const std::string* s = name.as_string();
  if (!s) return false;
  for (const char* accepted : kAcceptedFields)
    if (*s == accepted) return true;
  return false;
}

bool is_direction(const Value& v) {
  const std::string* s = v.as_string();
  return s && (*s == "ASC" || *s == "DESC");
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

uint32_t clamp32(int64_t v) {
  if (v < 0) return 0;
  if (v > static_cast<int64_t>(std::numeric_limits<uint32_t>::max())) return std::numeric_limits<uint32_t>::max();
  return static_cast<uint32_t>(v);
}

bool is_valid_utf8(std::string_view s) {
  size_t i = 0;
  while (i < s.size()) {
    unsigned char c = static_cast<unsigned char>(s[i]);
    size_t length;
    uint32_t code;
    if (c < 0x80) {
      ++i;
      continue;
    } else if ((c & 0xE0) == 0xC0) {
      length = 2;
      code = c & 0x1F;
    } else if ((c & 0xF0) == 0xE0) {
      length = 3;
      code = c & 0x0F;
    } else if ((c & 0xF8) == 0xF0) {
      length = 4;
      code = c & 0x07;
    } else {
      return false;
    }
    if (s.size() - i < length) return false;
    for (size_t k = 1; k < length; ++k) {
      unsigned char next = static_cast<unsigned char>(s[i + k]);
      if ((next & 0xC0) != 0x80) return false;
      code = (code << 6) | (next & 0x3F);
    }
    static constexpr uint32_t kSmallest[] = {0, 0, 0x80, 0x800, 0x10000};
    if (code < kSmallest[length] || code > 0x10FFFF || (code >= 0xD800 && code <= 0xDFFF)) return false;
    i += length;
  }
  return true;
}

void add_field(Dict* out, const std::string& field, const libtop_pinfo_t* p, const libtop_tsamp_t* sample) {
  if (field == "Command")
    out->set(field, is_valid_utf8(p->command) ? Value(p->command) : Value("?"));
  else if (field == "PID")
    out->set(field, p->pid);
  else if (field == "CPUUsage")
    out->set(field, double_from_usage(p, sample));
  else if (field == "Ports")
    out->set(field, p->ports);
  else if (field == "Shared")
    out->set(field, p->rshrd);
  else if (field == "Threads")
    out->set(field, p->threads);
  else if (field == "Private")
    out->set(field, p->rprvt);
  else if (field == "VPrivate")
    out->set(field, p->vprvt);
  else if (field == "VirtualSize")
    out->set(field, p->vsize);
  else if (field == "ResidentSize")
    out->set(field, p->rsize);
  else if (field == "Faults")
    out->set(field, clamp32(libtop_i64_value(&p->faults)));
  else if (field == "PageIns")
    out->set(field, clamp32(libtop_i64_value(&p->pageins)));
  else if (field == "TotalSeconds")
    out->set(field, clamp32(p->total_time.seconds));
  else if (field == "TotalMicroSeconds")
    out->set(field, clamp32(p->total_time.microseconds));
  // "UIDPPID", "Username" and "GID" are accepted and add nothing.
}

// The sampled, sorted, limited table; empty when the sampler fails.
Array sample_processes(const Array* fields, int64_t limit, const Dict& sort_spec) {
  std::lock_guard<std::mutex> lock(gSamplerMutex);
  Array rows;
  if (libtop_init(print_to_log, nullptr) != 0) return rows;
  bool sampled = libtop_sample(true, false) == 0;
  if (sampled) {
    pause_between_samples();
    sampled = libtop_sample(true, false) == 0;
  }
  if (sampled) {
    libtop_psort(samp_p_sort, &sort_spec);
    const libtop_tsamp_t* sample = libtop_tsamp();
    for (const libtop_pinfo_t* p = libtop_piterate(); p && static_cast<int64_t>(rows.size()) < limit;
         p = libtop_piterate()) {
      Dict row;
      if (fields)
        for (const Value& field : *fields) add_field(&row, *field.as_string(), p, sample);
      rows.emplace_back(std::move(row));
    }
  }
  libtop_fini();
  return rows;
}

}  // namespace

int samp_p_sort_subcomp(std::string_view key, const libtop_pinfo_t* a, const libtop_pinfo_t* b) {
  if (key == "Command") return three_way(a->command.compare(b->command), 0);
  if (key == "PID") return three_way(static_cast<int32_t>(a->pid), static_cast<int32_t>(b->pid));
  if (key == "UID") return three_way(a->uid, b->uid);
  if (key == "PPID") return three_way(static_cast<int32_t>(a->ppid), static_cast<int32_t>(b->ppid));
  if (key == "GID") return three_way(a->pgid, b->pgid);
  if (key == "Ports") return three_way(a->ports, b->ports);
  if (key == "Shared") return three_way(a->rshrd, b->rshrd);
  if (key == "Threads") return three_way(a->threads, b->threads);
  if (key == "Private") return three_way(a->rprvt, b->rprvt);
  if (key == "VPrivate") return three_way(a->vprvt, b->vprvt);
  if (key == "VirtualSize") return three_way(a->vsize, b->vsize);
  if (key == "ResidentSize") return three_way(a->rsize, b->rsize);
  if (key == "Faults") return three_way(libtop_i64_value(&a->faults), libtop_i64_value(&b->faults));
  if (key == "PageIns") return three_way(libtop_i64_value(&a->pageins), libtop_i64_value(&b->pageins));
  if (key == "CPUUsage") return compare_times(used_since_previous(a), used_since_previous(b));
  if (key == "TotalSeconds" || key == "TotalMicroSeconds") return compare_times(a->total_time, b->total_time);
  return 0;
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

void set_process_sample_pause_for_testing(std::function<void()> pause) { sample_pause() = std::move(pause); }

void set_signal_sender_for_testing(std::function<int(pid_t, int)> send) { signal_sender() = std::move(send); }

ErrorName list_processes(const Dict& request, ReplySlot& reply, Dict* context) {
  (void)context;
  const Value* fields_value = request.find("fieldsToReturn");
  const Array* fields = fields_value ? fields_value->as_array() : nullptr;

  int64_t limit = kNoLimit;
  if (const Value* requested = request.find_number("limit")) {
    int64_t n = requested->to_int64().value_or(0);
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

  bool fields_known = !fields_value || fields;
  if (fields)
    for (const Value& field : *fields) fields_known = fields_known && is_accepted(field);
  if (!fields_known) {
    platform::log_error("hubwarden_info: Failed error check: Specified an invalid unknown field to return.");
    return kUnknownFieldsToReturnErr;
  }
  if (!is_accepted(primary_key) || !is_accepted(secondary_key)) {
    platform::log_error("hubwarden_info: Failed error check: Specified an invalid sort key.");
    return kUnknownSortKeyErr;
  }
  if (!is_direction(primary_direction) || !is_direction(secondary_direction)) {
    platform::log_error("hubwarden_info: Failed error check: Specified an invalid sort direction.");
    return kMalformedSortDirectionErr;
  }

  Dict sort_spec;
  sort_spec.set("primarySortKey", primary_key);
  sort_spec.set("secondarySortKey", secondary_key);
  sort_spec.set("primarySortDirection", primary_direction);
  sort_spec.set("secondarySortDirection", secondary_direction);

  Dict result;
  result.set("processInfo", sample_processes(fields, limit, sort_spec));
  reply = std::move(result);
  return nullptr;
}

ErrorName kill_processes(const Dict& request, ReplySlot& reply, Dict* context) {
  (void)context;
  bool all_killed = true;
  Dict results;
  if (const Array* pids = request.find_array("pids")) {
    for (const Value& n : *pids) {
      std::string key;
      bool killed = false;
      if (n.is_number()) {
        int64_t p = n.to_int64().value_or(0);
        key = std::to_string(p);
        // 0 and 1 are the kernel's and init's; negative numbers would signal
        // whole process groups. Neither is ever signalled.
        if (p > 1 && p <= INT32_MAX) {
          pid_t pid = static_cast<pid_t>(p);
          // The second signal only stands in when the first could not be
          // sent at all; a process that ignores termination counts as ended.
          killed = send_signal(pid, SIGTERM) == 0 || send_signal(pid, SIGKILL) == 0;
        }
      } else if (const std::string* text = n.as_string()) {
        key = *text;
      } else {
        all_killed = false;
        continue;
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
