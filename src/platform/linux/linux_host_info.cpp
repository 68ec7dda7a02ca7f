// Host facts: kernel from uname(2), the system version record from
// os-release, the server version record from the installed property list,
// and the host name from gethostname(2).
#include <limits.h>
#include <sys/utsname.h>
#include <unistd.h>

#include "platform/file_util.h"
#include "platform/linux/basics.h"
#include "platform/linux/text_files.h"
#include "platform/paths.h"
#include "plist/codec.h"

namespace platform {

namespace {

constexpr const char* kOsReleasePath = "/etc/os-release";
constexpr const char* kServerVersionPath = "/usr/share/hubwardend/ServerVersion.plist";

class LinuxHostInfo : public HostInfo {
 public:
  std::optional<std::string> kernel_type() override {
    struct utsname u;
    if (::uname(&u) != 0) return std::nullopt;
    return std::string(u.sysname);
  }

  std::optional<std::string> kernel_release() override {
    struct utsname u;
    if (::uname(&u) != 0) return std::nullopt;
    return std::string(u.release);
  }

  std::optional<plist::Dict> system_version() override {
    std::optional<std::string> text = read_file(resolve(kOsReleasePath));
    if (!text) return std::nullopt;
    std::optional<std::string> name, version, version_id, build;
    for (auto& [key, value] : linux_text::parse_shell_assignments(*text)) {
      if (key == "NAME")
        name = value;
      else if (key == "VERSION_ID")
        version_id = value;
      else if (key == "VERSION")
        version = value;
      else if (key == "BUILD_ID")
        build = value;
    }
    if (!name) return std::nullopt;
    plist::Dict record;
    record.set("ProductName", *name);
    // Rolling releases carry neither version; an empty one still makes a
    // complete record.
    record.set("ProductVersion", version_id ? *version_id : version ? *version : std::string());
    if (build) record.set("ProductBuildVersion", *build);
    return record;
  }

  std::optional<plist::Dict> server_version() override {
    std::optional<std::string> text = read_file(resolve(kServerVersionPath));
    if (!text) return std::nullopt;
    plist::Parsed parsed = plist::parse_xml(*text);
    if (!parsed.ok()) return std::nullopt;
    const plist::Dict* root = parsed.value.as_dict();
    if (!root) return std::nullopt;
    plist::Dict record;
    for (const char* key : {"ProductName", "ProductVersion", "ProductBuildVersion"})
      if (const plist::Value* v = root->find(key)) record.set(key, *v);
    return record;
  }

  std::optional<std::string> host_name() override {
    char name[HOST_NAME_MAX + 1] = {};
    if (::gethostname(name, sizeof name - 1) != 0) return std::nullopt;
    return std::string(name);
  }
};

}  // namespace

std::unique_ptr<HostInfo> make_linux_host_info() { return std::make_unique<LinuxHostInfo>(); }

}  // namespace platform
