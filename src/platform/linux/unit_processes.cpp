// Process-table evidence that a unit's daemon runs.
#include "platform/linux/unit_processes.h"

#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include <charconv>
#include <string_view>

#include "platform/file_util.h"
#include "platform/paths.h"
#include "platform/root_fs.h"
#include "platform/unique_fd.h"

namespace platform {

namespace {

// The kernel keeps 15 bytes of a command name.
constexpr size_t kCommLength = 15;

bool all_digits(std::string_view s) {
  if (s.empty()) return false;
  for (char c : s) {
    if (c < '0' || c > '9') return false;
  }
  return true;
}

// A live (not zombie) process with this pid exists under the root.
bool process_alive(std::string_view pid) {
  std::optional<std::string> stat = read_file(resolve("/proc/" + std::string(pid) + "/stat"));
  if (!stat) {
    // Looked up inside the sandbox root: a linked proc folder there must
    // not make the machine's own processes count.
    UniqueFd dir(open_confined(resolve("/proc/" + std::string(pid)), O_PATH | O_DIRECTORY));
    return dir.valid();
  }
  // The state letter follows the parenthesised command name, which may
  // itself hold parentheses.
  size_t close = stat->rfind(')');
  if (close == std::string::npos || close + 2 >= stat->size()) return true;
  char state = (*stat)[close + 2];
  return state != 'Z' && state != 'X';
}

bool pid_file_names_live_process(const std::string& pid_file) {
  if (pid_file.empty() || pid_file.front() != '/') return false;
  std::optional<std::string> text = read_file(resolve(pid_file));
  if (!text) return false;
  std::string_view s = *text;
  while (!s.empty() && (s.front() == ' ' || s.front() == '\t')) s.remove_prefix(1);
  int pid = 0;
  auto [end, ec] = std::from_chars(s.data(), s.data() + s.size(), pid);
  if (ec != std::errc() || pid <= 0 || end == s.data()) return false;
  return process_alive(std::to_string(pid));
}

}  // namespace

ProcessSnapshot ProcessSnapshot::take() {
  ProcessSnapshot snapshot;
  std::string proc = resolve("/proc");
  int fd = open_confined(proc, O_RDONLY | O_DIRECTORY);
  if (fd < 0) return snapshot;
  DIR* d = ::fdopendir(fd);
  if (d == nullptr) {
    ::close(fd);
    return snapshot;
  }
  while (dirent* e = ::readdir(d)) {
    std::string_view pid = e->d_name;
    if (!all_digits(pid)) continue;
    std::optional<std::string> name = read_file(proc + "/" + e->d_name + "/comm");
    if (!name) continue;  // gone since the directory was listed
    if (!name->empty() && name->back() == '\n') name->pop_back();
    snapshot.pids_by_comm_.emplace(std::move(*name), std::string(pid));
  }
  ::closedir(d);
  return snapshot;
}

bool ProcessSnapshot::has_live(std::string_view comm) const {
  auto [begin, end] = pids_by_comm_.equal_range(std::string(comm));
  for (auto it = begin; it != end; ++it) {
    if (process_alive(it->second)) return true;
  }
  return false;
}

bool unit_process_running(const UnitFileInfo& unit, const ProcessSnapshot& processes) {
  if (unit.masked) return false;
  if (pid_file_names_live_process(unit.pid_file)) return true;
  std::string_view program = unit.exec_program;
  size_t slash = program.find_last_of('/');
  if (slash != std::string_view::npos) program.remove_prefix(slash + 1);
  if (program.empty()) return false;
  return processes.has_live(program.substr(0, kCommLength));
}

}  // namespace platform
