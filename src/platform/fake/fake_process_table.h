// An in-memory process table for tests: the processes, their region
// figures and the host load are whatever the test puts in. The calls may
// come from several threads at once, as concurrent requests make them; the
// test sets the public fields before and reads the counters after.
#pragma once

#include <cstdint>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "platform/process_table.h"

namespace platform {

class FakeProcessTable : public ProcessTable {
 public:
  std::map<uint32_t, ProcessFacts> processes;          // by pid
  std::map<uint32_t, ProcessRegions> process_regions;  // absent: unreadable
  HostLoad load;
  int list_error = 0;  // returned, with no processes, when non-zero
  int load_error = 0;
  int lists = 0;
  int region_reads = 0;
  std::vector<uint32_t> parts_asked;  // the parts mask of each listing

  // Adds (or replaces) a process with the given identity and CPU time.
  ProcessFacts& add(uint32_t pid, std::string command, uint64_t cpu_microseconds = 0);

  // Like the real table, fills in only the parts asked for: facts of other
  // parts read as 0, so a caller that asks for too little is seen.
  int list(std::vector<ProcessFacts>* out, uint32_t parts) override;

  bool regions(uint32_t pid, ProcessRegions* out) override;
  int host_load(HostLoad* out) override;

 private:
  std::mutex mu_;  // guards the counters and parts_asked during calls
};

}  // namespace platform
