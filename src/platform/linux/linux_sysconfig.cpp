// The computer name, local host name and host name as a Linux host keeps
// them: the pretty name in /etc/machine-info, Avahi's host name in its
// configuration, the static name in /etc/hostname, each handed to the
// service that owns it (hostnamed, Avahi) when that service runs. Every
// path goes through the installed root, and the system bus is the root's
// own, so a sandbox never renames the machine.
#include <limits.h>
#include <unistd.h>

#include <optional>

#include "platform/file_lock.h"
#include "platform/file_util.h"
#include "platform/linux/avahi_host_name.h"
#include "platform/linux/basics.h"
#include "platform/linux/machine_info.h"
#include "platform/linux/name_services.h"
#include "platform/linux/system_bus.h"
#include "platform/linux/text_files.h"
#include "platform/paths.h"
#include "platform/registry.h"
#include "platform/utf8.h"

namespace platform {

namespace {

constexpr const char* kMachineInfoPath = "/etc/machine-info";
constexpr const char* kHostnamePath = "/etc/hostname";
constexpr const char* kAvahiConfPath = "/etc/avahi/avahi-daemon.conf";
constexpr const char* kLockDir = "/run/hubwarden";
constexpr const char* kLockPath = "/run/hubwarden/sysconfig.lock";
constexpr size_t kMaxLabel = 63;
constexpr size_t kMaxHostName = 253;

// The pretty name may be any text, but a control character would end the
// line it is stored on (or be refused by hostnamed).
bool is_storable_pretty_name(const std::string& name) {
  if (name.empty() || !is_valid_utf8(name)) return false;
  for (unsigned char c : name)
    if (c < 0x20 || c == 0x7F) return false;
  return true;
}

bool is_label(std::string_view label) {
  if (label.empty() || label.size() > kMaxLabel || label.front() == '-' || label.back() == '-') return false;
  for (char c : label) {
    bool ok = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-';
    if (!ok) return false;
  }
  return true;
}

bool is_host_name(std::string_view name) {
  if (name.empty() || name.size() > kMaxHostName) return false;
  for (;;) {
    size_t dot = name.find('.');
    if (!is_label(name.substr(0, dot))) return false;
    if (dot == std::string_view::npos) return true;
    name.remove_prefix(dot + 1);
  }
}

// The file's text, "" when it does not exist yet; nullopt when it exists
// but cannot be read, so that an edit never replaces what it could not see.
std::optional<std::string> read_for_edit(const std::string& path) {
  ReadError error = ReadError::kNone;
  std::optional<std::string> text = read_file(path, kDefaultReadLimit, &error);
  if (!text && error == ReadError::kNotFound) return std::string();
  return text;
}

bool write_pretty_name_file(const std::string& name) {
  const std::string path = resolve(kMachineInfoPath);
  std::optional<std::string> text = read_for_edit(path);
  return text && write_file_atomically(path, machine_info::with_pretty_hostname(*text, name));
}

bool write_avahi_conf(const std::string& name) {
  const std::string path = resolve(kAvahiConfPath);
  std::optional<std::string> text = read_for_edit(path);
  return text && write_file_atomically(path, avahi_conf::with_host_name(*text, name));
}

std::optional<std::string> static_host_name() {
  if (std::optional<std::string> name = linux_text::read_first_line(resolve(kHostnamePath))) return name;
  // A host without the file keeps its name in the kernel only; a sandbox
  // root must not see the real machine's name.
  if (!get<Paths>().is_real_root()) return std::nullopt;
  char kernel_name[HOST_NAME_MAX + 1] = {};
  if (::gethostname(kernel_name, sizeof kernel_name - 1) != 0 || kernel_name[0] == '\0') return std::nullopt;
  return std::string(kernel_name);
}

// One transaction. Setters only stage names that the store can hold;
// commit stores them (through the owning service when it runs, else in
// the files) and apply pushes them into the running system.
class LinuxPreferencesSession : public PreferencesSession {
 public:
  bool lock() override {
    if (lock_) return true;
    if (!make_directories(resolve(kLockDir))) return false;
    lock_ = FileLock::acquire(resolve(kLockPath), FileLock::Mode::Exclusive, std::chrono::milliseconds(0));
    return lock_.has_value();
  }

  bool set_computer_name(const std::string& name) override {
    return stage(computer_, name, is_storable_pretty_name(name));
  }
  bool set_local_host_name(const std::string& name) override { return stage(local_, name, is_label(name)); }
  bool set_host_name(const std::string& name) override { return stage(host_, name, is_host_name(name)); }

  bool commit() override {
    if (!lock_) return false;
    sd_bus* bus = this->bus();
    const bool hostnamed = name_services::hostnamed_running(bus);
    bool ok = true;
    if (computer_) {
      ok = ok && (hostnamed ? name_services::hostnamed_set_pretty_host_name(bus, *computer_)
                            : write_pretty_name_file(*computer_));
    }
    if (local_) ok = ok && write_avahi_conf(*local_);
    if (host_) {
      ok = ok && (hostnamed ? name_services::hostnamed_set_static_host_name(bus, *host_)
                            : write_file_atomically(resolve(kHostnamePath), *host_ + "\n"));
    }
    return ok;
  }

  bool apply() override {
    if (!lock_) return false;
    sd_bus* bus = this->bus();
    bool ok = true;
    // Avahi not running is no failure: it reads its configuration at start.
    if (local_ && name_services::avahi_running(bus)) ok = name_services::avahi_set_host_name(bus, *local_);
    if (host_ && ok) {
      if (name_services::hostnamed_running(bus)) {
        ok = name_services::hostnamed_set_host_name(bus, *host_);
      } else if (get<Paths>().is_real_root()) {
        ok = ::sethostname(host_->data(), host_->size()) == 0;
      }
    }
    return ok;
  }

  void unlock() override { lock_.reset(); }

 private:
  static bool stage(std::optional<std::string>& slot, const std::string& name, bool storable) {
    if (!storable) return false;
    slot = name;
    return true;
  }

  // Connected on first use and kept for the session: commit and apply
  // talk to the same services.
  sd_bus* bus() {
    if (!bus_tried_) {
      bus_tried_ = true;
      bus_ = open_system_bus();
    }
    return bus_.get();
  }

  std::optional<FileLock> lock_;
  std::optional<std::string> computer_, local_, host_;
  bool bus_tried_ = false;
  SdBusPtr bus_;
};

class LinuxSystemConfiguration : public SystemConfiguration {
 public:
  bool open(const std::string& client_name) override { return file_exists(resolve("/")); }

  std::optional<std::string> computer_name() override {
    if (std::optional<std::string> text = read_file(resolve(kMachineInfoPath))) {
      std::optional<std::string> pretty = linux_text::shell_variable(*text, "PRETTY_HOSTNAME");
      if (pretty && !pretty->empty()) return pretty;
    }
    return static_host_name();
  }

  std::optional<std::string> local_host_name() override {
    SdBusPtr bus = open_system_bus();
    if (name_services::avahi_running(bus.get())) {
      if (std::optional<std::string> name = name_services::avahi_host_name(bus.get())) return name;
    }
    if (std::optional<std::string> text = read_file(resolve(kAvahiConfPath))) {
      if (std::optional<std::string> name = avahi_conf::host_name(*text)) return name;
    }
    std::optional<std::string> name = static_host_name();
    if (!name) return std::nullopt;
    name->resize(std::min(name->find('.'), name->size()));
    if (name->empty()) return std::nullopt;
    return name;
  }

  std::unique_ptr<PreferencesSession> open_preferences(const std::string& client_name) override {
    if (!file_exists(resolve("/"))) return nullptr;
    return std::make_unique<LinuxPreferencesSession>();
  }
};

}  // namespace

std::unique_ptr<SystemConfiguration> make_linux_sysconfig() { return std::make_unique<LinuxSystemConfiguration>(); }

}  // namespace platform
