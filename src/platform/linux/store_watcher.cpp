// Store sessions on inotify, the kernel host name and routing netlink.
#include "platform/linux/store_watcher.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <string.h>
#include <sys/epoll.h>
#include <sys/inotify.h>

#include <algorithm>
#include <set>
#include <string>
#include <vector>

#include "platform/linux/netlink_watch.h"
#include "platform/log.h"
#include "platform/paths.h"
#include "platform/registry.h"
#include "platform/run_loop.h"
#include "platform/unique_fd.h"

namespace platform {
namespace {

bool watches(const std::vector<StoreKey>& keys, StoreKey key) {
  return std::find(keys.begin(), keys.end(), key) != keys.end();
}

// Directory watches on inotify, each with the entry names that matter.
class NameFileWatch {
 public:
  static std::optional<NameFileWatch> open() {
    UniqueFd fd(::inotify_init1(IN_NONBLOCK | IN_CLOEXEC));
    if (!fd.valid()) return std::nullopt;
    return NameFileWatch(std::move(fd));
  }

  // Watches the directory of path for changes of its last component.
  // False when the directory cannot be watched (missing, unreadable).
  bool add(const std::string& path) {
    size_t slash = path.find_last_of('/');
    std::string dir = slash == 0 ? "/" : path.substr(0, slash);
    std::string name = path.substr(slash + 1);
    // A file replaced by rename arrives as IN_MOVED_TO, one written in
    // place as IN_CLOSE_WRITE; removal or renaming away counts too.
    int wd = ::inotify_add_watch(fd_.get(), dir.c_str(),
                                 IN_CLOSE_WRITE | IN_MOVED_TO | IN_MOVED_FROM | IN_DELETE | IN_ONLYDIR);
    if (wd < 0) return false;
    names_.insert({wd, name});
    return true;
  }

  int fd() const { return fd_.get(); }
  bool empty() const { return names_.empty(); }

  // Reads every event waiting; true when one of them named a watched file.
  bool drain() {
    bool changed = false;
    alignas(inotify_event) char buffer[8192];
    for (;;) {
      ssize_t n = ::read(fd_.get(), buffer, sizeof buffer);
      if (n < 0 && errno == EINTR) continue;
      if (n <= 0) return changed;
      for (char* p = buffer; p < buffer + n;) {
        auto* event = reinterpret_cast<inotify_event*>(p);
        if (event->mask & IN_Q_OVERFLOW) changed = true;
        if (event->len > 0 && names_.count({event->wd, std::string(event->name)})) changed = true;
        p += sizeof(inotify_event) + event->len;
      }
    }
  }

 private:
  explicit NameFileWatch(UniqueFd fd) : fd_(std::move(fd)) {}
  UniqueFd fd_;
  std::set<std::pair<int, std::string>> names_;
};

// The kernel's host name: reading /proc/sys/kernel/hostname once arms it,
// and the descriptor then reports POLLPRI|POLLERR after each sethostname.
class KernelHostNameWatch {
 public:
  static std::optional<KernelHostNameWatch> open() {
    UniqueFd fd(::open("/proc/sys/kernel/hostname", O_RDONLY | O_CLOEXEC));
    if (!fd.valid()) return std::nullopt;
    KernelHostNameWatch watch(std::move(fd));
    watch.rearm();
    return watch;
  }
  int fd() const { return fd_.get(); }
  void rearm() {
    char buffer[256];
    ::lseek(fd_.get(), 0, SEEK_SET);
    (void)!::read(fd_.get(), buffer, sizeof buffer);
    // poll() records the event count it has seen; without it the first
    // wait would report a change that happened before the session opened.
    pollfd p{fd_.get(), POLLPRI, 0};
    ::poll(&p, 1, 0);
  }

 private:
  explicit KernelHostNameWatch(UniqueFd fd) : fd_(std::move(fd)) {}
  UniqueFd fd_;
};

class LinuxStoreSession : public StoreSession {
 public:
  LinuxStoreSession(std::optional<NameFileWatch> files, std::optional<KernelHostNameWatch> host_name,
                    std::optional<NetlinkWatch> netlink)
      : files_(std::move(files)), host_name_(std::move(host_name)), netlink_(std::move(netlink)) {}

  ~LinuxStoreSession() override {
    if (loop_ != nullptr)
      for (RunLoop::Id id : watch_ids_) loop_->cancel(id);
  }

  int run_for(std::chrono::milliseconds timeout, const std::function<void()>& changed) override {
    std::vector<pollfd> fds = pollfds();
    if (fds.empty()) return kRunFinished;
    auto deadline = std::chrono::steady_clock::now() + timeout;
    for (;;) {
      auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
      if (left.count() <= 0) return kRunTimedOut;
      for (pollfd& p : fds) p.revents = 0;
      int n = ::poll(fds.data(), fds.size(), static_cast<int>(std::max<int64_t>(left.count(), 1)));
      if (n < 0 && errno != EINTR) return kRunFinished;
      if (n <= 0) continue;
      bool any = false;
      for (const pollfd& p : fds)
        if (p.revents != 0) any |= take(p.fd);
      if (any) changed();
    }
  }

  bool schedule(RunLoop& loop, std::function<void()> changed) override {
    if (loop_ != nullptr) return false;
    std::vector<pollfd> fds = pollfds();
    if (fds.empty()) return false;
    auto shared = std::make_shared<std::function<void()>>(std::move(changed));
    std::vector<RunLoop::Id> ids;
    for (const pollfd& p : fds) {
      uint32_t events = p.events == POLLPRI ? EPOLLPRI : EPOLLIN;
      int fd = p.fd;
      RunLoop::Id id = loop.watch_fd(fd, events, [this, fd, shared](uint32_t) {
        if (take(fd)) (*shared)();
      });
      if (id == 0) {
        for (RunLoop::Id made : ids) loop.cancel(made);
        return false;
      }
      ids.push_back(id);
    }
    loop_ = &loop;
    watch_ids_ = std::move(ids);
    return true;
  }

 private:
  std::vector<pollfd> pollfds() const {
    std::vector<pollfd> fds;
    if (files_ && !files_->empty()) fds.push_back({files_->fd(), POLLIN, 0});
    if (host_name_) fds.push_back({host_name_->fd(), POLLPRI, 0});
    if (netlink_) fds.push_back({netlink_->fd(), POLLIN, 0});
    return fds;
  }

  // Consumes what fd has to say; true when it was a change worth reporting.
  bool take(int fd) {
    if (files_ && fd == files_->fd()) return files_->drain();
    if (netlink_ && fd == netlink_->fd()) return netlink_->drain();
    if (host_name_ && fd == host_name_->fd()) {
      host_name_->rearm();
      return true;
    }
    return false;
  }

  std::optional<NameFileWatch> files_;
  std::optional<KernelHostNameWatch> host_name_;
  std::optional<NetlinkWatch> netlink_;
  RunLoop* loop_ = nullptr;
  std::vector<RunLoop::Id> watch_ids_;
};

class LinuxStoreWatcher : public StoreWatcher {
 public:
  std::unique_ptr<StoreSession> open_session(const std::string& client_name, const std::vector<StoreKey>& keys,
                                             StoreWatchFailure* failure) override {
    auto fail = [failure](StoreWatchFailure step) -> std::unique_ptr<StoreSession> {
      if (failure) *failure = step;
      return nullptr;
    };
    for (StoreKey key : keys) {
      switch (key) {
        case StoreKey::kComputerName:
        case StoreKey::kHostNames:
        case StoreKey::kIPv4Entities:
        case StoreKey::kIPv6Entities:
          break;
        default:
          return fail(StoreWatchFailure::kCreateKey);
      }
    }

    std::vector<std::string> files;
    if (watches(keys, StoreKey::kComputerName)) files.push_back(resolve("/etc/machine-info"));
    if (watches(keys, StoreKey::kHostNames)) {
      files.push_back(resolve("/etc/hostname"));
      files.push_back(resolve("/etc/avahi/avahi-daemon.conf"));
    }
    std::optional<NameFileWatch> file_watch;
    if (!files.empty()) {
      file_watch = NameFileWatch::open();
      if (!file_watch) return fail(StoreWatchFailure::kRegisterKeys);
      for (const std::string& file : files) file_watch->add(file);
    }

    // Only the machine's own root has the kernel's host name as its own;
    // a sandbox must not see the machine's renames as its own.
    std::optional<KernelHostNameWatch> host_name;
    if (watches(keys, StoreKey::kHostNames) && get<Paths>().is_real_root()) host_name = KernelHostNameWatch::open();

    uint32_t groups = 0;
    if (watches(keys, StoreKey::kIPv4Entities)) groups |= NetlinkWatch::kLinks | NetlinkWatch::kIPv4Addresses;
    if (watches(keys, StoreKey::kIPv6Entities)) groups |= NetlinkWatch::kLinks | NetlinkWatch::kIPv6Addresses;
    std::optional<NetlinkWatch> netlink;
    if (groups != 0) {
      std::string why;
      netlink = NetlinkWatch::open(groups, &why);
      if (!netlink) {
        log_error("hubwardend: no address watch: " + why);
        return fail(StoreWatchFailure::kRegisterKeys);
      }
    }

    if (failure) *failure = StoreWatchFailure::kNone;
    return std::make_unique<LinuxStoreSession>(std::move(file_watch), std::move(host_name), std::move(netlink));
  }
};

}  // namespace

std::unique_ptr<StoreWatcher> make_linux_store_watcher() { return std::make_unique<LinuxStoreWatcher>(); }

}  // namespace platform
