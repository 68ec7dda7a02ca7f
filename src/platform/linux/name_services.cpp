// Method calls on hostnamed and Avahi over sd-bus.
#include "platform/linux/name_services.h"

#include <cstring>

#include "platform/linux/system_bus.h"

namespace platform::name_services {

namespace {

constexpr const char* kHostnamed = "org.freedesktop.hostname1";
constexpr const char* kHostnamedPath = "/org/freedesktop/hostname1";
constexpr const char* kAvahi = "org.freedesktop.Avahi";
constexpr const char* kAvahiServer = "org.freedesktop.Avahi.Server";
constexpr const char* kAvahiNoChange = "org.freedesktop.Avahi.NoChangeError";

// Without this, a name service that hangs would hold the caller (and the
// module's context) for sd-bus's default of 25 seconds.
constexpr uint64_t kCallTimeoutUsec = 3'000'000;

// Calls a method whose one input is a string (plus, for hostnamed, the
// "interactive" flag, always false: the daemon runs as root and nobody is
// there to answer a prompt). Fills *error_name on a D-Bus error.
bool call_with_name(sd_bus* bus, const char* service, const char* path, const char* interface, const char* method,
                    const std::string& name, bool with_interactive_flag, std::string* error_name = nullptr) {
  if (bus == nullptr) return false;
  sd_bus_message* call = nullptr;
  int r = sd_bus_message_new_method_call(bus, &call, service, path, interface, method);
  if (r >= 0) r = sd_bus_message_append(call, "s", name.c_str());
  if (r >= 0 && with_interactive_flag) r = sd_bus_message_append(call, "b", 0);
  sd_bus_error error = SD_BUS_ERROR_NULL;
  if (r >= 0) r = sd_bus_call(bus, call, kCallTimeoutUsec, &error, nullptr);
  if (r < 0 && error_name != nullptr && error.name != nullptr) *error_name = error.name;
  sd_bus_error_free(&error);
  sd_bus_message_unref(call);
  return r >= 0;
}

bool call_hostnamed(sd_bus* bus, const char* method, const std::string& name) {
  return call_with_name(bus, kHostnamed, kHostnamedPath, kHostnamed, method, name, true);
}

}  // namespace

bool hostnamed_running(sd_bus* bus) { return bus_name_has_owner(bus, kHostnamed); }

bool hostnamed_set_pretty_host_name(sd_bus* bus, const std::string& name) {
  return call_hostnamed(bus, "SetPrettyHostname", name);
}

bool hostnamed_set_static_host_name(sd_bus* bus, const std::string& name) {
  return call_hostnamed(bus, "SetStaticHostname", name);
}

bool hostnamed_set_host_name(sd_bus* bus, const std::string& name) { return call_hostnamed(bus, "SetHostname", name); }

bool avahi_running(sd_bus* bus) { return bus_name_has_owner(bus, kAvahi); }

bool avahi_set_host_name(sd_bus* bus, const std::string& name) {
  std::string error_name;
  if (call_with_name(bus, kAvahi, "/", kAvahiServer, "SetHostName", name, false, &error_name)) return true;
  return error_name == kAvahiNoChange;
}

std::optional<std::string> avahi_host_name(sd_bus* bus) {
  if (bus == nullptr) return std::nullopt;
  sd_bus_message* call = nullptr;
  sd_bus_message* reply = nullptr;
  const char* name = nullptr;
  sd_bus_error error = SD_BUS_ERROR_NULL;
  int r = sd_bus_message_new_method_call(bus, &call, kAvahi, "/", kAvahiServer, "GetHostName");
  if (r >= 0) r = sd_bus_call(bus, call, kCallTimeoutUsec, &error, &reply);
  if (r >= 0) r = sd_bus_message_read(reply, "s", &name);
  std::optional<std::string> result;
  if (r >= 0 && name != nullptr && name[0] != '\0') result = name;
  sd_bus_error_free(&error);
  sd_bus_message_unref(reply);
  sd_bus_message_unref(call);
  return result;
}

}  // namespace platform::name_services
