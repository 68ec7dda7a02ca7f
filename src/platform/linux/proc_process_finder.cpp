#include "platform/linux/proc_process_finder.h"

#include <dirent.h>
#include <unistd.h>

#include <cstdlib>
#include <string_view>

#include "platform/file_util.h"

namespace platform {

namespace {

// The kernel keeps 15 bytes of a command name.
constexpr size_t kCommLength = 15;

bool all_digits(std::string_view s) {
  if (s.empty()) return false;
  for (char c : s)
    if (c < '0' || c > '9') return false;
  return true;
}

// The state letter of a stat line: the field after the last ')', since the
// command name inside the parentheses may itself hold one.
char state_of(const std::string& stat) {
  size_t close = stat.rfind(')');
  if (close == std::string::npos || close + 2 >= stat.size()) return '?';
  return stat[close + 2];
}

std::string executable_name(const std::string& link) {
  char target[4096];
  ssize_t n = ::readlink(link.c_str(), target, sizeof target - 1);
  if (n <= 0) return "";
  std::string_view path(target, static_cast<size_t>(n));
  constexpr std::string_view kDeleted = " (deleted)";
  if (path.size() > kDeleted.size() && path.substr(path.size() - kDeleted.size()) == kDeleted)
    path.remove_suffix(kDeleted.size());
  size_t slash = path.rfind('/');
  return std::string(slash == std::string_view::npos ? path : path.substr(slash + 1));
}

class ProcProcessFinder : public ProcessFinder {
 public:
  explicit ProcProcessFinder(std::string proc_dir) : proc_dir_(std::move(proc_dir)) {}

  std::optional<int> pid_by_name(const std::string& name) override {
    if (name.empty() || name.find('/') != std::string::npos || name.find('\0') != std::string::npos)
      return std::nullopt;
    DIR* dir = ::opendir(proc_dir_.c_str());
    if (dir == nullptr) return std::nullopt;
    const std::string comm_wanted = name.substr(0, kCommLength);
    const long self = static_cast<long>(::getpid());
    std::optional<int> found;
    while (dirent* entry = ::readdir(dir)) {
      std::string_view id(entry->d_name);
      if (!all_digits(id) || id.size() > 9) continue;
      long pid = std::strtol(entry->d_name, nullptr, 10);
      if (pid <= 1 || pid == self) continue;
      if (found && pid >= *found) continue;
      std::string base = proc_dir_ + "/" + entry->d_name;
      std::optional<std::string> comm = read_file(base + "/comm");
      if (!comm) continue;
      if (!comm->empty() && comm->back() == '\n') comm->pop_back();
      if (*comm != comm_wanted) continue;
      std::optional<std::string> stat = read_file(base + "/stat");
      if (!stat || state_of(*stat) == 'Z') continue;
      if (executable_name(base + "/exe") != name) continue;
      found = static_cast<int>(pid);
    }
    ::closedir(dir);
    return found;
  }

 private:
  std::string proc_dir_;
};

}  // namespace

std::unique_ptr<ProcessFinder> make_proc_process_finder(std::string proc_dir) {
  return std::make_unique<ProcProcessFinder>(std::move(proc_dir));
}

}  // namespace platform
