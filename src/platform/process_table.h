// The host's process table as the process sampler needs it: one record of
// identity, state, memory and CPU facts per process, region figures on
// request, and a few host-wide load figures gathered with each sample.
//
// Processes come and go while the table is read. An implementation leaves
// out any process it could not read in full rather than report half a
// record, and never fails the whole listing for one vanished process.
// Implementations keep no state between calls and are safe from any thread.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace platform {

// The eight states the sampler tells apart, numbered as the sampler's
// state names are.
enum class ProcessState : uint8_t {
  Zombie = 0,
  Running = 1,
  Stuck = 2,  // waiting uninterruptibly, usually on a device
  Sleeping = 3,
  Idle = 4,     // an idle kernel thread
  Stopped = 5,  // stopped by a signal or a tracer
  Halted = 6,   // dead, being torn down
  Unknown = 7,
};

struct ProcessFacts {
  uint32_t pid = 0;
  uint32_t ppid = 0;
  uint32_t pgid = 0;
  uint32_t uid = 0;  // real user
  ProcessState state = ProcessState::Unknown;
  // The kernel's command name as raw bytes; not necessarily UTF-8.
  std::string command;
  // When the process started, in the table's own units: two records with the
  // same pid and different start times are different processes.
  uint64_t start_time = 0;
  uint32_t threads = 0;
  uint32_t ports = 0;  // open descriptors; 0 when they cannot be counted
  uint64_t resident_bytes = 0;
  uint64_t virtual_bytes = 0;
  // Private (anonymous data and stack) address space; cheap to know, so
  // every listing carries it.
  uint64_t virtual_private_bytes = 0;
  uint64_t faults = 0;            // minor page faults
  uint64_t page_ins = 0;          // faults that had to read from storage
  uint64_t cpu_microseconds = 0;  // user plus system time
};

// Resident memory split by sharing; reading it walks the process's
// mappings, so the sampler asks only when region figures are wanted.
struct ProcessRegions {
  uint64_t resident_private = 0;
  uint64_t resident_shared = 0;
};

// The parts of a process's record a listing reads. The stat part (identity,
// state, command, start time, threads, sizes, faults and CPU time) is always
// read; each part here costs one more read per process, so a caller asks
// only for what it will use. Facts of parts not asked for are 0.
enum ProcessParts : uint32_t {
  kProcessStatOnly = 0,
  kProcessOwner = 1u << 0,        // uid; brings virtual_private_bytes along
  kProcessPrivateSize = 1u << 1,  // virtual_private_bytes
  kProcessDescriptors = 1u << 2,  // ports
  kProcessAllParts = kProcessOwner | kProcessPrivateSize | kProcessDescriptors,
};

struct HostLoad {
  double load_average[3] = {0, 0, 0};
  uint64_t faults = 0;  // system-wide counters since boot
  uint64_t page_ins = 0;
  uint64_t page_outs = 0;
  // Summed over whole disks (partitions and stacked devices are left out
  // so that no traffic is counted twice).
  uint64_t disk_bytes_read = 0;
  uint64_t disk_bytes_written = 0;
  uint64_t disk_reads = 0;
  uint64_t disk_writes = 0;
};

class ProcessTable {
 public:
  ProcessTable() = default;
  ProcessTable(const ProcessTable&) = delete;
  ProcessTable& operator=(const ProcessTable&) = delete;
  virtual ~ProcessTable() = default;

  // Replaces *out with the facts of every process that could be read, in no
  // particular order; parts is a mask of ProcessParts. A process whose stat,
  // owner or private-size part cannot be read is left out; descriptors that
  // cannot be counted read as 0 ports. Returns 0, or an errno
  // value when the table itself cannot be listed (then *out is empty).
  virtual int list(std::vector<ProcessFacts>* out, uint32_t parts) = 0;

  // Region figures of one process. Returns false when the process is gone
  // or its mappings may not be read; *out is then zero.
  virtual bool regions(uint32_t pid, ProcessRegions* out) = 0;

  // Region figures of each of pids: *out gets one entry per pid, in order,
  // zero where regions() would return false. An implementation may read
  // several at once; by default this asks regions() for each.
  virtual void regions_of(const std::vector<uint32_t>& pids, std::vector<ProcessRegions>* out) {
    out->assign(pids.size(), ProcessRegions{});
    for (size_t i = 0; i < pids.size(); ++i) regions(pids[i], &(*out)[i]);
  }

  // Host-wide figures. Returns 0, or an errno value for the first figure
  // that could not be read (the others are still filled in).
  virtual int host_load(HostLoad* out) = 0;
};

}  // namespace platform
