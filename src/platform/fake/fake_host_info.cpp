// Host facts from fields set by a test.
#include "platform/fake/fake_host_info.h"

namespace platform {

std::optional<std::string> FakeHostInfo::kernel_type() { return type; }
std::optional<std::string> FakeHostInfo::kernel_release() { return release; }
std::optional<plist::Dict> FakeHostInfo::system_version() { return system; }
std::optional<plist::Dict> FakeHostInfo::server_version() { return server; }
std::optional<std::string> FakeHostInfo::host_name() { return name; }

}  // namespace platform
