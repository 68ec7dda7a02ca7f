// The process sampler as an object: a table of process records keyed by
// process number, refreshed by each sample from a platform::ProcessTable,
// sorted with a caller's comparison and handed out one record at a time.
// The libtop_* functions are a module-wide instance of it; a caller that
// wants a sampler of its own (one command's two samples) makes one.
//
// Calling order: one or more sample(), then tsamp(), sort() and next() as
// needed. Not thread-safe: one thread uses a sampler at a time.
#pragma once

#include <cstdint>
#include <map>
#include <vector>

#include "monitor/sampler/libtop.h"
#include "monitor/sampler/username_cache.h"
#include "platform/clock.h"
#include "platform/process_table.h"

namespace hubwarden {

// What one sample reads. A full sample reads everything the process table
// knows; a caller that needs only some figures (CPU times to difference,
// say) asks for less, and the facts left out read as 0 in the records.
struct SampleScope {
  uint32_t parts = platform::kProcessAllParts;  // platform::ProcessParts
  bool regions = false;                         // resident private and shared
  bool host_load = true;                        // the header's host figures
};

class ProcessSampler {
 public:
  // table must outlive the sampler. clock gives the sample times; nullptr
  // means the system's real-time clock. print (may be null) receives error
  // texts with user as its first argument.
  ProcessSampler(platform::ProcessTable& table, platform::Clock* clock, libtop_print_t print = nullptr,
                 void* user = nullptr);
  ProcessSampler(const ProcessSampler&) = delete;
  ProcessSampler& operator=(const ProcessSampler&) = delete;

  // Takes one sample of the host and every process. Returns 0, or -1 (after
  // printing why) when the process table cannot be listed; the records and
  // the header are then as they were.
  int sample(const SampleScope& scope);

  // The header: sequence number 0 until the first sample.
  const libtop_tsamp_t& tsamp() const { return tsamp_; }

  // Sorts the processes of the latest sample with compare(data, a, b); see
  // libtop_psort for the placement rule. REQUIRES: a sample was taken.
  void sort(libtop_sort_t compare, const void* data);

  // The next record, or nullptr at the end (the next call starts over): in
  // sorted order after sort(), else in ascending process number. Records
  // stay valid until the next sample. REQUIRES: a sample was taken.
  const libtop_pinfo_t* next();

  // Sets one process's region-sampling mode; 0, or -1 for an unknown
  // process.
  int set_region_mode(uint32_t pid, int mode);

  // How many samples region figures may be reused; see libtop_set_interval.
  // Returns 0, or -1 (and keeps the old value) for more than 100.
  int set_region_interval(uint32_t interval);

  // The user name for uid, cached for the sampler's life; nullptr when
  // unknown.
  const char* username(uint32_t uid) { return users_.lookup(uid); }

 private:
  template <typename... Args>
  void report(const char* format, Args... args);
  libtop_time_t now() const;
  // Whether p's region figures are to be read in this sample; clears them
  // when regions are not wanted.
  bool regions_due(bool regions, libtop_pinfo_t* p) const;
  void read_due_regions();
  void reset_walk();

  platform::ProcessTable& table_;
  platform::Clock* const clock_;
  const libtop_print_t print_;
  void* const user_;
  uint32_t region_interval_ = 0;

  libtop_tsamp_t tsamp_;
  // Ordered by process number: the unsorted walk and the sort's insertion
  // order both rely on it.
  std::map<uint32_t, libtop_pinfo_t> processes_;
  UsernameCache users_;
  std::vector<platform::ProcessFacts> facts_;  // reused between samples
  // The records whose region figures the current sample reads.
  std::vector<libtop_pinfo_t*> due_;
  std::vector<uint32_t> due_pids_;
  std::vector<platform::ProcessRegions> due_regions_;

  bool sorted_ = false;
  std::vector<const libtop_pinfo_t*> order_;
  size_t next_ = 0;
  std::map<uint32_t, libtop_pinfo_t>::const_iterator walk_;
  bool walking_ = false;
};

}  // namespace hubwarden
