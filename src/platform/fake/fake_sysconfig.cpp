// Configuration-store names from fields set by a test.
#include "platform/fake/fake_sysconfig.h"

namespace platform {

bool FakeSystemConfiguration::open(const std::string& client_name) { return reachable; }
std::optional<std::string> FakeSystemConfiguration::computer_name() { return computer; }
std::optional<std::string> FakeSystemConfiguration::local_host_name() { return local_host; }
std::unique_ptr<PreferencesSession> FakeSystemConfiguration::open_preferences(const std::string&) { return nullptr; }

}  // namespace platform
