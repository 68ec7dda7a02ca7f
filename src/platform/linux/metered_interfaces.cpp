// Choosing the metered interfaces from sysfs and reading their counters.
#include "platform/linux/metered_interfaces.h"

#include <dirent.h>
#include <fnmatch.h>
#include <net/if.h>
#include <net/if_arp.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <mutex>
#include <optional>
#include <set>
#include <string_view>
#include <tuple>
#include <utility>

#include "platform/file_util.h"
#include "platform/linux/host_config.h"
#include "platform/linux/job_map.h"
#include "platform/linux/text_files.h"
#include "platform/log.h"
#include "platform/paths.h"
#include "platform/registry.h"
#include "platform/utf8.h"
#include "plist/codec.h"

namespace platform {

namespace {

// IFNAMSIZ less the terminating NUL.
constexpr size_t kMaxInterfaceName = IFNAMSIZ - 1;

// Whether the entry is there; a link counts whatever it points at.
bool exists(const std::string& path) {
  struct stat st;
  return ::lstat(path.c_str(), &st) == 0;
}

std::optional<std::string> attribute(const std::string& dir, const char* name) {
  return linux_text::read_first_line(dir + "/" + name);
}

std::optional<uint64_t> unsigned_attribute(const std::string& dir, const char* name) {
  std::optional<std::string> text = attribute(dir, name);
  return text ? linux_text::parse_unsigned(*text) : std::nullopt;
}

// "flags" is written in hexadecimal with a 0x prefix.
std::optional<uint64_t> hex_attribute(const std::string& dir, const char* name) {
  std::optional<std::string> text = attribute(dir, name);
  if (!text) return std::nullopt;
  std::string_view digits(*text);
  if (digits.starts_with("0x") || digits.starts_with("0X")) digits.remove_prefix(2);
  uint64_t value = 0;
  auto [end, ec] = std::from_chars(digits.data(), digits.data() + digits.size(), value, 16);
  if (ec != std::errc() || end != digits.data() + digits.size() || digits.empty()) return std::nullopt;
  return value;
}

// The DEVTYPE line of the interface's uevent file ("bond", "vlan",
// "bridge", "wlan"); empty when there is none.
std::string device_type(const std::string& dir) {
  std::optional<std::string> uevent = read_file(dir + "/uevent");
  if (!uevent) return "";
  for (const auto& [key, value] : linux_text::parse_shell_assignments(*uevent))
    if (key == "DEVTYPE") return value;
  return "";
}

std::string basename_of_link(const std::string& path) {
  char target[4096];
  ssize_t n = ::readlink(path.c_str(), target, sizeof target - 1);
  if (n <= 0) return "";
  std::string_view t(target, static_cast<size_t>(n));
  size_t slash = t.find_last_of('/');
  return std::string(slash == std::string_view::npos ? t : t.substr(slash + 1));
}

struct Candidate {
  uint64_t index = 0;
  std::string name;
  std::string dir;
};

class SysfsInterfaceStats : public InterfaceStats {
 public:
  SysfsInterfaceStats(std::vector<std::string> extra, std::string sys_dir)
      : extra_(std::move(extra)), net_dir_(std::move(sys_dir) + "/class/net") {}

  bool read(std::vector<InterfaceCounters>* interfaces) override {
    interfaces->clear();
    std::optional<std::vector<Candidate>> chosen = choose();
    if (!chosen) return false;
    // Names follow the order of the chosen set, so an interface whose
    // counters vanish in the middle of a reading does not shift the others.
    for (size_t i = 0; i < chosen->size(); ++i) {
      const Candidate& c = (*chosen)[i];
      std::optional<uint64_t> in = unsigned_attribute(c.dir, "statistics/rx_bytes");
      std::optional<uint64_t> out = unsigned_attribute(c.dir, "statistics/tx_bytes");
      if (!in || !out) continue;
      InterfaceCounters counters;
      counters.name = "en" + std::to_string(i);
      counters.input_bytes = *in;
      counters.output_bytes = *out;
      if (counters.name != c.name) counters.system_name = c.name;
      interfaces->push_back(std::move(counters));
    }
    report_names(*chosen);
    return true;
  }

 private:
  std::optional<std::vector<Candidate>> choose() {
    DIR* d = ::opendir(net_dir_.c_str());
    if (!d) return std::nullopt;
    std::vector<Candidate> chosen;
    while (struct dirent* entry = ::readdir(d)) {
      std::string name = entry->d_name;
      if (name == "." || name == "..") continue;
      if (!usable_name(name)) continue;
      Candidate c;
      c.name = name;
      c.dir = net_dir_ + "/" + name;
      std::optional<uint64_t> index = unsigned_attribute(c.dir, "ifindex");
      if (!index || !is_up_and_not_loopback(c)) continue;
      if (!listed(name) && !is_ethernet_class(c)) continue;
      c.index = *index;
      chosen.push_back(std::move(c));
    }
    ::closedir(d);
    std::sort(chosen.begin(), chosen.end(), [](const Candidate& a, const Candidate& b) {
      return std::tie(a.index, a.name) < std::tie(b.index, b.name);
    });
    return chosen;
  }

  // The meters' replies carry only the "en" names; the system log says
  // which interface each one stands for, whenever that changes.
  void report_names(const std::vector<Candidate>& chosen) {
    std::string names;
    for (size_t i = 0; i < chosen.size(); ++i) names += (i ? ", " : "") + chosen[i].name + " as en" + std::to_string(i);
    std::lock_guard<std::mutex> lock(mu_);
    if (names == last_names_) return;
    last_names_ = names;
    log_notice("hubwardend: metering network interfaces " + (names.empty() ? std::string("(none)") : names));
  }

  // Names the kernel could not have made come from a damaged or forged
  // tree; names that are not UTF-8 cannot be shown beside the meter's name.
  bool usable_name(const std::string& name) {
    if (name.size() <= kMaxInterfaceName && is_valid_utf8(name)) return true;
    std::lock_guard<std::mutex> lock(mu_);
    if (reported_.insert(name).second)
      log_error("hubwardend: not metering network interface \"" + escape_for_log(name) +
                "\": " + (name.size() > kMaxInterfaceName ? "name longer than 15 bytes" : "name is not UTF-8"));
    return false;
  }

  static bool is_up_and_not_loopback(const Candidate& c) {
    std::optional<uint64_t> flags = hex_attribute(c.dir, "flags");
    if (!flags || !(*flags & IFF_UP) || (*flags & IFF_LOOPBACK) || c.name == "lo") return false;
    // Drivers without carrier reporting say "unknown" while passing traffic.
    std::string state = attribute(c.dir, "operstate").value_or("");
    return state == "up" || state == "unknown";
  }

  bool listed(const std::string& name) const {
    return std::any_of(extra_.begin(), extra_.end(),
                       [&](const std::string& pattern) { return ::fnmatch(pattern.c_str(), name.c_str(), 0) == 0; });
  }

  bool is_ethernet_class(const Candidate& c) const {
    if (unsigned_attribute(c.dir, "type") != ARPHRD_ETHER) return false;
    // A bond member's traffic is counted on the bond.
    if (exists(c.dir + "/master")) {
      std::string master = basename_of_link(c.dir + "/master");
      if (!master.empty() && exists(net_dir_ + "/" + master + "/bonding")) return false;
    }
    // tap devices and bridges carry a hardware link type but no hardware.
    if (exists(c.dir + "/tun_flags") || exists(c.dir + "/bridge")) return false;
    std::string type = device_type(c.dir);
    if (type == "bond") return true;
    return type != "vlan" && exists(c.dir + "/device");
  }

  const std::vector<std::string> extra_;
  const std::string net_dir_;
  std::mutex mu_;
  std::set<std::string> reported_;  // names already logged; guarded by mu_
  std::string last_names_;          // the mapping last logged; guarded by mu_
};

// The list in one configuration file: nullopt when the file or the key is
// absent or unusable, so that the next file decides.
std::optional<std::vector<std::string>> listed_in(const char* path) {
  if (!has<Paths>()) return std::nullopt;
  std::string error;  // the service map's loader reports broken files
  std::optional<plist::Dict> config = read_host_config(host_config_file(path, resolve(path)), &error);
  if (!config) return std::nullopt;
  const plist::Value* value = config->find(kMeteredInterfacesKey);
  if (!value) return std::nullopt;
  const plist::Array* array = value->as_array();
  if (!array) {
    log_error(std::string("hubwardend: ignoring \"") + kMeteredInterfacesKey + "\" in " + path + ": not an array");
    return std::nullopt;
  }
  std::vector<std::string> names;
  for (const plist::Value& item : *array) {
    const std::string* name = item.as_string();
    if (name && !name->empty()) {
      names.push_back(*name);
    } else {
      log_error(std::string("hubwardend: ignoring an entry of \"") + kMeteredInterfacesKey + "\" in " + path +
                ": not an interface name");
    }
  }
  return names;
}

}  // namespace

std::unique_ptr<InterfaceStats> make_sysfs_interface_stats(std::vector<std::string> extra, std::string sys_dir) {
  return std::make_unique<SysfsInterfaceStats>(std::move(extra), std::move(sys_dir));
}

std::vector<std::string> load_metered_interfaces() {
  std::vector<std::string> names;
  for (const char* path : {kShippedHostConfigPath, kHostConfigPath})
    if (std::optional<std::vector<std::string>> listed = listed_in(path)) names = std::move(*listed);
  return names;
}

}  // namespace platform
