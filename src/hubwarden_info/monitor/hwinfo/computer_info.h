// The hardware description: processor count, kind and speed, memory size
// and computer model, through the ASI_ family.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "plist/value.h"

namespace hubwarden {

// {"numberOfCPUs", "cpuSpeed", "memorySize", "cpuKind", "computerModelName",
// "computerTechnicalModelName"}.
plist::Dict get_computer_info();

int ASI_NumberOfCPUs();
uint32_t ASI_CPUSpeedInHz();
uint64_t ASI_PhysicalMemorySize();
uint64_t ASI_BusSpeedInHz();
// The processor's name, or nullopt when none of the tables knows it.
std::optional<std::string> ASI_CopyCPUKind(bool technical);
// The computer's model name; never empty ("Unknown" at worst). Without the
// system-information tables the display name is the platform's own
// ("hw.model_display_name") when it has one.
std::string ASI_CopyComputerModelName(bool technical);

// "cpuKind": ASI_CopyCPUKind(false), else the processor's brand string,
// else "(unknown)".
std::string processor_kind();

// Test hook: forgets the processor-kind caches and the Xeon flag.
void reset_cpu_kind_caches_for_testing();

}  // namespace hubwarden
