// Processor name tables.
#include "monitor/hwinfo/cpu_tables.h"

namespace hubwarden {

namespace {

constexpr RegistryCpuRow kRegistryRows[] = {
    {2, 1, 1, {"Intel Core Solo", nullptr}},
    {2, 1, 2, {"Intel Core Duo", nullptr}},
    {3, 1, 1, {"Intel Core 2 Solo", nullptr}},
    {3, 1, 2, {"Intel Core 2 Duo", nullptr}},
    {4, 1, 1, {"Single-Core Intel Xeon", nullptr}},
    {4, 1, 2, {"Dual-Core Intel Xeon", nullptr}},
    {4, 2, 1, {"Single-Core Intel Xeon", nullptr}},
    {4, 2, 2, {"Dual-Core Intel Xeon", nullptr}},
    {4, 2, 3, {"Unknown Intel Xeon", nullptr}},
    {4, 2, 4, {"Quad-Core Intel Xeon", nullptr}},
    {5, 1, 1, {"Single-Core Intel Xeon", nullptr}},
    {5, 1, 2, {"Dual-Core Intel Xeon", nullptr}},
    {5, 1, 3, {"Unknown Intel Xeon", nullptr}},
    {5, 1, 4, {"Quad-Core Intel Xeon", nullptr}},
};

constexpr FamilyCpuRow kFamilyRows[] = {
    {0x73d67300, false, 1, {"Intel Core Solo", nullptr}},
    {0x73d67300, false, 2, {"Intel Core Duo", nullptr}},
    {0x426f69ef, false, 1, {"Intel Core 2 Solo", nullptr}},
    {0x426f69ef, false, 2, {"Intel Core 2 Duo", nullptr}},
    {0x426f69ef, true, 1, {"Single-Core Intel Xeon", nullptr}},
    {0x426f69ef, true, 2, {"Dual-Core Intel Xeon", nullptr}},
};

constexpr int kPowerPCType = 18;

constexpr HostCpuRow kHostRows[] = {
    {kPowerPCType, 0, {"PowerPC", nullptr}},
    {kPowerPCType, 1, {"PowerPC 601", nullptr}},
    {kPowerPCType, 2, {"PowerPC 602", nullptr}},
    {kPowerPCType, 3, {"PowerPC 603", nullptr}},
    {kPowerPCType, 4, {"PowerPC 603e", nullptr}},
    {kPowerPCType, 5, {"PowerPC 603ev", nullptr}},
    {kPowerPCType, 6, {"PowerPC 604", nullptr}},
    {kPowerPCType, 7, {"PowerPC 604e", nullptr}},
    {kPowerPCType, 8, {"PowerPC 620", nullptr}},
    {kPowerPCType, 9, {"PowerPC G3", "PowerPC 750"}},
    {kPowerPCType, 10, {"PowerPC G4", "PowerPC 7400"}},
    {kPowerPCType, 11, {"PowerPC G4", "PowerPC 7450"}},
    {kPowerPCType, 100, {"PowerPC G5", "PowerPC 970"}},
};

}  // namespace

std::span<const RegistryCpuRow> registry_cpu_table() { return kRegistryRows; }
std::span<const FamilyCpuRow> family_cpu_table() { return kFamilyRows; }
std::span<const HostCpuRow> host_cpu_table() { return kHostRows; }

bool is_powerpc_family(uint64_t family) {
  return family == 0xed76d8aa || family == 0x77c184ae || family == 0xcee41549;
}

}  // namespace hubwarden
