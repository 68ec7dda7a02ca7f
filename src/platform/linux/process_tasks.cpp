// Runs tools as child processes. run() forks, connects the child's three
// standard streams to pipes and serves them from one poll loop, so a tool
// that fills its output pipe while we are still feeding its input cannot
// deadlock us. spawn_detached() double-forks so the tool belongs to init
// and never becomes our zombie. Exec failures travel back over a
// close-on-exec pipe: its end closing with no message means exec worked.
//
// Between fork and exec the child makes only async-signal-safe calls,
// because the daemon is multithreaded; everything it needs (argument
// vector, paths) is prepared before the fork.
//
// Under a sandbox root a tool runs from inside the root or not at all, so
// that a sandbox can hold stand-ins and nothing run against it (a reboot, a
// clock or name change) ever reaches the machine. The tools table, read
// once when the runner is made, says what runs in place of a tool the
// module names; the same rule then applies to what it names.
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <limits>

#include "platform/linux/basics.h"
#include "platform/linux/tool_map.h"
#include "platform/paths.h"
#include "platform/registry.h"
#include "platform/root_fs.h"
#include "platform/unique_fd.h"

#ifndef CLOSE_RANGE_CLOEXEC
#define CLOSE_RANGE_CLOEXEC (1U << 2)
#endif

namespace platform {

namespace {

// Output beyond this per stream is read and dropped, so a runaway tool
// cannot exhaust the daemon's memory.
constexpr size_t kMaxCapturedBytes = 64u << 20;

class Fd {
 public:
  Fd() = default;
  explicit Fd(int fd) : fd_(fd) {}
  Fd(const Fd&) = delete;
  Fd& operator=(const Fd&) = delete;
  ~Fd() { reset(); }
  int get() const { return fd_; }
  bool valid() const { return fd_ >= 0; }
  void reset(int fd = -1) {
    if (fd_ >= 0) ::close(fd_);
    fd_ = fd;
  }

 private:
  int fd_ = -1;
};

struct Pipe {
  Fd read, write;
  bool open() {
    int fds[2];
    if (::pipe2(fds, O_CLOEXEC) != 0) return false;
    read.reset(fds[0]);
    write.reset(fds[1]);
    return true;
  }
};

// The file to execute for the tool at path: path itself at the real root.
// Under a sandbox root, the tool's place inside the root (links resolved
// within it), when that is an executable regular file; nullopt otherwise.
std::optional<std::string> tool_to_run(const std::string& path) {
  const Paths* paths = find<Paths>();
  if (paths == nullptr || paths->is_real_root()) return path;
  std::string root, relative;
  std::string inside = path;
  if (!confined_to_root(path, &root, &relative)) {
    if (path.empty() || path.front() != '/') return std::nullopt;
    inside = paths->resolve(path);
  }
  UniqueFd fd(open_confined(inside, O_PATH));
  struct stat st;
  if (!fd.valid() || ::fstat(fd.get(), &st) != 0 || !S_ISREG(st.st_mode) || (st.st_mode & 0111) == 0)
    return std::nullopt;
  // Exec the file the confined lookup found, by the name the kernel gives
  // it, rather than the sandbox path whose links exec would follow anew.
  char found[PATH_MAX];
  ssize_t n = ::readlink(("/proc/self/fd/" + std::to_string(fd.get())).c_str(), found, sizeof found - 1);
  if (n <= 0) return std::nullopt;
  return std::string(found, static_cast<size_t>(n));
}

// A tool ready to exec: the file to execute and the argument strings, kept
// here so that the pointers handed to exec stay valid across the fork.
struct Command {
  std::string program;
  std::vector<std::string> args;
  std::vector<char*> argv() {
    std::vector<char*> out;
    for (std::string& a : args) out.push_back(a.data());
    out.push_back(nullptr);
    return out;
  }
};

// The command for the tool the module names path, with args (args[0] its
// name). A mapped tool runs under the mapped program's name, since programs
// that serve several commands (systemctl as reboot) choose by argv[0]; the
// table's leading arguments come before the module's own.
std::optional<Command> prepare(const ToolMap& tools, const std::string& path, const std::vector<std::string>& args) {
  std::vector<std::string> mapped = tools.command_for(path);
  std::optional<std::string> program = tool_to_run(mapped.front());
  if (!program) return std::nullopt;
  Command command{*program, {}};
  if (mapped.size() == 1 && mapped.front() == path) {
    command.args = args;
    if (command.args.empty()) command.args.push_back(path);
  } else {
    command.args = mapped;
    if (!args.empty()) command.args.insert(command.args.end(), args.begin() + 1, args.end());
  }
  return command;
}

double monotonic_now() {
  struct timespec ts;
  ::clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) / 1e9;
}

int wait_for_exit(pid_t pid) {
  int status = 0;
  while (::waitpid(pid, &status, 0) < 0) {
    if (errno != EINTR) return -1;
  }
  if (WIFEXITED(status)) return WEXITSTATUS(status);
  if (WIFSIGNALED(status)) return 128 + WTERMSIG(status);
  return -1;
}

void write_all_raw(int fd, const void* data, size_t size) {
  const char* p = static_cast<const char*>(data);
  while (size > 0) {
    ssize_t n = ::write(fd, p, size);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return;
    p += n;
    size -= static_cast<size_t>(n);
  }
}

// Child side, before exec: undo what the daemon set up for itself (blocked
// or ignored signals are inherited across exec).
void reset_signal_state() {
  sigset_t none;
  sigemptyset(&none);
  ::sigprocmask(SIG_SETMASK, &none, nullptr);
  struct sigaction dfl = {};
  dfl.sa_handler = SIG_DFL;
  ::sigaction(SIGPIPE, &dfl, nullptr);
}

// The same, and the daemon's other descriptors kept out of the tool.
void reset_child_state() {
  reset_signal_state();
  ::syscall(SYS_close_range, 3u, ~0u, CLOSE_RANGE_CLOEXEC);
}

// Moves fd above the standard descriptors, in case the daemon runs with one
// of them closed and a pipe took its number.
int lift(int fd) { return fd > 2 ? fd : ::fcntl(fd, F_DUPFD_CLOEXEC, 3); }

[[noreturn]] void exec_child(const char* path, char* const argv[], int in, int out, int err, int report) {
  in = lift(in);
  out = lift(out);
  err = lift(err);
  report = lift(report);
  if (::dup2(in, 0) < 0 || ::dup2(out, 1) < 0 || ::dup2(err, 2) < 0) {
    int e = errno;
    write_all_raw(report, &e, sizeof e);
    ::_exit(127);
  }
  // Its own process group, so a timeout can kill whatever it started too.
  ::setpgid(0, 0);
  reset_child_state();
  ::execv(path, argv);
  int e = errno;
  write_all_raw(report, &e, sizeof e);
  ::_exit(127);
}

// Writes to a pipe whose reader may be gone without taking SIGPIPE: the
// signal is blocked for this thread and, if the write raised it, consumed.
ssize_t write_without_sigpipe(int fd, const char* data, size_t size) {
  sigset_t pipe_set, old;
  sigemptyset(&pipe_set);
  sigaddset(&pipe_set, SIGPIPE);
  ::pthread_sigmask(SIG_BLOCK, &pipe_set, &old);
  sigset_t pending;
  sigemptyset(&pending);
  ::sigpending(&pending);
  bool was_pending = sigismember(&pending, SIGPIPE);
  ssize_t n = ::write(fd, data, size);
  int e = errno;
  if (n < 0 && e == EPIPE && !was_pending) {
    struct timespec zero = {0, 0};
    ::sigtimedwait(&pipe_set, nullptr, &zero);
  }
  ::pthread_sigmask(SIG_SETMASK, &old, nullptr);
  errno = e;
  return n;
}

// Reads what fd has now into sink; closes fd at end of file or error.
void drain(Fd& fd, std::string& sink) {
  char buf[65536];
  while (fd.valid()) {
    ssize_t n = ::read(fd.get(), buf, sizeof buf);
    if (n > 0) {
      size_t room = sink.size() < kMaxCapturedBytes ? kMaxCapturedBytes - sink.size() : 0;
      sink.append(buf, std::min(room, static_cast<size_t>(n)));
      continue;
    }
    if (n < 0 && errno == EINTR) continue;
    if (n < 0 && errno == EAGAIN) return;
    fd.reset();
  }
}

void set_nonblocking(int fd) { ::fcntl(fd, F_SETFL, ::fcntl(fd, F_GETFL) | O_NONBLOCK); }

// A descriptor that becomes readable when the child exits (Linux 5.3+), so
// that a grandchild still holding our pipes cannot keep run() waiting.
int open_pidfd(pid_t pid) {
#ifdef SYS_pidfd_open
  long fd = ::syscall(SYS_pidfd_open, pid, 0);
  return fd < 0 ? -1 : static_cast<int>(fd);
#else
  return -1;
#endif
}

bool child_has_exited(pid_t pid) {
  siginfo_t info = {};
  return ::waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOHANG | WNOWAIT) == 0 && info.si_pid == pid;
}

// The soft limit of open files, which bounds the descriptors a process can
// hold; 10240 when it cannot be read.
int open_files_limit() {
  struct rlimit limit;
  if (::getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur == RLIM_INFINITY) return 10240;
  return static_cast<int>(std::min<rlim_t>(limit.rlim_cur, std::numeric_limits<int>::max()));
}

// Closes every descriptor below limit except keep. One close_range call per
// side of keep: a limit raised to a million would otherwise cost a million
// system calls before the job starts. Async-signal-safe.
void close_all_but(int keep, int limit) {
  auto close_span = [](int first, int last) {
    if (first > last) return;
    if (::syscall(SYS_close_range, static_cast<unsigned>(first), static_cast<unsigned>(last), 0u) == 0) return;
    for (int fd = last; fd >= first; --fd) ::close(fd);
  };
  close_span(keep + 1, limit - 1);
  close_span(0, std::min(keep, limit) - 1);
}

class ProcessTasks : public Tasks {
 public:
  explicit ProcessTasks(ToolMap tools) : tools_(std::move(tools)) {}

  TaskResult run(const std::string& path, const std::vector<std::string>& args, const std::string& input,
                 double timeout_seconds) override {
    TaskResult result;
    std::optional<Command> command = prepare(tools_, path, args);
    if (!command) return result;
    const std::string* tool = &command->program;
    Pipe in, out, err, report;
    if (!in.open() || !out.open() || !err.open() || !report.open()) return result;
    std::vector<char*> argv = command->argv();

    pid_t pid = ::fork();
    if (pid < 0) return result;
    if (pid == 0)
      exec_child(tool->c_str(), argv.data(), in.read.get(), out.write.get(), err.write.get(), report.write.get());

    // The child keeps its own copies; ours would hide end of file.
    in.read.reset();
    out.write.reset();
    err.write.reset();
    report.write.reset();
    if (exec_failed(report.read.get())) {
      wait_for_exit(pid);
      return result;
    }
    result.launched = true;

    serve(pid, in.write, out.read, err.read, input, timeout_seconds, &result);
    if (result.timed_out) {
      ::kill(-pid, SIGKILL);
      ::kill(pid, SIGKILL);
    }
    in.write.reset();
    out.read.reset();
    err.read.reset();
    result.exit_status = wait_for_exit(pid);
    return result;
  }

  std::optional<int> spawn_detached(const std::string& path, const std::vector<std::string>& args) override {
    std::optional<Command> command = prepare(tools_, path, args);
    if (!command) return std::nullopt;
    const std::string* program = &command->program;
    Pipe report;
    if (!report.open()) return std::nullopt;
    std::vector<char*> argv = command->argv();

    pid_t middle = ::fork();
    if (middle < 0) return std::nullopt;
    if (middle == 0) {
      // A new session: no controlling terminal, and the daemon's terminal
      // signals do not reach the tool.
      ::setsid();
      int wfd = lift(report.write.get());
      pid_t tool = ::fork();
      if (tool < 0) {
        Message m{Message::kForkFailed, errno};
        write_all_raw(wfd, &m, sizeof m);
        ::_exit(1);
      }
      if (tool == 0) {
        int null = ::open("/dev/null", O_RDWR | O_CLOEXEC);
        if (null >= 0) {
          null = lift(null);
          ::dup2(null, 0);
          ::dup2(null, 1);
          ::dup2(null, 2);
        }
        reset_child_state();
        ::execv(program->c_str(), argv.data());
        Message m{Message::kExecFailed, errno};
        write_all_raw(wfd, &m, sizeof m);
        ::_exit(127);
      }
      Message m{Message::kPid, tool};
      write_all_raw(wfd, &m, sizeof m);
      ::_exit(0);
    }
    report.write.reset();
    wait_for_exit(middle);

    // End of file comes once the middle process has exited and the tool has
    // either exec'd or died.
    std::optional<int> pid;
    bool failed = false;
    Message m;
    while (read_message(report.read.get(), &m)) {
      if (m.kind == Message::kPid)
        pid = m.value;
      else
        failed = true;
    }
    if (failed) return std::nullopt;
    return pid;
  }

  DetachedLaunch launch_detached(const std::string& path, const std::vector<std::string>& args) override {
    DetachedLaunch launch;
    std::optional<Command> command = prepare(tools_, path, args);
    Pipe report;
    if (!report.open()) {
      launch.fork_errno = errno;
      return launch;
    }
    // A tool that is missing fails its exec in the job, as it would have
    // on a system where the module's path is the tool itself.
    static const char kMissing[] = "/nonexistent/hubwarden-tool";
    std::vector<char*> argv;
    if (command) {
      argv = command->argv();
    } else {
      argv = {const_cast<char*>(path.c_str()), nullptr};
    }
    const char* program = command ? command->program.c_str() : kMissing;
    char* const empty_environment[] = {nullptr};
    const int limit = open_files_limit();

    pid_t middle = ::fork();
    if (middle < 0) {
      launch.fork_errno = errno;
      return launch;
    }
    if (middle == 0) {
      // Above the standard descriptors, which daemon(3) points at the null
      // device.
      int wfd = lift(report.write.get());
      if (::daemon(1, 0) != 0) {
        int e = errno;
        write_all_raw(wfd, &e, sizeof e);
        ::_exit(0);
      }
      reset_signal_state();
      // The report pipe is close-on-exec: it stays until the exec, so the
      // parent's read ends only once the job runs or has given up.
      close_all_but(wfd, limit);
      ::execve(program, argv.data(), empty_environment);
      ::_exit(1);
    }
    report.write.reset();
    wait_for_exit(middle);
    launch.pid = middle;
    int e = 0;
    for (;;) {
      ssize_t n = ::read(report.read.get(), &e, sizeof e);
      if (n < 0 && errno == EINTR) continue;
      if (n == static_cast<ssize_t>(sizeof e)) launch.daemon_errno = e;
      break;
    }
    return launch;
  }

  bool has_tool(const std::string& path) override {
    std::optional<Command> command = prepare(tools_, path, {});
    struct stat st;
    return command && ::stat(command->program.c_str(), &st) == 0;
  }

 private:
  struct Message {
    enum Kind : int { kPid = 1, kExecFailed = 2, kForkFailed = 3 };
    int kind = 0;
    int value = 0;
  };

  const ToolMap tools_;

  static bool read_message(int fd, Message* m) {
    size_t got = 0;
    char* p = reinterpret_cast<char*>(m);
    while (got < sizeof *m) {
      ssize_t n = ::read(fd, p + got, sizeof *m - got);
      if (n < 0 && errno == EINTR) continue;
      if (n <= 0) return false;
      got += static_cast<size_t>(n);
    }
    return true;
  }

  // Blocks until the child has exec'd (the report pipe closes empty) or
  // failed to (it carries errno).
  static bool exec_failed(int report_fd) {
    int e = 0;
    for (;;) {
      ssize_t n = ::read(report_fd, &e, sizeof e);
      if (n < 0 && errno == EINTR) continue;
      return n > 0;
    }
  }

  // Feeds input and collects output until the child is done with its
  // streams (or has exited) or the time limit passes.
  static void serve(pid_t pid, Fd& in, Fd& out, Fd& err, const std::string& input, double timeout_seconds,
                    TaskResult* result) {
    set_nonblocking(out.get());
    set_nonblocking(err.get());
    set_nonblocking(in.get());
    size_t written = 0;
    if (input.empty()) in.reset();
    Fd exited(open_pidfd(pid));
    bool limited = timeout_seconds > 0 && std::isfinite(timeout_seconds);
    double deadline = limited ? monotonic_now() + timeout_seconds : 0;

    for (;;) {
      bool streams_open = out.valid() || err.valid();
      if (!streams_open && !limited) return;  // waitpid does the rest
      int wait_ms = -1;
      if (limited) {
        double left = deadline - monotonic_now();
        if (left <= 0) {
          result->timed_out = true;
          return;
        }
        wait_ms = static_cast<int>(std::min(left * 1000.0 + 1, 1e9));
      }
      struct pollfd fds[4];
      int n = 0;
      int out_at = -1, err_at = -1, in_at = -1, exit_at = -1;
      if (out.valid()) fds[out_at = n++] = {out.get(), POLLIN, 0};
      if (err.valid()) fds[err_at = n++] = {err.get(), POLLIN, 0};
      if (in.valid()) fds[in_at = n++] = {in.get(), POLLOUT, 0};
      if (exited.valid()) fds[exit_at = n++] = {exited.get(), POLLIN, 0};
      if (!streams_open && !exited.valid()) {
        // Streams closed but the tool is still running and no process
        // descriptor to wait on: check back shortly.
        if (child_has_exited(pid)) return;
        wait_ms = wait_ms < 0 ? 10 : std::min(wait_ms, 10);
      }
      int ready = ::poll(fds, static_cast<nfds_t>(n), wait_ms);
      if (ready < 0) {
        if (errno == EINTR) continue;
        return;
      }
      if (out_at >= 0 && fds[out_at].revents) drain(out, result->out);
      if (err_at >= 0 && fds[err_at].revents) drain(err, result->err);
      if (in_at >= 0 && fds[in_at].revents) {
        if (fds[in_at].revents & (POLLERR | POLLHUP)) {
          in.reset();
        } else {
          ssize_t w = write_without_sigpipe(in.get(), input.data() + written, input.size() - written);
          if (w > 0)
            written += static_cast<size_t>(w);
          else if (w < 0 && errno != EAGAIN && errno != EINTR)
            in.reset();
          if (written == input.size()) in.reset();  // end of file for the tool
        }
      }
      if (exit_at >= 0 && fds[exit_at].revents) {
        // Everything the tool wrote is in the pipes by now; what a
        // grandchild writes later is not the tool's output.
        drain(out, result->out);
        drain(err, result->err);
        return;
      }
    }
  }
};

}  // namespace

std::unique_ptr<Tasks> make_process_tasks() { return std::make_unique<ProcessTasks>(load_tool_map()); }

}  // namespace platform
