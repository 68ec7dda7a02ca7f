// The system bus, confined to the sandbox root like every other path.
#include "platform/linux/system_bus.h"

#include <stdlib.h>
#include <sys/stat.h>

#include "platform/paths.h"

namespace platform {

std::optional<std::string> system_bus_address() {
  std::string socket = resolve(kSystemBusSocketPath);
  struct stat st;
  if (::stat(socket.c_str(), &st) != 0 || !S_ISSOCK(st.st_mode)) return std::nullopt;
  return "unix:path=" + socket;
}

void export_system_bus_address(const std::string& root) {
  // Even when no bus runs yet: a library must never fall back to the
  // machine's bus from a sandbox.
  std::string socket = root;
  while (!socket.empty() && socket.back() == '/') socket.pop_back();
  socket += kSystemBusSocketPath;
  ::setenv("DBUS_SYSTEM_BUS_ADDRESS", ("unix:path=" + socket).c_str(), 1);
}

SdBusPtr open_system_bus() {
  std::optional<std::string> address = system_bus_address();
  if (!address) return nullptr;
  sd_bus* bus = nullptr;
  if (sd_bus_new(&bus) < 0) return nullptr;
  SdBusPtr owned(bus);
  if (sd_bus_set_address(bus, address->c_str()) < 0) return nullptr;
  if (sd_bus_set_bus_client(bus, 1) < 0) return nullptr;
  if (sd_bus_start(bus) < 0) return nullptr;
  return owned;
}

bool bus_name_has_owner(sd_bus* bus, const char* name) {
  if (bus == nullptr) return false;
  sd_bus_error error = SD_BUS_ERROR_NULL;
  sd_bus_message* reply = nullptr;
  int has = 0;
  int r = sd_bus_call_method(bus, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
                             "NameHasOwner", &error, &reply, "s", name);
  if (r >= 0) r = sd_bus_message_read(reply, "b", &has);
  sd_bus_message_unref(reply);
  sd_bus_error_free(&error);
  return r >= 0 && has != 0;
}

}  // namespace platform
