// Load counters behind the CPU, network and volume meters: per-processor
// tick counters, per-interface byte counters and the mounted volumes. Each
// call is a fresh reading; none of them blocks on the network. Every
// implementation is safe to call from several threads.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace platform {

struct ProcessorTicks {
  bool running = true;
  uint32_t user = 0, system = 0, idle = 0, nice = 0;  // cumulative, 32-bit like the kernel's
};

struct InterfaceCounters {
  // The name the meters know the interface by. The meters count Ethernet-
  // class interfaces by the prefix "en", so a platform whose kernel names
  // them otherwise presents them as "en0", "en1", ...
  std::string name;
  uint64_t input_bytes = 0;
  uint64_t output_bytes = 0;
  // The kernel's own name ("enp3s0", "bond0") where it differs from name;
  // empty otherwise. Anything that shows interfaces to people pairs the two.
  std::string system_name{};
};

struct VolumeInfo {
  std::optional<std::string> name;  // nullopt when the name cannot be converted
  std::string mount_point;
  uint64_t total_bytes = 0;
  uint64_t free_bytes = 0;
  bool hardware_locked = false;
  bool software_locked = false;
};

struct VolumeAttributes {
  bool internal_bus = false;
  bool external_bus = false;
};

class ProcessorStats {
 public:
  virtual ~ProcessorStats() = default;
  // Fills ticks with one entry per configured processor, in processor
  // order, and returns 0; on failure returns a non-zero error code and
  // leaves ticks empty.
  virtual int read(std::vector<ProcessorTicks>* ticks) = 0;
};

class InterfaceStats {
 public:
  virtual ~InterfaceStats() = default;
  // Fills interfaces with the metered interfaces and their counters and
  // returns true; returns false, with interfaces empty, when the list of
  // interfaces cannot be read at all. An interface whose counters cannot be
  // read is left out.
  virtual bool read(std::vector<InterfaceCounters>* interfaces) = 0;
};

class Volumes {
 public:
  virtual ~Volumes() = default;
  // Mounted volume by index from 1 (1 is the root file system); returns 0
  // or an error code (past the end of the list: non-zero). Asking for
  // index 1 takes a new snapshot of the mount table; later indexes read
  // the same snapshot.
  virtual int info(int index, VolumeInfo* out) = 0;
  // Bus facts of the volume at index; returns 0 or an error code, leaving
  // *out untouched on error.
  virtual int attributes(int index, VolumeAttributes* out) = 0;
  // The display name of the volume mounted at mount_point; nullopt when no
  // volume is mounted there or its name is not UTF-8.
  virtual std::optional<std::string> display_name(const std::string& mount_point) = 0;
};

}  // namespace platform
