// The fixed processor name tables, keyed by registry cpu-type bytes, by
// kernel processor family, and by host processor type and subtype.
#pragma once

#include <cstdint>
#include <optional>
#include <span>

namespace hubwarden {

struct CpuName {
  const char* name;
  const char* technical;  // nullptr: same as name
  const char* pick(bool want_technical) const { return want_technical && technical ? technical : name; }
};

struct RegistryCpuRow {
  int major, minor, cores;
  CpuName name;
};

struct FamilyCpuRow {
  uint32_t family;
  bool xeon;
  int cores;
  CpuName name;
};

struct HostCpuRow {
  int type, subtype;
  CpuName name;
};

std::span<const RegistryCpuRow> registry_cpu_table();
std::span<const FamilyCpuRow> family_cpu_table();
std::span<const HostCpuRow> host_cpu_table();

// The family codes that mark a PowerPC machine.
bool is_powerpc_family(uint64_t family);

}  // namespace hubwarden
