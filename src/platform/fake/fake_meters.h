// In-memory load counters for tests: processor ticks, interface counters
// and volumes that a test sets directly. Not thread-safe; tests drive them
// from one thread.
#pragma once

#include <map>
#include <optional>
#include <string>
#include <vector>

#include "platform/meters.h"

namespace platform {

class FakeProcessorStats : public ProcessorStats {
 public:
  std::vector<ProcessorTicks> ticks;
  int error = 0;  // returned, with no ticks, when non-zero
  int reads = 0;  // number of read() calls

  int read(std::vector<ProcessorTicks>* out) override;
};

class FakeInterfaceStats : public InterfaceStats {
 public:
  std::vector<InterfaceCounters> interfaces;
  bool fail = false;
  int reads = 0;

  bool read(std::vector<InterfaceCounters>* out) override;
};

struct FakeVolume {
  VolumeInfo info;
  // nullopt makes the attribute query fail for this volume.
  std::optional<VolumeAttributes> attributes = VolumeAttributes{true, false};
};

class FakeVolumes : public Volumes {
 public:
  std::vector<FakeVolume> volumes;  // index 1 is volumes[0]

  int info(int index, VolumeInfo* out) override;
  int attributes(int index, VolumeAttributes* out) override;
  std::optional<std::string> display_name(const std::string& mount_point) override;
};

}  // namespace platform
