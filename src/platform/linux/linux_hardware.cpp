// Hardware facts from procfs and sysfs: processors from cpuinfo and the
// cpu/online list, clock speeds from cpufreq, memory from meminfo, and the
// machine's model, maker and serial from the DMI tables (or, on boards
// without them, the device tree). Every file is read
// under the directories given at construction, so tests can use fixtures.
// Names with nothing behind them on Linux ("hw.cpufamily" is a processor
// family code no kernel here reports, "hw.busfrequency" a front-side bus
// clock PCs no longer expose) stay unreadable.
#include <sys/sysinfo.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cmath>
#include <cstdlib>
#include <set>

#include "platform/file_util.h"
#include "platform/linux/basics.h"
#include "platform/linux/serial_layout.h"
#include "platform/linux/text_files.h"

namespace platform {

namespace {

using linux_text::checked_multiply;
using linux_text::find_key;
using linux_text::KeyValueBlock;
using linux_text::parse_unsigned;

constexpr int kCpuArch64 = 0x01000000;
constexpr int kCpuTypeX86 = 7;
constexpr int kCpuSubtypeX86All = 3;
constexpr int kCpuTypeArm = 12;
constexpr int kCpuTypePowerPC = 18;
constexpr int kCpuSubtypePowerPC970 = 100;

// Counts the processors of a sysfs range list such as "0-3,8,10-11".
std::optional<uint64_t> count_cpu_list(std::string_view list) {
  list = linux_text::trim(list);
  if (list.empty()) return std::nullopt;
  uint64_t count = 0;
  while (!list.empty()) {
    size_t comma = list.find(',');
    std::string_view item = list.substr(0, comma);
    list = comma == std::string_view::npos ? std::string_view() : list.substr(comma + 1);
    size_t dash = item.find('-');
    std::optional<uint64_t> first = parse_unsigned(item.substr(0, dash));
    std::optional<uint64_t> last = dash == std::string_view::npos ? first : parse_unsigned(item.substr(dash + 1));
    if (!first || !last || *last < *first || *last - *first >= (1u << 20)) return std::nullopt;
    count += *last - *first + 1;
  }
  return count;
}

// Trims and turns every run of blanks into one space: processor names are
// padded with runs of spaces on some models.
std::string collapse_blanks(std::string_view s) {
  std::string out;
  bool blank = false;
  for (char c : s) {
    if (c == ' ' || c == '\t' || c == '\n' || c == '\r') {
      blank = !out.empty();
      continue;
    }
    if (blank) out.push_back(' ');
    blank = false;
    out.push_back(c);
  }
  return out;
}

// Text firmware leaves in DMI fields nobody filled in.
bool is_placeholder(std::string_view value) {
  static constexpr std::string_view kPlaceholders[] = {
      "",
      "to be filled by o.e.m.",
      "to be filled by oem",
      "system product name",
      "system manufacturer",
      "system version",
      "base board product name",
      "base board manufacturer",
      "default string",
      "not specified",
      "not applicable",
      "none",
      "n/a",
      "na",
      "o.e.m.",
      "oem",
      "unknown",
      "type1productconfigid",
      "x.x",
      "0123456789",
      "1234567890",
  };
  std::string lower;
  for (char c : value) lower.push_back(static_cast<char>(std::tolower(static_cast<unsigned char>(c))));
  for (std::string_view p : kPlaceholders)
    if (lower == p) return true;
  return false;
}

class LinuxHardware : public Hardware {
 public:
  LinuxHardware(std::string proc_dir, std::string sys_dir)
      : proc_dir_(std::move(proc_dir)), sys_dir_(std::move(sys_dir)) {}

  std::optional<uint64_t> sysctl_integer(const std::string& name) override {
    if (name == "hw.memsize") return memory_size();
    if (name == "hw.packages") return packages();
    if (name == "hw.cpufrequency") return current_frequency();
    if (name == "hw.cpufrequency_max") return khz_file("devices/system/cpu/cpu0/cpufreq/cpuinfo_max_freq");
    if (name == "machdep.cpu.core_count" || name == "machdep.cpu.cores_per_package")
      return first_processor_number("cpu cores");
    if (name == "hw.ncpu") return online_processors();
    return std::nullopt;
  }

  std::optional<std::string> sysctl_string(const std::string& name) override {
    if (name == "machdep.cpu.brand_string") return processor_name();
    if (name == "hw.model" || name == "hw.model_display_name") {
      std::optional<ModelNames> names = model_names();
      if (!names) return std::nullopt;
      return name == "hw.model" ? names->technical : names->display;
    }
    if (name == "kern.ostype" || name == "kern.osrelease") {
      struct utsname u;
      if (::uname(&u) != 0) return std::nullopt;
      return std::string(name == "kern.ostype" ? u.sysname : u.release);
    }
    return std::nullopt;
  }

  std::vector<plist::Dict> registry_devices(const std::string& class_name) override {
    if (class_name != "IOPlatformExpertDevice") return {};
    std::optional<std::string> serial = dmi("product_serial");
    if (!serial) return {};
    plist::Dict device;
    device.set("serial-number", encode_serial_number(*serial));
    if (std::optional<std::string> product = dmi("product_name")) device.set("model", *product);
    if (std::optional<std::string> vendor = dmi("sys_vendor")) device.set("manufacturer", *vendor);
    return {std::move(device)};
  }

  // PC hardware has no device tree to search.
  std::optional<plist::Value> registry_search(const std::string& path, const std::string& property) override {
    return std::nullopt;
  }

  std::optional<HostBasicInfo> host_basic_info() override {
    struct utsname u;
    if (::uname(&u) != 0) return std::nullopt;
    std::string_view machine(u.machine);
    HostBasicInfo info;
    if (machine == "x86_64") {
      info.cpu_type = kCpuTypeX86 | kCpuArch64;
      info.cpu_subtype = kCpuSubtypeX86All;
    } else if (machine.size() == 4 && machine[0] == 'i' && machine.substr(2) == "86") {
      info.cpu_type = kCpuTypeX86;
      info.cpu_subtype = kCpuSubtypeX86All;
    } else if (machine == "aarch64" || machine == "arm64") {
      info.cpu_type = kCpuTypeArm | kCpuArch64;
    } else if (machine.starts_with("arm")) {
      info.cpu_type = kCpuTypeArm;
    } else if (machine.starts_with("ppc")) {
      info.cpu_type = kCpuTypePowerPC;
      info.cpu_subtype = machine.starts_with("ppc64") ? kCpuSubtypePowerPC970 : 0;
    }
    std::optional<uint64_t> online = online_processors();
    info.physical_cpus = online ? static_cast<int>(std::min<uint64_t>(*online, 1u << 20)) : 1;
    return info;
  }

 private:
  bool reads_live_system() const { return proc_dir_ == "/proc"; }

  std::optional<std::string> proc(const char* name) const { return read_file(proc_dir_ + "/" + name); }

  std::vector<KeyValueBlock> processors() const {
    std::optional<std::string> text = proc("cpuinfo");
    if (!text) return {};
    std::vector<KeyValueBlock> blocks = linux_text::parse_colon_blocks(*text);
    // Some architectures open cpuinfo with a block about the whole machine;
    // only blocks that name a processor describe one.
    std::erase_if(blocks, [](const KeyValueBlock& b) { return find_key(b, "processor") == nullptr; });
    return blocks;
  }

  std::optional<uint64_t> first_processor_number(const char* key) const {
    std::vector<KeyValueBlock> cpus = processors();
    const std::string* value = cpus.empty() ? nullptr : find_key(cpus.front(), key);
    return value ? parse_unsigned(*value) : std::nullopt;
  }

  std::optional<uint64_t> memory_size() const {
    if (std::optional<std::string> meminfo = proc("meminfo")) {
      for (const KeyValueBlock& block : linux_text::parse_colon_blocks(*meminfo)) {
        const std::string* total = find_key(block, "MemTotal");
        if (!total) continue;
        std::string_view kib(*total);
        if (kib.ends_with("kB")) kib.remove_suffix(2);
        std::optional<uint64_t> value = parse_unsigned(kib);
        if (value) return checked_multiply(*value, 1024);
      }
    }
    if (!reads_live_system()) return std::nullopt;
    struct sysinfo si;
    if (::sysinfo(&si) != 0) return std::nullopt;
    return checked_multiply(si.totalram, si.mem_unit);
  }

  std::optional<uint64_t> packages() const {
    if (!proc("cpuinfo")) return std::nullopt;
    std::set<std::string> ids;
    for (const KeyValueBlock& cpu : processors())
      if (const std::string* id = find_key(cpu, "physical id")) ids.insert(*id);
    return ids.empty() ? 1 : ids.size();
  }

  std::optional<uint64_t> current_frequency() const {
    std::vector<KeyValueBlock> cpus = processors();
    if (const std::string* mhz = cpus.empty() ? nullptr : find_key(cpus.front(), "cpu MHz")) {
      char* end = nullptr;
      double value = std::strtod(mhz->c_str(), &end);
      // Rounded to whole hertz and kept inside the counter's range.
      if (end != mhz->c_str() && std::isfinite(value) && value > 0 && value < 1.8e13)
        return static_cast<uint64_t>(std::llround(value * 1e6));
    }
    // cpuinfo_cur_freq is readable by root only; scaling_cur_freq by anyone.
    if (auto hz = khz_file("devices/system/cpu/cpu0/cpufreq/cpuinfo_cur_freq")) return hz;
    return khz_file("devices/system/cpu/cpu0/cpufreq/scaling_cur_freq");
  }

  std::optional<uint64_t> khz_file(const char* relative) const {
    std::optional<std::string> text = read_file(sys_dir_ + "/" + relative);
    std::optional<uint64_t> khz = text ? parse_unsigned(*text) : std::nullopt;
    if (!khz || *khz == 0) return std::nullopt;
    return checked_multiply(*khz, 1000);
  }

  std::optional<uint64_t> online_processors() const {
    if (std::optional<std::string> list = read_file(sys_dir_ + "/devices/system/cpu/online"))
      if (std::optional<uint64_t> n = count_cpu_list(*list)) return n;
    size_t listed = processors().size();
    if (listed > 0) return listed;
    if (!reads_live_system()) return std::nullopt;
    long n = ::sysconf(_SC_NPROCESSORS_ONLN);
    if (n <= 0) return std::nullopt;
    return static_cast<uint64_t>(n);
  }

  std::optional<std::string> dmi(const char* name) const {
    return linux_text::read_first_line(sys_dir_ + "/class/dmi/id/" + name);
  }

  // The processor's own description. x86 and most others call it "model
  // name"; older ARM kernels put "Processor" in a block about the whole
  // machine, MIPS says "cpu model" and PowerPC "cpu".
  std::optional<std::string> processor_name() const {
    std::optional<std::string> text = proc("cpuinfo");
    if (!text) return std::nullopt;
    std::vector<KeyValueBlock> blocks = linux_text::parse_colon_blocks(*text);
    for (const char* key : {"model name", "Processor", "cpu model", "cpu"}) {
      for (const KeyValueBlock& block : blocks) {
        const std::string* value = find_key(block, key);
        if (!value) continue;
        std::string name = collapse_blanks(*value);
        if (!name.empty()) return name;
      }
    }
    return std::nullopt;
  }

  struct ModelNames {
    std::string display;
    std::string technical;
  };

  // The display name is the product as its maker names it ("PowerEdge
  // R630"); the technical name identifies it fully, with the maker and the
  // product version ("Dell Inc. PowerEdge R630 A01"). Boards whose firmware
  // leaves the product fields as placeholders are named by their
  // motherboard. Without usable DMI tables both names are the device
  // tree's model, and on the running system without either, the kernel's
  // machine name ("x86_64").
  std::optional<ModelNames> model_names() const {
    std::optional<std::string> product = dmi_value("product_name");
    std::optional<std::string> vendor = dmi_value("sys_vendor");
    std::optional<std::string> version = dmi_value("product_version");
    if (!product) {
      product = dmi_value("board_name");
      vendor = dmi_value("board_vendor");
      version = dmi_value("board_version");
    }
    if (product) {
      std::string technical = *product;
      if (vendor && !technical.starts_with(*vendor)) technical = *vendor + " " + technical;
      if (version && technical.find(*version) == std::string::npos) technical += " " + *version;
      return ModelNames{*product, technical};
    }
    if (std::optional<std::string> tree = device_tree_model()) return ModelNames{*tree, *tree};
    if (!reads_live_system()) return std::nullopt;
    struct utsname u;
    if (::uname(&u) != 0 || u.machine[0] == '\0') return std::nullopt;
    return ModelNames{u.machine, u.machine};
  }

  // A DMI field with its blanks tidied, or nullopt when it is absent or
  // one of the placeholders firmware vendors leave in unset fields.
  std::optional<std::string> dmi_value(const char* name) const {
    std::optional<std::string> value = dmi(name);
    if (!value) return std::nullopt;
    std::string tidy = collapse_blanks(*value);
    if (is_placeholder(tidy)) return std::nullopt;
    return tidy;
  }

  // Boards without DMI tables describe themselves in the device tree, as a
  // NUL-terminated string.
  std::optional<std::string> device_tree_model() const {
    for (const std::string& path : {proc_dir_ + "/device-tree/model", sys_dir_ + "/firmware/devicetree/base/model"}) {
      std::optional<std::string> tree = read_file(path);
      if (!tree) continue;
      std::string name = collapse_blanks(std::string_view(*tree).substr(0, tree->find('\0')));
      if (!name.empty()) return name;
    }
    return std::nullopt;
  }

  std::string proc_dir_;
  std::string sys_dir_;
};

}  // namespace

std::unique_ptr<Hardware> make_linux_hardware(std::string proc_dir, std::string sys_dir) {
  return std::make_unique<LinuxHardware>(std::move(proc_dir), std::move(sys_dir));
}

}  // namespace platform
