// In-memory load counters for tests.
#include "platform/fake/fake_meters.h"

#include <errno.h>

namespace platform {

int FakeProcessorStats::read(std::vector<ProcessorTicks>* out) {
  ++reads;
  out->clear();
  if (error != 0) return error;
  *out = ticks;
  return 0;
}

bool FakeInterfaceStats::read(std::vector<InterfaceCounters>* out) {
  ++reads;
  out->clear();
  if (fail) return false;
  *out = interfaces;
  return true;
}

int FakeVolumes::info(int index, VolumeInfo* out) {
  if (index < 1 || static_cast<size_t>(index) > volumes.size()) return ENOENT;
  *out = volumes[static_cast<size_t>(index) - 1].info;
  return 0;
}

int FakeVolumes::attributes(int index, VolumeAttributes* out) {
  if (index < 1 || static_cast<size_t>(index) > volumes.size()) return ENOENT;
  const std::optional<VolumeAttributes>& attributes = volumes[static_cast<size_t>(index) - 1].attributes;
  if (!attributes) return EIO;
  *out = *attributes;
  return 0;
}

std::optional<std::string> FakeVolumes::display_name(const std::string& mount_point) {
  for (const FakeVolume& v : volumes)
    if (v.info.mount_point == mount_point) return v.info.name;
  return std::nullopt;
}

}  // namespace platform
