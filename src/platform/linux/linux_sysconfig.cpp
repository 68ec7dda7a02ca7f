// The computer name and local host name as systemd-style hosts keep them:
// the "pretty" name in /etc/machine-info, the static name in /etc/hostname.
// Both are read through the installed root so a sandbox can stand in.
#include <limits.h>
#include <unistd.h>

#include "platform/file_util.h"
#include "platform/linux/basics.h"
#include "platform/linux/text_files.h"
#include "platform/paths.h"
#include "platform/registry.h"

namespace platform {

namespace {

class LinuxSystemConfiguration : public SystemConfiguration {
 public:
  bool open(const std::string& client_name) override { return file_exists(resolve("/")); }

  std::optional<std::string> computer_name() override {
    if (std::optional<std::string> text = read_file(resolve("/etc/machine-info"))) {
      std::optional<std::string> pretty = linux_text::shell_variable(*text, "PRETTY_HOSTNAME");
      if (pretty && !pretty->empty()) return pretty;
    }
    return static_host_name();
  }

  std::optional<std::string> local_host_name() override {
    std::optional<std::string> name = static_host_name();
    if (!name) return std::nullopt;
    name->resize(name->find('.') == std::string::npos ? name->size() : name->find('.'));
    if (name->empty()) return std::nullopt;
    return name;
  }

  std::unique_ptr<PreferencesSession> open_preferences(const std::string& client_name) override { return nullptr; }

 private:
  static std::optional<std::string> static_host_name() {
    if (std::optional<std::string> name = linux_text::read_first_line(resolve("/etc/hostname"))) return name;
    // A host without the file keeps its name in the kernel only; a sandbox
    // root must not see the real machine's name.
    if (!get<Paths>().is_real_root()) return std::nullopt;
    char kernel_name[HOST_NAME_MAX + 1] = {};
    if (::gethostname(kernel_name, sizeof kernel_name - 1) != 0 || kernel_name[0] == '\0') return std::nullopt;
    return std::string(kernel_name);
  }
};

}  // namespace

std::unique_ptr<SystemConfiguration> make_linux_sysconfig() { return std::make_unique<LinuxSystemConfiguration>(); }

}  // namespace platform
