// The ASI_ hardware description functions and get_computer_info. Kernel
// variables and registry properties come from the installed Hardware
// service; every function degrades to a default instead of failing.
#include <cstdio>
#include <mutex>

#include "monitor/hwinfo/computer_info.h"
#include "monitor/hwinfo/cpu_tables.h"
#include "platform/file_util.h"
#include "platform/hardware.h"
#include "platform/paths.h"
#include "platform/registry.h"
#include "plist/codec.h"

namespace hubwarden {

namespace {

// The system-information bundle: a machine-type table (model identifier to
// name key) and an English strings table (name key to display name), both
// XML dictionaries.
constexpr const char* kMachineTypesPath =
    "/System/Library/CoreServices/MarloSystemInfo.bundle/Contents/Resources/MachineTypes.plist";
constexpr const char* kSystemInfoStringsPath =
    "/System/Library/CoreServices/MarloSystemInfo.bundle/Contents/Resources/English.lproj/MarloSystemInfo.plist";

platform::Hardware* hardware() {
  return platform::has<platform::Hardware>() ? &platform::get<platform::Hardware>() : nullptr;
}

std::optional<uint64_t> sysctl_integer(const char* name) {
  auto* hw = hardware();
  return hw ? hw->sysctl_integer(name) : std::nullopt;
}

std::optional<std::string> sysctl_string(const char* name, size_t max_bytes) {
  auto* hw = hardware();
  std::optional<std::string> s = hw ? hw->sysctl_string(name) : std::nullopt;
  if (s && s->size() > max_bytes - 1) s->resize(max_bytes - 1);
  return s;
}

std::optional<platform::HostBasicInfo> host_basic_info() {
  auto* hw = hardware();
  return hw ? hw->host_basic_info() : std::nullopt;
}

// Each way of naming the processor remembers its last key and answer.
struct KindCache {
  bool valid = false;
  uint64_t key = 0;
  std::optional<CpuName> name;
};

std::mutex cache_mutex;
KindCache registry_cache, family_cache, host_cache;
bool xeon_seen = false;  // process-wide: once set, stays set

uint64_t cache_key(uint64_t a, uint64_t b, uint64_t c) { return (a << 40) ^ (b << 20) ^ c; }

std::optional<CpuName> lookup_registry(int major, int minor, int cores) {
  std::optional<CpuName> fallback;
  for (const RegistryCpuRow& row : registry_cpu_table()) {
    if (row.major != major || row.cores != cores) continue;
    if (row.minor == minor) return row.name;
    fallback = row.name;  // the last near miss wins
  }
  return fallback;
}

std::optional<CpuName> lookup_family(uint64_t family, bool xeon, int cores) {
  for (const FamilyCpuRow& row : family_cpu_table())
    if (row.family == family && row.xeon == xeon && row.cores == cores) return row.name;
  return std::nullopt;
}

std::optional<CpuName> lookup_host(int type, int subtype) {
  for (const HostCpuRow& row : host_cpu_table())
    if (row.type == type && row.subtype == subtype) return row.name;
  return std::nullopt;
}

std::optional<CpuName> cached(KindCache& cache, uint64_t key, std::optional<CpuName> (*compute)(uint64_t)) {
  if (cache.valid && cache.key == key) return cache.name;
  cache.valid = true;
  cache.key = key;
  cache.name = compute(key);
  return cache.name;
}

int clamp_cores(std::optional<uint64_t> v) {
  if (!v) return 1;
  return *v > 1024 ? 1024 : static_cast<int>(*v);
}

std::optional<plist::Dict> read_dictionary(const char* path) {
  std::optional<std::string> text = platform::read_file(platform::resolve(path));
  if (!text) return std::nullopt;
  plist::Parsed parsed = plist::parse_xml(*text);
  if (!parsed.ok() || !parsed.value.as_dict()) return std::nullopt;
  return *parsed.value.as_dict();
}

}  // namespace

int ASI_NumberOfCPUs() {
  uint64_t family = sysctl_integer("hw.cpufamily").value_or(0);
  if (is_powerpc_family(family)) {
    std::optional<platform::HostBasicInfo> info = host_basic_info();
    return info ? info->physical_cpus : 1;
  }
  std::optional<uint64_t> packages = sysctl_integer("hw.packages");
  if (!packages) return 1;
  return *packages > 65536 ? 65536 : static_cast<int>(*packages);
}

uint32_t ASI_CPUSpeedInHz() {
  uint64_t speed = sysctl_integer("hw.cpufrequency").value_or(0);
  std::optional<uint64_t> max = sysctl_integer("hw.cpufrequency_max");
  if (max && *max != 0) speed = *max;
  return speed > 4294967295u ? 4294967295u : static_cast<uint32_t>(speed);
}

uint64_t ASI_PhysicalMemorySize() { return sysctl_integer("hw.memsize").value_or(0); }

uint64_t ASI_BusSpeedInHz() { return sysctl_integer("hw.busfrequency").value_or(0); }

std::optional<std::string> ASI_CopyCPUKind(bool technical) {
  std::lock_guard<std::mutex> lock(cache_mutex);
  std::optional<CpuName> name;

  auto* hw = hardware();
  std::optional<plist::Value> cpu_type = hw ? hw->registry_search("IODeviceTree:/cpus", "cpu-type") : std::nullopt;
  if (cpu_type) {
    const plist::Data* data = cpu_type->as_data();
    if (!data) return std::nullopt;
    if (data->size() != 2) {
      std::printf("cpu-type data length incorrect size, expect 2, received %d\n", static_cast<int>(data->size()));
      std::fflush(stdout);
      if (data->size() < 2) return std::nullopt;
    }
    int minor = (*data)[0];
    int major = (*data)[1];
    int cores = clamp_cores(sysctl_integer("machdep.cpu.core_count"));
    name = cached(registry_cache, cache_key(major, minor, cores), [](uint64_t key) {
      return lookup_registry(static_cast<int>(key >> 40), static_cast<int>((key >> 20) & 0xfffff),
                             static_cast<int>(key & 0xfffff));
    });
  } else if (std::optional<uint64_t> family = sysctl_integer("hw.cpufamily"); family && !is_powerpc_family(*family)) {
    int cores = clamp_cores(sysctl_integer("machdep.cpu.cores_per_package"));
    std::optional<std::string> brand = sysctl_string("machdep.cpu.brand_string", 1024);
    if (brand && brand->size() > 4 && brand->find("Xeon") != std::string::npos) xeon_seen = true;
    // The family code is 32 bits; the key packs it with the flag and cores.
    uint64_t key =
        ((*family & 0xffffffffu) << 24) | (static_cast<uint64_t>(xeon_seen) << 20) | static_cast<uint64_t>(cores);
    name = cached(family_cache, key, [](uint64_t k) {
      return lookup_family(k >> 24, ((k >> 20) & 1) != 0, static_cast<int>(k & 0xfffff));
    });
  } else {
    std::optional<platform::HostBasicInfo> info = host_basic_info();
    if (!info) return std::nullopt;
    uint64_t key =
        (static_cast<uint64_t>(static_cast<uint32_t>(info->cpu_type)) << 32) | static_cast<uint32_t>(info->cpu_subtype);
    name = cached(host_cache, key, [](uint64_t k) {
      return lookup_host(static_cast<int>(static_cast<uint32_t>(k >> 32)), static_cast<int>(static_cast<uint32_t>(k)));
    });
  }
  if (!name) return std::nullopt;
  return std::string(name->pick(technical));
}

std::string ASI_CopyComputerModelName(bool technical) {
  std::optional<std::string> model = sysctl_string("hw.model", 1024);
  if (!model) return "Unknown";
  if (technical) return *model;

  std::optional<plist::Dict> machine_types = read_dictionary(kMachineTypesPath);
  std::optional<plist::Dict> strings = read_dictionary(kSystemInfoStringsPath);
  if (!machine_types || !strings) {
    // Platforms without the model tables may name the model themselves
    // (from the firmware's tables); that beats calling every machine
    // unknown.
    if (std::optional<std::string> display = sysctl_string("hw.model_display_name", 1024); display && !display->empty())
      return *display;
    const std::string* unknown = strings ? strings->find_string("UnknownComputerModel") : nullptr;
    return unknown && !unknown->empty() ? *unknown : "Unknown";
  }
  std::string key;
  if (const std::string* mapped = machine_types->find_string(*model)) {
    key = *mapped;
  } else {
    for (char c : *model)
      if (std::string_view("0123456789,").find(c) == std::string_view::npos) key.push_back(c);
    if (key.empty()) return *model;
  }
  const std::string* localized = strings->find_string(key);
  return localized ? *localized : "Ordin";
}

// The tables only know the processors they list; any other is named by
// the processor's own description (the brand string) before giving up.
std::string processor_kind() {
  if (std::optional<std::string> kind = ASI_CopyCPUKind(false)) return *kind;
  std::optional<std::string> brand = sysctl_string("machdep.cpu.brand_string", 1024);
  return brand && !brand->empty() ? *brand : "(unknown)";
}

void reset_cpu_kind_caches_for_testing() {
  std::lock_guard<std::mutex> lock(cache_mutex);
  registry_cache = family_cache = host_cache = KindCache();
  xeon_seen = false;
}

plist::Dict get_computer_info() {
  plist::Dict info;
  info.set("numberOfCPUs", ASI_NumberOfCPUs());
  info.set("cpuSpeed", plist::Value(static_cast<uint64_t>(ASI_CPUSpeedInHz())));
  info.set("memorySize", plist::Value(ASI_PhysicalMemorySize()));
  info.set("cpuKind", processor_kind());
  info.set("computerModelName", ASI_CopyComputerModelName(false));
  info.set("computerTechnicalModelName", ASI_CopyComputerModelName(true));
  return info;
}

}  // namespace hubwarden
