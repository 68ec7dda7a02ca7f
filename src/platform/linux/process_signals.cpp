// Signals by number, with the refusals that keep the host and, on a sandbox
// root, the machine outside the host's own process tree safe.
#include "platform/linux/process_signals.h"

#include <errno.h>
#include <signal.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <charconv>
#include <optional>
#include <string_view>
#include <utility>

#include "platform/file_util.h"

namespace platform {

namespace {

// Through syscall(2): the C library's own declarations of these are not
// usable from C++ on every release we build on.
int open_pidfd(pid_t pid) { return static_cast<int>(::syscall(SYS_pidfd_open, pid, 0u)); }
int send_through_pidfd(int pidfd, int signal) {
  return static_cast<int>(::syscall(SYS_pidfd_send_signal, pidfd, signal, nullptr, 0u));
}

// Deeper process trees than this are not worth following: the answer is no.
constexpr int kMaxAncestors = 4096;

// Numbers that name no single process (0 is the caller's group, negative
// numbers whole groups, 1 is init), the host, and whoever started the host
// (a supervisor or shell that would take the host down with it).
bool is_protected(pid_t pid) { return pid <= 1 || pid == ::getpid() || pid == ::getppid(); }

class LinuxProcessSignals : public ProcessSignals {
 public:
  int send(pid_t pid, int signal) override {
    if (is_protected(pid)) return EPERM;
    return ::kill(pid, signal) == 0 ? 0 : errno;
  }
};

class SandboxProcessSignals : public ProcessSignals {
 public:
  explicit SandboxProcessSignals(std::string proc_dir) : proc_dir_(std::move(proc_dir)) {}

  int send(pid_t pid, int signal) override {
    if (is_protected(pid)) return EPERM;
    // Held from before the check to the send: should pid exit and its number
    // go to another process, the send reaches no one rather than a stranger.
    int pidfd = open_pidfd(pid);
    if (pidfd < 0) return errno == ESRCH ? ESRCH : EPERM;
    int result = EPERM;
    if (descends_from_host(pid)) result = send_through_pidfd(pidfd, signal) == 0 ? 0 : errno;
    ::close(pidfd);
    return result;
  }

 private:
  bool descends_from_host(pid_t pid) const {
    const pid_t host = ::getpid();
    for (int depth = 0; depth < kMaxAncestors; ++depth) {
      std::optional<pid_t> parent = parent_of(pid);
      if (!parent) return false;
      if (*parent == host) return true;
      if (*parent <= 1) return false;
      pid = *parent;
    }
    return false;
  }

  // The parent field of PID/stat: the second after the command name, which
  // ends at the last ')'.
  std::optional<pid_t> parent_of(pid_t pid) const {
    std::optional<std::string> stat = read_file(proc_dir_ + "/" + std::to_string(pid) + "/stat", 4096);
    if (!stat) return std::nullopt;
    size_t close = stat->rfind(')');
    if (close == std::string::npos) return std::nullopt;
    std::string_view rest = std::string_view(*stat).substr(close + 1);
    // " S PPID ..."
    if (rest.size() < 4 || rest[0] != ' ' || rest[2] != ' ') return std::nullopt;
    rest.remove_prefix(3);
    pid_t parent = 0;
    auto [end, ec] = std::from_chars(rest.data(), rest.data() + rest.size(), parent);
    if (ec != std::errc() || end == rest.data() || (end != rest.data() + rest.size() && *end != ' '))
      return std::nullopt;
    return parent;
  }

  const std::string proc_dir_;
};

}  // namespace

std::unique_ptr<ProcessSignals> make_linux_process_signals() { return std::make_unique<LinuxProcessSignals>(); }

std::unique_ptr<ProcessSignals> make_sandbox_process_signals(std::string proc_dir) {
  return std::make_unique<SandboxProcessSignals>(std::move(proc_dir));
}

}  // namespace platform
