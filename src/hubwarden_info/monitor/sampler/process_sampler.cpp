// Sampling, sorting and walking the process records.
#include "monitor/sampler/process_sampler.h"

#include <string.h>
#include <time.h>

#include <cassert>
#include <cmath>

#include "monitor/sampler/rb_sort.h"

namespace hubwarden {

namespace {

libtop_time_t time_from_microseconds(uint64_t us) {
  libtop_time_t t;
  t.seconds = static_cast<int64_t>(us / 1000000);
  t.microseconds = static_cast<int64_t>(us % 1000000);
  return t;
}

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
  p->state = static_cast<int>(f.state);
  p->total_time = time_from_microseconds(f.cpu_microseconds);
}

}  // namespace

ProcessSampler::ProcessSampler(platform::ProcessTable& table, platform::Clock* clock, libtop_print_t print, void* user)
    : table_(table), clock_(clock), print_(print), user_(user) {}

// A printf-style format passed through to the caller's print function.
template <typename... Args>
void ProcessSampler::report(const char* format, Args... args) {
  if (print_) print_(user_, format, args...);
}

libtop_time_t ProcessSampler::now() const {
  if (clock_) {
    double seconds = clock_->now();
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

bool ProcessSampler::regions_due(bool regions, libtop_pinfo_t* p) const {
  if (!regions || p->preg == LIBTOP_PREG_OFF) {
    p->rprvt = p->rshrd = 0;
    p->regions_seq = 0;
    return false;
  }
  return p->regions_seq == 0 || tsamp_.seq - p->regions_seq > region_interval_;
}

void ProcessSampler::read_due_regions() {
  if (due_.empty()) return;
  // One request for all of them, which the table may serve in parallel. A
  // process whose mappings may not be read keeps zero figures; the rest of
  // its record is whole, so it stays in the sample.
  table_.regions_of(due_pids_, &due_regions_);
  for (size_t i = 0; i < due_.size(); ++i) {
    due_[i]->rprvt = due_regions_[i].resident_private;
    due_[i]->rshrd = due_regions_[i].resident_shared;
    due_[i]->regions_seq = tsamp_.seq;
  }
}

int ProcessSampler::sample(const SampleScope& scope) {
  if (int error = table_.list(&facts_, scope.parts)) {
    report("%s(): Error in list(): %s", "libtop_sample", strerror(error));
    return -1;
  }
  tsamp_.p_time = tsamp_.time;
  tsamp_.time = now();
  tsamp_.seq += 1;
  // After 2^32 samples the numbering would reach 0, which means "never
  // seen"; skip it.
  if (tsamp_.seq == 0) tsamp_.seq = 1;
  if (scope.host_load) {
    platform::HostLoad load;
    if (int error = table_.host_load(&load)) report("%s(): Error in host_load(): %s", "libtop_sample", strerror(error));
    tsamp_.host = load;
  }

  uint32_t threads = 0;
  due_.clear();
  due_pids_.clear();
  for (const platform::ProcessFacts& f : facts_) {
    auto [it, inserted] = processes_.try_emplace(f.pid);
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
    p->seq = tsamp_.seq;
    p->vprvt = f.virtual_private_bytes;
    if (regions_due(scope.regions, p)) {
      due_.push_back(p);
      due_pids_.push_back(p->pid);
    }
    threads += f.threads;
  }
  read_due_regions();
  tsamp_.processes = static_cast<uint32_t>(facts_.size());
  tsamp_.threads = threads;

  // Records of processes gone since the previous sample are never handed
  // out again; dropping them now keeps the table the size of the host's.
  for (auto it = processes_.begin(); it != processes_.end();) {
    if (it->second.seq != tsamp_.seq)
      it = processes_.erase(it);
    else
      ++it;
  }
  sorted_ = false;
  order_.clear();
  reset_walk();
  return 0;
}

void ProcessSampler::reset_walk() {
  next_ = 0;
  walking_ = false;
}

void ProcessSampler::sort(libtop_sort_t compare, const void* data) {
  const libtop_tsamp_t& tsamp = tsamp_;
  assert(tsamp.seq != 0);
  if (tsamp.seq == 0) return;
  RedBlackSort<libtop_pinfo_t> tree(compare, data);
  tree.reserve(processes_.size());
  for (const auto& [pid, p] : processes_)
    if (p.seq == tsamp_.seq) tree.insert(&p);
  order_.clear();
  order_.reserve(tree.size());
  tree.in_order(&order_);
  sorted_ = true;
  reset_walk();
}

const libtop_pinfo_t* ProcessSampler::next() {
  const libtop_tsamp_t& tsamp = tsamp_;
  assert(tsamp.seq != 0);
  if (tsamp.seq == 0) return nullptr;
  if (sorted_) {
    if (next_ < order_.size()) return order_[next_++];
    next_ = 0;
    return nullptr;
  }
  if (!walking_) {
    walk_ = processes_.begin();
    walking_ = true;
  }
  while (walk_ != processes_.end()) {
    const libtop_pinfo_t* p = &walk_->second;
    ++walk_;
    if (p->seq == tsamp_.seq) return p;
  }
  walking_ = false;
  return nullptr;
}

int ProcessSampler::set_region_mode(uint32_t pid, int mode) {
  auto it = processes_.find(pid);
  if (it == processes_.end()) return -1;
  it->second.preg = mode;
  return 0;
}

int ProcessSampler::set_region_interval(uint32_t interval) {
  if (interval > 100) return -1;
  region_interval_ = interval;
  return 0;
}

}  // namespace hubwarden
