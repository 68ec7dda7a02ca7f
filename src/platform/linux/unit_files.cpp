// Unit-file lookup, parsing and the *.wants/ links that make a unit enabled,
// all under the platform root.
#include "platform/linux/unit_files.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <string_view>

#include "platform/file_util.h"
#include "platform/paths.h"
#include "platform/root_fs.h"
#include "platform/unique_fd.h"
#include "plist/text_util.h"

namespace platform {

const std::vector<std::string> kUnitSearchDirs = {"/etc/systemd/system", "/run/systemd/system", "/lib/systemd/system",
                                                  "/usr/lib/systemd/system"};

namespace {

// Directories whose *.wants/ and *.requires/ links count as enabling.
const std::vector<std::string> kLinkDirs = {"/etc/systemd/system", "/run/systemd/system"};

// Aliases may name aliases; this bounds a loop made by a careless admin.
constexpr int kMaxLinkHops = 8;

bool is_valid_unit_name(std::string_view name) {
  return !name.empty() && name.size() <= NAME_MAX && name != "." && name != ".." &&
         name.find('/') == std::string_view::npos && name.find('\0') == std::string_view::npos;
}

std::string_view base_name(std::string_view path) {
  size_t slash = path.find_last_of('/');
  return slash == std::string_view::npos ? path : path.substr(slash + 1);
}

using text::split_words;
using text::trim;

// The entry functions below act on the link or file itself, never on what
// it leads to, and resolve the directories on the way inside the sandbox
// root: a *.wants/ directory linked to a folder outside the root must not
// let an enable or disable touch that folder.

std::optional<std::string> read_link(const std::string& path) {
  std::string leaf;
  UniqueFd dir(open_parent_confined(path, false, &leaf));
  if (!dir.valid()) return std::nullopt;
  char buf[PATH_MAX];
  ssize_t n = ::readlinkat(dir.get(), leaf.c_str(), buf, sizeof buf);
  if (n < 0 || static_cast<size_t>(n) >= sizeof buf) return std::nullopt;
  return std::string(buf, static_cast<size_t>(n));
}

bool lstat_entry(const std::string& path, struct stat* st) {
  std::string leaf;
  UniqueFd dir(open_parent_confined(path, false, &leaf));
  return dir.valid() && ::fstatat(dir.get(), leaf.c_str(), st, AT_SYMLINK_NOFOLLOW) == 0;
}

bool is_symlink(const std::string& path) {
  struct stat st;
  return lstat_entry(path, &st) && S_ISLNK(st.st_mode);
}

bool entry_exists(const std::string& path) {
  struct stat st;
  return lstat_entry(path, &st);
}

// The names in directory path ("." and ".." left out); empty when it cannot
// be read.
std::vector<std::string> list_directory(const std::string& path) {
  std::vector<std::string> names;
  int fd = open_confined(path, O_RDONLY | O_DIRECTORY);
  if (fd < 0) return names;
  DIR* d = ::fdopendir(fd);
  if (d == nullptr) {
    ::close(fd);
    return names;
  }
  while (dirent* e = ::readdir(d)) {
    std::string_view name = e->d_name;
    if (name != "." && name != "..") names.emplace_back(name);
  }
  ::closedir(d);
  return names;
}

bool is_link_dir_name(std::string_view entry) {
  return (entry.size() > 6 && entry.substr(entry.size() - 6) == ".wants") ||
         (entry.size() > 9 && entry.substr(entry.size() - 9) == ".requires");
}

// Expands the specifiers that matter for simple install sections; names
// with any other specifier are dropped rather than linked under a wrong name.
std::optional<std::string> expand_specifiers(std::string_view word, const std::string& unit,
                                             const std::string& instance) {
  std::string out;
  for (size_t i = 0; i < word.size(); ++i) {
    if (word[i] != '%') {
      out.push_back(word[i]);
      continue;
    }
    if (++i == word.size()) return std::nullopt;
    switch (word[i]) {
      case '%':
        out.push_back('%');
        break;
      case 'i':
      case 'I':
        out += instance;
        break;
      case 'n':
      case 'N':
        out += unit;
        break;
      default:
        return std::nullopt;
    }
  }
  if (!is_valid_unit_name(out)) return std::nullopt;
  return out;
}

// The program ExecStart= runs: prefix characters that change how systemd
// runs it are not part of the path.
std::string exec_program_of(std::string_view value) {
  size_t i = 0;
  while (i < value.size() && std::string_view("@-:+!|").find(value[i]) != std::string_view::npos) ++i;
  std::string_view program = text::first_word(value.substr(i));
  if (program.size() >= 2 && program.front() == '"' && program.back() == '"') {
    program = program.substr(1, program.size() - 2);
  }
  return std::string(program);
}

void parse_unit(std::string_view contents, const std::string& unit, const std::string& instance, UnitFileInfo* info) {
  std::string section;
  std::string logical;  // a line with its backslash continuations joined
  auto handle = [&](std::string_view line) {
    line = trim(line);
    if (line.empty() || line.front() == '#' || line.front() == ';') return;
    if (line.front() == '[') {
      size_t close = line.find(']');
      section = std::string(line.substr(1, close == std::string_view::npos ? 0 : close - 1));
      return;
    }
    size_t eq = line.find('=');
    if (eq == std::string_view::npos) return;
    std::string_view key = trim(line.substr(0, eq));
    std::string_view value = trim(line.substr(eq + 1));
    std::vector<std::string>* list = nullptr;
    if (section == "Install") {
      if (key == "WantedBy") list = &info->wanted_by;
      if (key == "RequiredBy") list = &info->required_by;
      if (key == "Alias") list = &info->aliases;
    } else if (section == "Service") {
      if (key == "ExecStart") {
        // An empty assignment clears earlier ones; otherwise the first wins.
        if (value.empty())
          info->exec_program.clear();
        else if (info->exec_program.empty())
          info->exec_program = exec_program_of(value);
      } else if (key == "PIDFile") {
        info->pid_file = std::string(value);
      }
    }
    if (list == nullptr) return;
    if (value.empty()) {
      list->clear();
      return;
    }
    for (std::string_view word : split_words(value)) {
      if (auto expanded = expand_specifiers(word, unit, instance)) list->push_back(*expanded);
    }
  };
  text::for_each_line(contents, [&](std::string_view line) {
    std::string_view trimmed_end = trim(line);
    if (!trimmed_end.empty() && trimmed_end.back() == '\\' && trimmed_end.front() != '#' &&
        trimmed_end.front() != ';') {
      logical.append(trimmed_end.substr(0, trimmed_end.size() - 1));
      logical.push_back(' ');
      return;
    }
    logical.append(line);
    handle(logical);
    logical.clear();
  });
  // A continuation on the last line has nothing to join.
  if (!logical.empty()) handle(logical);
}

// Where a unit directory entry leads, links followed; paths inside the root.
struct Located {
  std::string contents_path;  // the regular file that holds the unit
  bool masked = false;        // the entry is (or leads to) a link to /dev/null
};

// Link targets are taken as paths inside the root; ".." never climbs out.
std::string in_root_target(const std::string& link_path, const std::string& target) {
  std::filesystem::path joined =
      target.front() == '/' ? std::filesystem::path(target) : std::filesystem::path(link_path).parent_path() / target;
  return joined.lexically_normal().string();
}

std::optional<Located> locate(const std::string& lookup_name) {
  for (const std::string& dir : kUnitSearchDirs) {
    std::string entry = dir + "/" + lookup_name;
    struct stat st;
    if (!lstat_entry(resolve(entry), &st)) continue;
    Located found;
    std::string current = entry;
    int hops = 0;
    while (S_ISLNK(st.st_mode)) {
      std::optional<std::string> target = read_link(resolve(current));
      if (!target || target->empty() || ++hops > kMaxLinkHops) return std::nullopt;
      current = in_root_target(current, *target);
      if (current == "/dev/null") {
        found.masked = true;
        return found;
      }
      if (!lstat_entry(resolve(current), &st)) break;  // dangling: try the next directory
    }
    if (!S_ISREG(st.st_mode)) continue;
    found.contents_path = current;
    return found;
  }
  return std::nullopt;
}

std::optional<UnitFileInfo> find_unit(const std::string& name) {
  if (!is_valid_unit_name(name)) return std::nullopt;
  std::optional<UnitInstance> instance = split_unit_instance(name);
  std::string lookup_name = name;
  std::optional<Located> found = locate(name);
  if (!found && instance) {
    lookup_name = instance->template_name;
    found = locate(lookup_name);
  }
  if (!found) return std::nullopt;

  UnitFileInfo info;
  info.name = name;
  info.masked = found->masked;
  if (info.masked) return info;
  info.path = found->contents_path;
  std::string_view target_base = base_name(found->contents_path);
  if (target_base != lookup_name) {
    // A link under another name: either an alias of another unit, or (for
    // an instance link to its template) the template itself.
    bool template_link = instance && target_base == instance->template_name;
    if (!template_link) info.alias_of = std::string(target_base);
  }
  std::optional<std::string> text = read_file(resolve(info.path));
  if (!text) return std::nullopt;
  parse_unit(*text, name, instance ? instance->instance : std::string(), &info);
  return info;
}

UnitFileState state_of(const std::string& name, int depth) {
  std::optional<UnitFileInfo> info = find_unit(name);
  if (!info) return UnitFileState::kNotFound;
  if (info->masked) return UnitFileState::kMasked;
  if (!info->alias_of.empty()) {
    if (depth >= kMaxLinkHops) return UnitFileState::kNotFound;
    return state_of(info->alias_of, depth + 1);
  }
  for (const std::string& dir : kLinkDirs) {
    std::string resolved = resolve(dir);
    for (const std::string& entry : list_directory(resolved)) {
      if (is_link_dir_name(entry) && entry_exists(resolved + "/" + entry + "/" + name)) return UnitFileState::kEnabled;
    }
  }
  for (const std::string& alias : info->aliases) {
    if (alias == name) continue;
    std::optional<std::string> target = read_link(resolve(std::string(kUnitAdminDir) + "/" + alias));
    if (target && base_name(*target) == base_name(info->path)) return UnitFileState::kEnabled;
  }
  if (info->wanted_by.empty() && info->required_by.empty() && info->aliases.empty()) {
    return UnitFileState::kStatic;
  }
  return UnitFileState::kDisabled;
}

// Places a link dir/name -> target so that readers never see it missing:
// the link is made under a temporary name and renamed over the old one.
int place_link(const std::string& dir, const std::string& name, const std::string& target) {
  std::string leaf;
  UniqueFd dir_fd(open_parent_confined(dir + "/" + name, true, &leaf));
  if (!dir_fd.valid()) return errno != 0 ? errno : EIO;
  static std::atomic<unsigned> counter{0};
  std::string tmp = ".#" + leaf + "." + std::to_string(::getpid()) + "." + std::to_string(counter++);
  ::unlinkat(dir_fd.get(), tmp.c_str(), 0);
  if (::symlinkat(target.c_str(), dir_fd.get(), tmp.c_str()) != 0) return errno;
  if (::renameat(dir_fd.get(), tmp.c_str(), dir_fd.get(), leaf.c_str()) != 0) {
    int err = errno;
    ::unlinkat(dir_fd.get(), tmp.c_str(), 0);
    return err;
  }
  return 0;
}

// Removes path when it is a link; 0 when it is gone (or never was).
int remove_link(const std::string& path) {
  std::string leaf;
  UniqueFd dir(open_parent_confined(path, false, &leaf));
  if (!dir.valid()) return 0;
  struct stat st;
  if (::fstatat(dir.get(), leaf.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0 || !S_ISLNK(st.st_mode)) return 0;
  if (::unlinkat(dir.get(), leaf.c_str(), 0) != 0 && errno != ENOENT) return errno;
  return 0;
}

}  // namespace

std::optional<UnitInstance> split_unit_instance(const std::string& name) {
  size_t at = name.find('@');
  size_t dot = name.rfind('.');
  if (at == std::string::npos || dot == std::string::npos || dot <= at + 1) return std::nullopt;
  return UnitInstance{name.substr(0, at + 1) + name.substr(dot), name.substr(at + 1, dot - at - 1)};
}

std::optional<UnitFileInfo> find_unit_file(const std::string& name) { return find_unit(name); }

UnitFileState unit_file_state(const std::string& name) { return state_of(name, 0); }

int enable_unit_file(const std::string& name) {
  std::string unit = name;
  std::optional<UnitFileInfo> info;
  for (int hops = 0;; ++hops) {
    info = find_unit(unit);
    if (!info) return ENOENT;
    if (info->masked) return EPERM;
    if (info->alias_of.empty()) break;
    if (hops >= kMaxLinkHops) return ELOOP;
    unit = info->alias_of;
  }
  // A bare template has no name to link under.
  if (unit.find("@.") != std::string::npos) return EINVAL;
  if (info->wanted_by.empty() && info->required_by.empty() && info->aliases.empty()) return EINVAL;

  int status = 0;
  auto keep_first = [&status](int s) {
    if (status == 0) status = s;
  };
  const std::string admin_dir = resolve(kUnitAdminDir);
  for (const std::string& target : info->wanted_by) {
    keep_first(place_link(admin_dir + "/" + target + ".wants", unit, info->path));
  }
  for (const std::string& target : info->required_by) {
    keep_first(place_link(admin_dir + "/" + target + ".requires", unit, info->path));
  }
  for (const std::string& alias : info->aliases) {
    if (alias == unit) continue;
    // Never replace a real unit file that happens to carry the alias name.
    std::string alias_path = admin_dir + "/" + alias;
    if (entry_exists(alias_path) && !is_symlink(alias_path)) {
      keep_first(EEXIST);
      continue;
    }
    keep_first(place_link(admin_dir, alias, info->path));
  }
  return status;
}

int disable_unit_file(const std::string& name) {
  std::string unit = name;
  std::optional<UnitFileInfo> info;
  for (int hops = 0;; ++hops) {
    info = find_unit(unit);
    if (!info) return ENOENT;
    if (info->masked || info->alias_of.empty()) break;
    if (hops >= kMaxLinkHops) return ELOOP;
    unit = info->alias_of;
  }

  int status = 0;
  auto keep_first = [&status](int s) {
    if (status == 0) status = s;
  };
  const std::string admin_dir = resolve(kUnitAdminDir);
  for (const std::string& entry : list_directory(admin_dir)) {
    if (is_link_dir_name(entry)) keep_first(remove_link(admin_dir + "/" + entry + "/" + unit));
  }
  for (const std::string& alias : info->aliases) {
    if (alias == unit) continue;
    std::string alias_path = admin_dir + "/" + alias;
    std::optional<std::string> target = read_link(alias_path);
    // Only links that point at this unit are ours to remove.
    if (target && base_name(*target) == base_name(info->path)) keep_first(remove_link(alias_path));
  }
  return status;
}

}  // namespace platform
