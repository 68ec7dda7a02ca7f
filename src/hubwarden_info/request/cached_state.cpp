// The cached server state ("info" in the module context), the hardware
// serial number behind it, and the background refresh of its interface
// list.
#include "request/cached_state.h"

#include <cstring>
#include <ctime>

#include "monitor/hwinfo/computer_info.h"
#include "platform/hardware.h"
#include "platform/host_info.h"
#include "platform/host_services.h"
#include "platform/meters.h"
#include "platform/registry.h"
#include "platform/serial_number.h"
#include "platform/sysconfig.h"
#include "request/globals.h"
#include "request/operations.h"

namespace hubwarden {

namespace {

template <typename Service>
Service* service() {
  return platform::has<Service>() ? &platform::get<Service>() : nullptr;
}

std::string text_of(const Dict& record, const char* key) {
  const Value* v = record.find(key);
  if (!v) return "(null)";
  if (const std::string* s = v->as_string()) return *s;
  return "";
}

std::string system_version_text() {
  auto* host = service<platform::HostInfo>();
  std::optional<Dict> record = host ? host->system_version() : std::nullopt;
  if (!record) return "";
  if (record->contains("ProductBuildVersion"))
    return text_of(*record, "ProductName") + " " + text_of(*record, "ProductVersion") + " (Build " +
           text_of(*record, "ProductBuildVersion") + ")";
  return text_of(*record, "ProductName") + " " + text_of(*record, "ProductVersion");
}

std::string server_version_text() {
  auto* host = service<platform::HostInfo>();
  std::optional<Dict> record = host ? host->server_version() : std::nullopt;
  if (!record) return "";
  std::string version = text_of(*record, "ProductVersion");
  size_t cut = version.find(" Server");
  if (cut != std::string::npos) version.erase(cut);
  if (record->contains("ProductBuildVersion"))
    return text_of(*record, "ProductName") + " " + version + " (Build " + text_of(*record, "ProductBuildVersion") + ")";
  return text_of(*record, "ProductName") + " " + version;
}

std::string kernel_version_text() {
  auto* host = service<platform::HostInfo>();
  std::string type = host ? host->kernel_type().value_or("") : "";
  std::string release = host ? host->kernel_release().value_or("") : "";
  // Each is read into a 64-byte buffer.
  if (type.size() > 63) type.resize(63);
  if (release.size() > 63) release.resize(63);
  return type + " " + release;
}

std::string host_name_text() {
  auto* host = service<platform::HostInfo>();
  if (std::optional<std::string> name = host ? host->host_name() : std::nullopt) {
    if (name->size() > 255) name->resize(255);
    return *name;
  }
  auto* network = service<platform::Network>();
  if (!network) return "";
  std::vector<std::string> names = network->host_names_for_address(std::nullopt, 10.0);
  return names.empty() ? "" : names.front();
}

// The platform's default date description: "2026-11-22 23:42:45 +0000".
std::string boot_time_text(const Dict* context) {
  const Value* boot = context ? context->find("bootTime") : nullptr;
  std::optional<double> seconds;
  if (boot) {
    if (const plist::Date* d = boot->as_date())
      seconds = d->seconds;
    else
      seconds = boot->to_double();
  }
  if (!seconds || !(*seconds > -1e15 && *seconds < 1e15)) return "";
  time_t t = static_cast<time_t>(*seconds);
  struct tm utc;
  if (!gmtime_r(&t, &utc)) return "";
  char text[64];
  std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S +0000", &utc);
  return text;
}

// The interface list is gathered quickly at once and freshly in the
// background, so that the reply is not held up by reverse lookups.
void start_interface_refresh() {
  auto* queue = service<platform::BackgroundQueue>();
  if (!queue) return;
  queue->dispatch([] {
    auto* network = service<platform::Network>();
    auto* modules = service<platform::ModuleManager>();
    if (!network || !modules) return;
    Array fresh = network->get_interfaces_info(true);
    int fd = -1;
    bool timed_out = false;
    Dict* context = modules->get_and_lock_context(kModuleName, &fd, &timed_out);
    if (!context) return;
    Dict info;
    if (const Dict* old = context->find_dict("info")) info = *old;
    info.set("interfaceInfosArray", std::move(fresh));
    context->set("contextDirty", true);
    context->set("info", std::move(info));
    // Handed back under this spelling on purpose: it is how the module has
    // always named itself here, and the daemon copes with it.
    modules->set_and_unlock_context(context, "hubwardn_info", &fd);
  });
}

}  // namespace

std::optional<std::string> get_hardware_serial_number() {
  auto* hardware = service<platform::Hardware>();
  if (!hardware) return std::nullopt;
  std::optional<std::string> answer;
  for (const Dict& device : hardware->registry_devices("IOPlatformExpertDevice")) {
    const Value* property = device.find("serial-number");
    const plist::Data* data = property ? property->as_data() : nullptr;
    if (!data) continue;
    std::string serial = platform::decode_serial_number(*data);
    if (!serial.empty()) answer = serial;  // the last device wins
  }
  return answer;
}

ErrorName update_cached_state(Dict* context) {
  std::string system_version = system_version_text();
  Dict computer_info = get_computer_info();
  std::string server_version = server_version_text();
  std::string kernel_version = kernel_version_text();

  std::string computer_name, localcast_name;
  auto* config = service<platform::SystemConfiguration>();
  if (config && config->open(kModuleName)) {
    computer_name = config->computer_name().value_or("");
    localcast_name = config->local_host_name().value_or("");
  }

  std::string host_name = host_name_text();
  auto* network = service<platform::Network>();
  Array interfaces = network ? network->get_interfaces_info(!gRunningUnderHubwardend) : Array();
  std::string boot_time = boot_time_text(context);
  auto* volumes = service<platform::Volumes>();
  std::string boot_volume = volumes ? volumes->display_name("/").value_or("") : "";
  std::string serial = get_hardware_serial_number().value_or("");
  check_host_name(host_name, std::nullopt, std::nullopt);
  bool missing_kerberized = has_missing_kerberized_services(context);
  std::optional<Dict> log_paths;
  get_log_paths(log_paths);

  Dict info;
  info.set("state", "UNKNOWN");
  info.set("computerInfo", std::move(computer_info));
  info.set("systemVersion", system_version);
  info.set("version", server_version);
  info.set("serverVersion", server_version);
  info.set("kernelVersion", kernel_version);
  info.set("hwSerialNumber", serial);
  info.set("bootVolume", boot_volume);
  info.set("computerName", computer_name);
  info.set("localcastName", localcast_name);
  info.set("defaultZone", "");
  info.set("hostName", host_name);
  info.set("interfaceInfosArray", std::move(interfaces));
  info.set("bootTime", boot_time);
  info.set("hasMissingKerberizedServices", missing_kerberized);
  info.set("logPaths", log_paths.value_or(Dict()));
  info.set("readWriteSettingsVersion", 1);

  if (context) {
    context->set("contextDirty", true);
    context->set("info", std::move(info));
  }
  if (gRunningUnderHubwardend) start_interface_refresh();
  return nullptr;
}

}  // namespace hubwarden
