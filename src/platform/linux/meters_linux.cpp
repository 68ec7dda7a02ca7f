// Linux readers behind the processor and volume meters: /proc/stat and the
// mount table with statvfs.
#include "platform/linux/meters_linux.h"

#include <dirent.h>
#include <errno.h>
#include <limits.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <mutex>
#include <set>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/file_util.h"
#include "platform/log.h"
#include "platform/utf8.h"

namespace platform {

namespace {

std::vector<std::string_view> split_fields(std::string_view line) {
  std::vector<std::string_view> fields;
  size_t i = 0;
  while (i < line.size()) {
    while (i < line.size() && (line[i] == ' ' || line[i] == '\t')) ++i;
    size_t start = i;
    while (i < line.size() && line[i] != ' ' && line[i] != '\t') ++i;
    if (i > start) fields.push_back(line.substr(start, i - start));
  }
  return fields;
}

template <typename Fn>
void for_each_line(std::string_view text, Fn fn) {
  while (!text.empty()) {
    size_t nl = text.find('\n');
    fn(text.substr(0, nl));
    if (nl == std::string_view::npos) break;
    text.remove_prefix(nl + 1);
  }
}

bool parse_int(std::string_view s, int* out) {
  auto [end, ec] = std::from_chars(s.data(), s.data() + s.size(), *out);
  return ec == std::errc() && end == s.data() + s.size();
}

std::string first_line(const std::string& path) {
  std::optional<std::string> text = read_file(path);
  if (!text) return "";
  return text->substr(0, text->find('\n'));
}

// ---- processors ----

// The columns of a "cpuN" line: user nice system idle, then (since 2.6)
// iowait irq softirq steal, then guest and guest_nice, which the kernel
// already counts inside user and nice. Time spent waiting for I/O is time
// the processor could have run something, so it counts as idle; interrupt
// service and time stolen by the hypervisor were not available to this
// system's programs, so they count as system time. Columns beyond the ten
// known ones are ignored; fewer than four, or one that is not a number,
// make the line unreadable.
std::optional<ProcessorTicks> ticks_of(const std::vector<std::string_view>& fields) {
  constexpr size_t kKnownColumns = 8;  // guest time is inside user and nice
  if (fields.size() < 5) return std::nullopt;
  uint64_t column[kKnownColumns] = {};
  for (size_t i = 1; i < fields.size() && i <= kKnownColumns; ++i) {
    auto [end, ec] = std::from_chars(fields[i].data(), fields[i].data() + fields[i].size(), column[i - 1]);
    if (ec != std::errc() || end != fields[i].data() + fields[i].size()) return std::nullopt;
  }
  enum { kUser, kNice, kSystem, kIdle, kIowait, kIrq, kSoftirq, kSteal };
  ProcessorTicks t;
  // The kernel's counters are 64-bit; the consumers expect 32-bit counters
  // that wrap, so keep only the low 32 bits of each sum.
  t.user = static_cast<uint32_t>(column[kUser]);
  t.nice = static_cast<uint32_t>(column[kNice]);
  t.system = static_cast<uint32_t>(column[kSystem] + column[kIrq] + column[kSoftirq] + column[kSteal]);
  t.idle = static_cast<uint32_t>(column[kIdle] + column[kIowait]);
  return t;
}

class ProcProcessorStats : public ProcessorStats {
 public:
  ProcProcessorStats(std::string proc_dir, std::string sys_dir)
      : proc_dir_(std::move(proc_dir)), sys_dir_(std::move(sys_dir)) {}

  int read(std::vector<ProcessorTicks>* ticks) override {
    ticks->clear();
    std::optional<std::string> text = read_file(proc_dir_ + "/stat");
    if (!text) return EIO;
    std::vector<std::pair<int, ProcessorTicks>> found;
    std::string damaged;
    for_each_line(*text, [&](std::string_view line) {
      if (!damaged.empty()) return;
      if (line.size() < 4 || line.substr(0, 3) != "cpu" || line[3] < '0' || line[3] > '9') return;
      std::vector<std::string_view> f = split_fields(line);
      int number = 0;
      if (!parse_int(f[0].substr(3), &number) || number < 0) return;
      std::optional<ProcessorTicks> t = ticks_of(f);
      if (!t) {
        damaged = std::string(line.substr(0, 80));
        return;
      }
      t->running = is_online(number);
      found.emplace_back(number, *t);
    });
    // A processor whose line cannot be read would shift every later one
    // into its place, so one damaged line makes the whole reading fail.
    if (!damaged.empty()) {
      log_error("hubwardend: unreadable processor line in " + proc_dir_ + "/stat: \"" + damaged + "\"");
      return EIO;
    }
    if (found.empty()) return EIO;
    std::stable_sort(found.begin(), found.end(), [](const auto& a, const auto& b) { return a.first < b.first; });
    for (auto& [number, t] : found) ticks->push_back(t);
    return 0;
  }

 private:
  // Processors without an "online" file (usually cpu0) cannot be taken
  // offline, so they are running.
  bool is_online(int number) const {
    std::optional<std::string> state =
        read_file(sys_dir_ + "/devices/system/cpu/cpu" + std::to_string(number) + "/online");
    return !state || state->empty() || (*state)[0] != '0';
  }

  std::string proc_dir_;
  std::string sys_dir_;
};

// ---- volumes ----

// File systems that are not on a local disk: listing their sizes would be
// meaningless (virtual) or could block on an unreachable server (network).
bool is_network_type(std::string_view type) {
  static const std::set<std::string_view> kNetwork = {"nfs", "nfs4", "cifs",      "smb3",  "smbfs", "sshfs", "9p",
                                                      "afs", "ceph", "glusterfs", "davfs", "ncpfs", "lustre"};
  return kNetwork.count(type) > 0 || type.substr(0, 5) == "fuse.";
}

bool is_virtual_type(std::string_view type) {
  static const std::set<std::string_view> kVirtual = {
      "tmpfs",     "devtmpfs", "ramfs",     "proc",    "sysfs",       "cgroup",   "cgroup2",    "overlay",
      "squashfs",  "autofs",   "debugfs",   "tracefs", "securityfs",  "pstore",   "bpf",        "configfs",
      "fusectl",   "mqueue",   "hugetlbfs", "devpts",  "binfmt_misc", "efivarfs", "rpc_pipefs", "nsfs",
      "selinuxfs", "rootfs",   "aufs",      "shm",     "fuse"};
  return kVirtual.count(type) > 0;
}

// mountinfo escapes blanks, tabs, newlines and backslashes as \ooo.
std::string unescape_octal(std::string_view s) {
  std::string out;
  for (size_t i = 0; i < s.size(); ++i) {
    if (s[i] == '\\' && s.size() - i >= 4) {
      std::string_view digits = s.substr(i + 1, 3);
      if (std::all_of(digits.begin(), digits.end(), [](char c) { return c >= '0' && c <= '7'; })) {
        out.push_back(static_cast<char>(((digits[0] - '0') << 6) | ((digits[1] - '0') << 3) | (digits[2] - '0')));
        i += 3;
        continue;
      }
    }
    out.push_back(s[i]);
  }
  return out;
}

// udev escapes unsafe characters of labels as \xHH.
std::string unescape_hex(std::string_view s) {
  auto hex = [](char c) -> int {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
  };
  std::string out;
  for (size_t i = 0; i < s.size(); ++i) {
    if (s[i] == '\\' && s.size() - i >= 4 && s[i + 1] == 'x' && hex(s[i + 2]) >= 0 && hex(s[i + 3]) >= 0) {
      out.push_back(static_cast<char>(hex(s[i + 2]) * 16 + hex(s[i + 3])));
      i += 3;
      continue;
    }
    out.push_back(s[i]);
  }
  return out;
}

std::string basename_of(const std::string& path) {
  size_t slash = path.find_last_of('/');
  return slash == std::string::npos ? path : path.substr(slash + 1);
}

std::optional<std::string> real_path(const std::string& path) {
  char buf[PATH_MAX];
  if (!::realpath(path.c_str(), buf)) return std::nullopt;
  return std::string(buf);
}

uint64_t saturating_product(uint64_t a, uint64_t b) {
  uint64_t out;
  return __builtin_mul_overflow(a, b, &out) ? UINT64_MAX : out;
}

struct MountLine {
  unsigned major = 0, minor = 0;
  std::string root, mount_point, options, type, source, super_options;
};

std::optional<MountLine> parse_mount_line(std::string_view line) {
  std::vector<std::string_view> f = split_fields(line);
  size_t dash = 0;
  for (size_t i = 6; i < f.size(); ++i) {
    if (f[i] == "-") {
      dash = i;
      break;
    }
  }
  if (dash == 0 || f.size() < dash + 3) return std::nullopt;
  MountLine m;
  std::string_view dev = f[2];
  size_t colon = dev.find(':');
  int major = 0, minor = 0;
  if (colon == std::string_view::npos || !parse_int(dev.substr(0, colon), &major) ||
      !parse_int(dev.substr(colon + 1), &minor) || major < 0 || minor < 0)
    return std::nullopt;
  m.major = static_cast<unsigned>(major);
  m.minor = static_cast<unsigned>(minor);
  m.root = unescape_octal(f[3]);
  m.mount_point = unescape_octal(f[4]);
  m.options = std::string(f[5]);
  m.type = std::string(f[dash + 1]);
  m.source = unescape_octal(f[dash + 2]);
  if (dash + 3 < f.size()) m.super_options = std::string(f[dash + 3]);
  return m;
}

bool has_option(std::string_view options, std::string_view option) {
  while (!options.empty()) {
    size_t comma = options.find(',');
    if (options.substr(0, comma) == option) return true;
    if (comma == std::string_view::npos) break;
    options.remove_prefix(comma + 1);
  }
  return false;
}

struct VolumeEntry {
  MountLine mount;
  std::optional<std::string> name;
  bool read_only_mount = false;
  bool read_only_device = false;
  bool local_block = false;
  bool removable = false;
};

class MountVolumes : public Volumes {
 public:
  MountVolumes(std::string proc_dir, std::string sys_dir, std::string dev_dir)
      : proc_dir_(std::move(proc_dir)), sys_dir_(std::move(sys_dir)), dev_dir_(std::move(dev_dir)) {}

  int info(int index, VolumeInfo* out) override {
    std::lock_guard<std::mutex> lock(mu_);
    // Enumeration starts at 1, so that is when the table is re-read; the
    // later indexes of the same walk see the same snapshot.
    if (index == 1 || entries_.empty()) refresh();
    if (index < 1 || static_cast<size_t>(index) > entries_.size()) return ENOENT;
    const VolumeEntry& e = entries_[static_cast<size_t>(index) - 1];
    *out = VolumeInfo();
    out->name = e.name;
    out->mount_point = e.mount.mount_point;
    out->software_locked = e.read_only_mount;
    out->hardware_locked = e.read_only_device;
    struct statvfs st;
    if (!is_network_type(e.mount.type) && ::statvfs(e.mount.mount_point.c_str(), &st) == 0) {
      uint64_t unit = st.f_frsize ? st.f_frsize : st.f_bsize;
      out->total_bytes = saturating_product(st.f_blocks, unit);
      out->free_bytes = saturating_product(st.f_bavail, unit);
    }
    return 0;
  }

  int attributes(int index, VolumeAttributes* out) override {
    std::lock_guard<std::mutex> lock(mu_);
    if (entries_.empty()) refresh();
    if (index < 1 || static_cast<size_t>(index) > entries_.size()) return ENOENT;
    const VolumeEntry& e = entries_[static_cast<size_t>(index) - 1];
    *out = VolumeAttributes();
    if (e.local_block) {
      out->external_bus = e.removable;
      out->internal_bus = !e.removable;
    }
    return 0;
  }

  std::optional<std::string> display_name(const std::string& mount_point) override {
    std::lock_guard<std::mutex> lock(mu_);
    refresh();
    for (const VolumeEntry& e : entries_)
      if (e.mount.mount_point == mount_point) return e.name;
    return std::nullopt;
  }

 private:
  void refresh() {
    entries_.clear();
    std::optional<std::string> text = read_file(proc_dir_ + "/self/mountinfo");
    if (!text) return;
    std::vector<MountLine> mounts;
    for_each_line(*text, [&](std::string_view line) {
      if (std::optional<MountLine> m = parse_mount_line(line)) mounts.push_back(std::move(*m));
    });
    // The last mount on "/" is the one processes see (an initial rootfs may
    // lie beneath it).
    const MountLine* root = nullptr;
    for (const MountLine& m : mounts)
      if (m.mount_point == "/") root = &m;
    if (!root) return;
    std::set<std::pair<unsigned, unsigned>> seen;
    entries_.push_back(describe(*root));
    seen.insert({root->major, root->minor});
    for (const MountLine& m : mounts) {
      if (m.mount_point == "/") continue;
      // A second mount of a device already listed is the same file system
      // seen again (a bind mount); one entry per device is what an
      // administrator means by a volume.
      if (!seen.insert({m.major, m.minor}).second) continue;
      // Files bind-mounted over files (container resolv.conf and friends)
      // are not volumes.
      struct stat st;
      if (!is_network_type(m.type) && ::stat(m.mount_point.c_str(), &st) == 0 && !S_ISDIR(st.st_mode)) continue;
      entries_.push_back(describe(m));
    }
  }

  VolumeEntry describe(const MountLine& m) const {
    VolumeEntry e;
    e.mount = m;
    e.read_only_mount = has_option(m.options, "ro") || has_option(m.super_options, "ro");

    // File systems such as btrfs report an anonymous device number in the
    // mount table, so the source's own device number is preferred.
    unsigned major = m.major, minor = m.minor;
    std::string device_name;
    if (m.source.rfind("/dev/", 0) == 0) {
      std::string node = dev_dir_ + m.source.substr(4);
      struct stat st;
      if (::stat(node.c_str(), &st) == 0 && S_ISBLK(st.st_mode)) {
        major = ::major(st.st_rdev);
        minor = ::minor(st.st_rdev);
      }
      device_name = basename_of(real_path(node).value_or(node));
    }
    std::string block = sys_dir_ + "/dev/block/" + std::to_string(major) + ":" + std::to_string(minor);
    std::optional<std::string> block_path = major != 0 ? real_path(block) : std::nullopt;
    if (block_path && !is_network_type(m.type) && !is_virtual_type(m.type)) {
      e.local_block = true;
      e.read_only_device = first_line(*block_path + "/ro") == "1";
      // Removability is a property of the whole disk, one level up from a
      // partition.
      std::string disk = file_exists(*block_path + "/partition") ? *block_path + "/.." : *block_path;
      e.removable = first_line(disk + "/removable") == "1" || block_path->find("/usb") != std::string::npos;
      if (device_name.empty()) device_name = basename_of(*block_path);
    }

    std::string name = m.mount_point;
    if (!device_name.empty()) {
      if (std::optional<std::string> label = label_of(device_name)) name = *label;
    }
    if (is_valid_utf8(name)) e.name = name;
    return e;
  }

  std::optional<std::string> label_of(const std::string& device_name) const {
    std::string dir = dev_dir_ + "/disk/by-label";
    DIR* d = ::opendir(dir.c_str());
    if (!d) return std::nullopt;
    std::optional<std::string> label;
    while (struct dirent* entry = ::readdir(d)) {
      std::string link = entry->d_name;
      if (link == "." || link == "..") continue;
      char target[PATH_MAX];
      ssize_t n = ::readlink((dir + "/" + link).c_str(), target, sizeof target - 1);
      if (n <= 0) continue;
      if (basename_of(std::string(target, static_cast<size_t>(n))) == device_name) {
        label = unescape_hex(link);
        break;
      }
    }
    ::closedir(d);
    return label;
  }

  const std::string proc_dir_, sys_dir_, dev_dir_;
  std::mutex mu_;
  std::vector<VolumeEntry> entries_;
};

}  // namespace

std::unique_ptr<ProcessorStats> make_proc_processor_stats(std::string proc_dir, std::string sys_dir) {
  return std::make_unique<ProcProcessorStats>(std::move(proc_dir), std::move(sys_dir));
}

std::unique_ptr<Volumes> make_mount_volumes(std::string proc_dir, std::string sys_dir, std::string dev_dir) {
  return std::make_unique<MountVolumes>(std::move(proc_dir), std::move(sys_dir), std::move(dev_dir));
}

}  // namespace platform
