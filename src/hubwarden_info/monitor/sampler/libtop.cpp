// The sampler's module-wide state and its operations.
#include "monitor/sampler/libtop.h"

#include <string.h>
#include <time.h>

#include <cassert>
#include <cmath>
#include <map>
#include <memory>
#include <vector>

#include "monitor/sampler/rb_sort.h"
#include "monitor/sampler/username_cache.h"
#include "platform/clock.h"
#include "platform/process_table.h"
#include "platform/registry.h"

namespace hubwarden {

namespace {

struct Sampler {
  libtop_print_t print = nullptr;
  void* user = nullptr;
  platform::ProcessTable* table = nullptr;
  libtop_tsamp_t tsamp;
  // Ordered by process number: the unsorted walk and the sort's insertion
  // order both rely on it.
  std::map<uint32_t, libtop_pinfo_t> processes;
  UsernameCache users;
  std::vector<platform::ProcessFacts> facts;  // reused between samples

  bool sorted = false;
  std::vector<const libtop_pinfo_t*> order;
  size_t next = 0;
  std::map<uint32_t, libtop_pinfo_t>::const_iterator walk;
  bool walking = false;
};

Sampler* gSampler = nullptr;
// Set apart from the sampler so that it may be chosen before libtop_init.
uint32_t gRegionInterval = 0;

// The header of a stopped sampler reads as "no sample yet".
const libtop_tsamp_t& current_tsamp() {
  static const libtop_tsamp_t kNoSample;
  return gSampler ? gSampler->tsamp : kNoSample;
}

// A printf-style format passed through to the caller's print function.
template <typename... Args>
void report(const char* format, Args... args) {
  if (gSampler && gSampler->print) gSampler->print(gSampler->user, format, args...);
}

libtop_time_t time_from_microseconds(uint64_t us) {
  libtop_time_t t;
  t.seconds = static_cast<int64_t>(us / 1000000);
  t.microseconds = static_cast<int64_t>(us % 1000000);
  return t;
}

libtop_time_t now() {
  if (platform::has<platform::Clock>()) {
    double seconds = platform::get<platform::Clock>().now();
    if (std::isfinite(seconds) && seconds >= 0 && seconds < 9.0e15) {
      libtop_time_t t;
      t.seconds = static_cast<int64_t>(seconds);
      t.microseconds = std::llround((seconds - static_cast<double>(t.seconds)) * 1e6);
      if (t.microseconds >= 1000000) {
        t.seconds += 1;
        t.microseconds -= 1000000;
      }
      return t;
    }
  }
  struct timespec ts;
  ::clock_gettime(CLOCK_REALTIME, &ts);
  return libtop_time_t{ts.tv_sec, ts.tv_nsec / 1000};
}

int state_of(platform::ProcessState s) { return static_cast<int>(s); }

void fill_record(const platform::ProcessFacts& f, libtop_pinfo_t* p) {
  p->uid = f.uid;
  p->pid = f.pid;
  p->ppid = f.ppid;
  p->pgid = f.pgid;
  p->rsize = f.resident_bytes;
  p->vsize = f.virtual_bytes;
  p->threads = f.threads;
  p->ports = f.ports;
  p->command = f.command;
  p->state = state_of(f.state);
  p->total_time = time_from_microseconds(f.cpu_microseconds);
}

void sample_regions(Sampler& s, const platform::ProcessFacts& f, bool regions, libtop_pinfo_t* p) {
  if (!regions || p->preg == LIBTOP_PREG_OFF) {
    p->rprvt = p->rshrd = p->vprvt = 0;
    p->regions_seq = 0;
    return;
  }
  p->vprvt = f.virtual_private_bytes;
  if (p->regions_seq != 0 && s.tsamp.seq - p->regions_seq <= gRegionInterval) return;
  platform::ProcessRegions r;
  // A process whose mappings may not be read keeps zero figures; the rest
  // of its record is whole, so it stays in the sample.
  s.table->regions(f.pid, &r);
  p->rprvt = r.resident_private;
  p->rshrd = r.resident_shared;
  p->regions_seq = s.tsamp.seq;
}

void read_host_load(Sampler& s) {
  platform::HostLoad load;
  if (int error = s.table->host_load(&load)) report("%s(): Error in host_load(): %s", "libtop_sample", strerror(error));
  s.tsamp.host = load;
}

}  // namespace

libtop_time_t libtop_time_sub(libtop_time_t a, libtop_time_t b) {
  libtop_time_t d;
  d.seconds = a.seconds - b.seconds;
  d.microseconds = a.microseconds - b.microseconds;
  if (d.microseconds < 0) {
    d.seconds -= 1;
    d.microseconds += 1000000;
  }
  return d;
}

double libtop_time_seconds(libtop_time_t t) {
  return static_cast<double>(t.seconds) + static_cast<double>(t.microseconds) / 1e6;
}

int libtop_init(libtop_print_t print, void* user) {
  if (gSampler) libtop_fini();
  if (!platform::has<platform::ProcessTable>()) {
    if (print) print(user, "%s(): Error in process table: %s", "libtop_init", "none installed");
    return -1;
  }
  gSampler = new Sampler;
  gSampler->print = print;
  gSampler->user = user;
  gSampler->table = &platform::get<platform::ProcessTable>();
  return 0;
}

void libtop_fini() {
  delete gSampler;
  gSampler = nullptr;
  gRegionInterval = 0;
}

int libtop_sample(bool regions, bool frameworks) {
  (void)frameworks;
  if (!gSampler) return -1;
  Sampler& s = *gSampler;

  if (int error = s.table->list(&s.facts)) {
    report("%s(): Error in list(): %s", "libtop_sample", strerror(error));
    return -1;
  }
  s.tsamp.p_time = s.tsamp.time;
  s.tsamp.time = now();
  s.tsamp.seq += 1;
  // After 2^32 samples the numbering would reach 0, which means "never
  // seen"; skip it.
  if (s.tsamp.seq == 0) s.tsamp.seq = 1;
  read_host_load(s);

  uint32_t threads = 0;
  for (const platform::ProcessFacts& f : s.facts) {
    auto [it, inserted] = s.processes.try_emplace(f.pid);
    libtop_pinfo_t* p = &it->second;
    // A number reused by a new process must not inherit the old one's
    // history, or its CPU usage would be measured against another process.
    if (!inserted && p->start_time != f.start_time) {
      *p = libtop_pinfo_t{};
      inserted = true;
    }
    if (inserted) {
      p->start_time = f.start_time;
      p->faults = libtop_i64_init(f.faults);
      p->pageins = libtop_i64_init(f.page_ins);
      fill_record(f, p);
      // Nothing is known of the time used before now: the usage since the
      // previous sample is zero, matching the usage figure of 0.0.
      p->p_total_time = p->total_time;
    } else {
      libtop_i64_update(&p->faults, f.faults);
      libtop_i64_update(&p->pageins, f.page_ins);
      p->p_total_time = p->total_time;
      fill_record(f, p);
    }
    p->p_seq = p->seq;
    p->seq = s.tsamp.seq;
    sample_regions(s, f, regions, p);
    threads += f.threads;
  }
  s.tsamp.processes = static_cast<uint32_t>(s.facts.size());
  s.tsamp.threads = threads;

  // Records of processes gone since the previous sample are never handed
  // out again; dropping them now keeps the table the size of the host's.
  for (auto it = s.processes.begin(); it != s.processes.end();) {
    if (it->second.seq != s.tsamp.seq)
      it = s.processes.erase(it);
    else
      ++it;
  }
  s.sorted = false;
  s.order.clear();
  s.next = 0;
  s.walking = false;
  return 0;
}

const libtop_tsamp_t* libtop_tsamp() { return gSampler ? &gSampler->tsamp : nullptr; }

void libtop_psort(libtop_sort_t compare, const void* data) {
  const libtop_tsamp_t& tsamp = current_tsamp();
  assert(tsamp.seq != 0);
  if (tsamp.seq == 0) return;
  Sampler& s = *gSampler;
  RedBlackSort<libtop_pinfo_t> tree(compare, data);
  tree.reserve(s.processes.size());
  for (const auto& [pid, p] : s.processes)
    if (p.seq == s.tsamp.seq) tree.insert(&p);
  s.order.clear();
  s.order.reserve(tree.size());
  tree.in_order(&s.order);
  s.sorted = true;
  s.next = 0;
}

const libtop_pinfo_t* libtop_piterate() {
  const libtop_tsamp_t& tsamp = current_tsamp();
  assert(tsamp.seq != 0);
  if (tsamp.seq == 0) return nullptr;
  Sampler& s = *gSampler;
  if (s.sorted) {
    if (s.next < s.order.size()) return s.order[s.next++];
    s.next = 0;
    return nullptr;
  }
  if (!s.walking) {
    s.walk = s.processes.begin();
    s.walking = true;
  }
  while (s.walk != s.processes.end()) {
    const libtop_pinfo_t* p = &s.walk->second;
    ++s.walk;
    if (p->seq == s.tsamp.seq) return p;
  }
  s.walking = false;
  return nullptr;
}

int libtop_preg(uint32_t pid, int mode) {
  if (!gSampler) return -1;
  auto it = gSampler->processes.find(pid);
  if (it == gSampler->processes.end()) return -1;
  it->second.preg = mode;
  return 0;
}

const char* libtop_state_str(uint32_t state) {
  static const char* const kNames[] = {"zombie", "running", "stuck",  "sleeping",
                                       "idle",   "stopped", "halted", "unknown"};
  assert(state <= LIBTOP_STATE_MAX);
  if (state > static_cast<uint32_t>(LIBTOP_STATE_MAX)) return kNames[LIBTOP_STATE_UNKNOWN];
  return kNames[state];
}

const char* libtop_username(uint32_t uid) {
  if (!gSampler) return nullptr;
  return gSampler->users.lookup(uid);
}

int libtop_set_interval(uint32_t interval) {
  if (interval > 100) return -1;
  gRegionInterval = interval;
  return 0;
}

}  // namespace hubwarden
