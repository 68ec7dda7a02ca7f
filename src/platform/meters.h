// Load counters: per-processor ticks, per-interface byte counters and the
// mounted volumes. Safe from any thread.
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
  std::string name;
  uint64_t input_bytes = 0;
  uint64_t output_bytes = 0;
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
  // Fills ticks with one entry per configured processor; returns 0 or an
  // error code.
  virtual int read(std::vector<ProcessorTicks>* ticks) = 0;
};

class InterfaceStats {
 public:
  virtual ~InterfaceStats() = default;
  // The interfaces with their counters; false when the list is unreadable.
  virtual bool read(std::vector<InterfaceCounters>* interfaces) = 0;
};

class Volumes {
 public:
  virtual ~Volumes() = default;
  // Mounted volume by index from 1 (1 is the root file system); returns 0
  // or an error code (past the end of the list: non-zero).
  virtual int info(int index, VolumeInfo* out) = 0;
  virtual int attributes(int index, VolumeAttributes* out) = 0;
  // The display name of the volume mounted at mount_point.
  virtual std::optional<std::string> display_name(const std::string& mount_point) = 0;
};

}  // namespace platform
