// Forwarding to the current tail service and interface counters.
#include "hubwardend/reloadable_services.h"

#include "platform/linux/metered_interfaces.h"

namespace hubwardend {

ReloadableTailService::ReloadableTailService(LogSources sources)
    : impl_(std::make_shared<FileTailService>(std::move(sources))) {}

void ReloadableTailService::reload(LogSources sources) {
  impl_.replace(std::make_shared<FileTailService>(std::move(sources)));
}

ErrorName ReloadableTailService::tail(const std::string& identifier, const plist::Dict& log_paths,
                                      std::optional<std::string>* path, plist::Value* offset, plist::Value* amount,
                                      std::optional<std::string>* contents, plist::Dict* context,
                                      const plist::Dict& request) {
  return impl_.current()->tail(identifier, log_paths, path, offset, amount, contents, context, request);
}

ReloadableInterfaceStats::ReloadableInterfaceStats(std::vector<std::string> extra)
    : impl_(platform::make_sysfs_interface_stats(std::move(extra))) {}

void ReloadableInterfaceStats::reload(std::vector<std::string> extra) {
  impl_.replace(platform::make_sysfs_interface_stats(std::move(extra)));
}

bool ReloadableInterfaceStats::read(std::vector<platform::InterfaceCounters>* interfaces) {
  return impl_.current()->read(interfaces);
}

}  // namespace hubwardend
