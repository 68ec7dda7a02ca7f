// In-memory process table.
#include "platform/fake/fake_process_table.h"

#include <utility>

namespace platform {

ProcessFacts& FakeProcessTable::add(uint32_t pid, std::string command, uint64_t cpu_microseconds) {
  ProcessFacts& f = processes[pid];
  f = ProcessFacts{};
  f.pid = pid;
  f.ppid = 1;
  f.pgid = pid;
  f.state = ProcessState::Sleeping;
  f.command = std::move(command);
  f.threads = 1;
  f.cpu_microseconds = cpu_microseconds;
  return f;
}

int FakeProcessTable::list(std::vector<ProcessFacts>* out, uint32_t parts) {
  std::lock_guard<std::mutex> lock(mu_);
  ++lists;
  parts_asked.push_back(parts);
  out->clear();
  if (list_error) return list_error;
  for (const auto& [pid, facts] : processes) {
    ProcessFacts f = facts;
    if (!(parts & kProcessOwner)) f.uid = 0;
    if (!(parts & (kProcessOwner | kProcessPrivateSize))) f.virtual_private_bytes = 0;
    if (!(parts & kProcessDescriptors)) f.ports = 0;
    out->push_back(std::move(f));
  }
  return 0;
}

bool FakeProcessTable::regions(uint32_t pid, ProcessRegions* out) {
  std::lock_guard<std::mutex> lock(mu_);
  ++region_reads;
  auto it = process_regions.find(pid);
  if (it == process_regions.end()) {
    *out = ProcessRegions{};
    return false;
  }
  *out = it->second;
  return true;
}

int FakeProcessTable::host_load(HostLoad* out) {
  *out = load;
  return load_error;
}

}  // namespace platform
