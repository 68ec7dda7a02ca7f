// The configured-server and waiting-for-setup records, the machine
// description and the advertised host name.
#include "access/advertising.h"

#include <string_view>

#include "access/zeroconf_registrar.h"
#include "monitor/hwinfo/computer_info.h"
#include "platform/host_info.h"
#include "platform/host_services.h"
#include "platform/registry.h"
#include "request/operations.h"

namespace hubwarden {

namespace {

constexpr double kHostNameLookupSeconds = 10.0;

bool ends_with(std::string_view s, std::string_view suffix) {
  return s.size() >= suffix.size() && s.substr(s.size() - suffix.size()) == suffix;
}

// The TXT dictionary of the registrar's newest record; nullopt when it has
// none or published without one.
std::optional<Dict> last_txt_dictionary(const ZeroconfRegistrar& registrar) {
  std::vector<Dict> registrations = registrar.existingRegistrations();
  if (registrations.empty()) return std::nullopt;
  const Dict* txt = registrations.back().find_dict("txtDictionary");
  return txt ? std::optional<Dict>(*txt) : std::nullopt;
}

struct PrimaryService {
  std::optional<std::string> ip_address;
  std::optional<std::string> mac_address;
};

// The primary connected network service: the interface that carries the
// IPv4 default route, with its first IPv4 address.
PrimaryService primary_service() {
  PrimaryService primary;
  platform::Network* network = platform::find<platform::Network>();
  if (!network) return primary;
  for (const Value& v : network->get_interfaces_info(false)) {
    const Dict* entry = v.as_dict();
    if (!entry) continue;
    const Value* is_primary = entry->find("isPrimaryIPv4Interface");
    if (!is_primary || !is_primary->number_is_true()) continue;
    if (const std::string* ip = entry->find_string("ipAddress")) primary.ip_address = *ip;
    if (const std::string* mac = entry->find_string("hardwareAddress"); mac && !mac->empty())
      primary.mac_address = *mac;
    break;
  }
  return primary;
}

std::string host_name_for_address(const std::optional<std::string>& address) {
  platform::Network* network = platform::find<platform::Network>();
  if (!network) return "";
  return choose_zeroconf_host_name(network->host_names_for_address(address, kHostNameLookupSeconds));
}

std::optional<std::string> version_field(const std::optional<Dict>& version, const char* key) {
  const std::string* value = version ? version->find_string(key) : nullptr;
  return value ? std::optional<std::string>(*value) : std::nullopt;
}

}  // namespace

std::string choose_zeroconf_host_name(const std::vector<std::string>& names) {
  const std::string* best = nullptr;
  for (const std::string& name : names) {
    if (name == "localhost" || name.find('.') == std::string::npos) continue;
    if (!best || ends_with(*best, ".local") || ends_with(*best, ".private")) best = &name;
  }
  return best ? *best : "";
}

std::string hostNameForZeroconf() {
  PrimaryService primary = primary_service();
  return host_name_for_address(primary.ip_address);
}

std::optional<Dict> waiting_for_setup_dict(const MachineDescription& machine) {
  if (!machine.ip_address || machine.ip_address->starts_with("169.")) return std::nullopt;
  Dict txt;
  const std::pair<const char*, const std::optional<std::string>*> entries[] = {
      {"hostname", &machine.host_name},       {"modelname", &machine.model_name},
      {"ipaddress", &machine.ip_address},     {"macaddress", &machine.mac_address},
      {"productname", &machine.product_name}, {"productversion", &machine.product_version},
  };
  for (const auto& [key, value] : entries) {
    if (!*value) break;
    txt.set(key, **value);
  }
  return txt;
}

std::optional<Dict> build_waiting_for_setup_dict(Dict*) {
  MachineDescription machine;
  std::optional<Dict> version;
  if (platform::HostInfo* host = platform::find<platform::HostInfo>()) version = host->system_version();
  PrimaryService primary = primary_service();
  machine.ip_address = primary.ip_address;
  // Checked before the slow name lookup: without a routable address there
  // is nothing to advertise.
  if (!waiting_for_setup_dict(machine)) return std::nullopt;
  machine.mac_address = primary.mac_address;
  machine.host_name = host_name_for_address(primary.ip_address);
  if (std::string model = ASI_CopyComputerModelName(false); !model.empty()) machine.model_name = std::move(model);
  machine.product_name = version_field(version, "ProductName");
  machine.product_version = version_field(version, "ProductVersion");
  return waiting_for_setup_dict(machine);
}

void register_services_with_zeroconf(bool ask_clients_to_ignore, Dict* context) {
  if (ZeroconfRegistrar* waiting = waiting_for_setup_registrar(false)) waiting->removeAllPublishedServices();
  ZeroconfRegistrar* registrar = configured_server_registrar(true);
  std::optional<Dict> txt = build_services_dict(true, ask_clients_to_ignore, context);
  if (txt == last_txt_dictionary(*registrar)) return;
  registrar->removeAllPublishedServices();
  registrar->registerWithZeroconf(kConfiguredServiceType, kAdvertisedPort, txt);
}

void register_server_waiting_for_setup_with_zeroconf(Dict* context) {
  if (ZeroconfRegistrar* configured = configured_server_registrar(false)) configured->removeAllPublishedServices();
  ZeroconfRegistrar* registrar = waiting_for_setup_registrar(true);
  std::optional<Dict> txt = build_waiting_for_setup_dict(context);
  if (txt == last_txt_dictionary(*registrar)) return;
  registrar->removeAllPublishedServices();
  if (!txt) return;
  registrar->registerWithZeroconf(kWaitingForSetupServiceType, kAdvertisedPort, txt);
}

void register_with_zeroconf(const std::string& type) {
  register_with_zeroconf_details(type, kAdvertisedPort, std::nullopt);
}

void register_with_zeroconf_details(const std::string& type, uint64_t port, const std::optional<Dict>& txt) {
  general_registrar().registerWithZeroconf(type, port, txt);
}

}  // namespace hubwarden
