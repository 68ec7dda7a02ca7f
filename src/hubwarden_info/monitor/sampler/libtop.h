// The process sampler's record types and its module-wide instance: a table
// of process records keyed by process number, refreshed by each sample from
// the installed platform::ProcessTable, sorted with a caller's comparison
// and handed out one record at a time. The functions forward to one
// ProcessSampler (process_sampler.h) made by libtop_init.
//
// Calling order: libtop_init, one or more libtop_sample, then libtop_tsamp,
// libtop_psort and libtop_piterate as needed, and libtop_fini.
//
// The instance is module-wide and not guarded: a caller holds its own lock
// from libtop_init to libtop_fini so that two users never interleave.
#pragma once

#include <cstdint>
#include <string>

#include "monitor/sampler/libtop_i64.h"
#include "platform/process_table.h"

namespace hubwarden {

// Seconds and microseconds; microseconds in [0, 1000000) once normalised.
struct libtop_time_t {
  int64_t seconds = 0;
  int64_t microseconds = 0;
};

// a - b, borrowing a second when the microsecond difference is negative.
libtop_time_t libtop_time_sub(libtop_time_t a, libtop_time_t b);
double libtop_time_seconds(libtop_time_t t);

struct libtop_tsamp_t {
  uint32_t seq = 0;      // 0 before the first sample
  libtop_time_t time;    // of the latest sample
  libtop_time_t p_time;  // of the sample before it
  // Host-wide figures of the latest sample.
  platform::HostLoad host;
  uint32_t processes = 0;
  uint32_t threads = 0;
};

inline constexpr int LIBTOP_STATE_ZOMBIE = 0;
inline constexpr int LIBTOP_STATE_RUN = 1;
inline constexpr int LIBTOP_STATE_STUCK = 2;
inline constexpr int LIBTOP_STATE_SLEEP = 3;
inline constexpr int LIBTOP_STATE_IDLE = 4;
inline constexpr int LIBTOP_STATE_STOP = 5;
inline constexpr int LIBTOP_STATE_HALT = 6;
inline constexpr int LIBTOP_STATE_UNKNOWN = 7;
inline constexpr int LIBTOP_STATE_MAX = 7;

// Region-sampling modes for libtop_preg. By default a process's region
// figures are read whenever a sample asks for them; a process set to off is
// never walked (its resident private and shared figures stay 0). The
// virtual private figure is not a region figure here: the process table
// gives it cheaply with every listing.
inline constexpr int LIBTOP_PREG_DEFAULT = 0;
inline constexpr int LIBTOP_PREG_OFF = 1;

struct libtop_pinfo_t {
  uint32_t uid = 0;
  uint32_t pid = 0;
  uint32_t ppid = 0;
  uint32_t pgid = 0;
  uint64_t rsize = 0;  // resident
  uint64_t vsize = 0;  // virtual
  uint64_t rprvt = 0;  // resident private
  uint64_t vprvt = 0;  // virtual private
  uint64_t rshrd = 0;  // resident shared
  uint32_t threads = 0;
  uint32_t ports = 0;
  libtop_time_t total_time;
  libtop_time_t p_total_time;  // at the previous sample
  libtop_i64_t faults;
  libtop_i64_t pageins;
  uint32_t seq = 0;    // sample in which the process was last seen
  uint32_t p_seq = 0;  // the sample before; 0 when it was not seen there
  std::string command;
  int state = LIBTOP_STATE_UNKNOWN;
  int preg = LIBTOP_PREG_DEFAULT;
  // Private bookkeeping: tells a new process from an old one that had the
  // same number, and when regions were last read.
  uint64_t start_time = 0;
  uint32_t regions_seq = 0;
};

// Receives error texts; format and arguments as printf.
using libtop_print_t = void (*)(void* user, const char* format, ...);
// Three-way comparison for libtop_psort: -1, 0 or 1.
using libtop_sort_t = int (*)(const void* data, const libtop_pinfo_t* a, const libtop_pinfo_t* b);

// Starts the sampler. Returns 0, or -1 (after printing why) when no
// process table is installed.
int libtop_init(libtop_print_t print, void* user);

// Stops the sampler and frees every record and cache.
void libtop_fini();

// Takes one full sample of the host and every process. regions asks for
// the resident private and shared figures; frameworks asks for
// shared-framework figures, which this platform does not have (accepted and
// ignored).
// Returns 0, or -1 (after printing why) when the process table cannot be
// listed; the records are then as they were.
int libtop_sample(bool regions, bool frameworks);

const libtop_tsamp_t* libtop_tsamp();

// Sorts the processes of the latest sample with compare(data, a, b).
// REQUIRES: a sample was taken.
void libtop_psort(libtop_sort_t compare, const void* data);

// The next record, or nullptr at the end (the next call starts over). In
// sorted order after libtop_psort, else in ascending process number; only
// processes seen in the latest sample. REQUIRES: a sample was taken.
const libtop_pinfo_t* libtop_piterate();

// Sets one process's region-sampling mode; 0, or -1 for an unknown process.
int libtop_preg(uint32_t pid, int mode);

// "zombie", "running", "stuck", "sleeping", "idle", "stopped", "halted",
// "unknown". REQUIRES: state <= LIBTOP_STATE_MAX.
const char* libtop_state_str(uint32_t state);

// The user name for uid, cached per user number; nullptr when unknown.
// REQUIRES: the sampler is started.
const char* libtop_username(uint32_t uid);

// How many samples a process's region figures may be reused before they
// are read again (0: every sample). Accepts 0 to 100 (returns 0); refuses
// anything larger (returns -1).
int libtop_set_interval(uint32_t interval);

}  // namespace hubwarden
