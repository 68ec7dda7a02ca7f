// What the host makes, in which order, and what it insists on.
#include "hubwardend/platform_setup.h"

#include <sys/stat.h>

#include <set>

#include "hubwardend/history_store.h"
#include "hubwardend/network.h"
#include "hubwardend/reloadable_services.h"
#include "hubwardend/service_modules.h"
#include "platform/linux/avahi_advertiser.h"
#include "platform/linux/basics.h"
#include "platform/linux/city_table.h"
#include "platform/linux/dbus_notifications.h"
#include "platform/linux/directory_store.h"
#include "platform/linux/event_port_socket.h"
#include "platform/linux/global_preferences.h"
#include "platform/linux/host_config.h"
#include "platform/linux/host_paths.h"
#include "platform/linux/job_map.h"
#include "platform/linux/metered_interfaces.h"
#include "platform/linux/meters_linux.h"
#include "platform/linux/proc_process_finder.h"
#include "platform/linux/proc_process_table.h"
#include "platform/linux/process_signals.h"
#include "platform/linux/store_watcher.h"
#include "platform/linux/systemd_service_manager.h"
#include "platform/linux/time_zones_icu.h"
#include "platform/log.h"
#include "platform/paths.h"

namespace hubwardend {

namespace {

// The services the module cannot do without, by the names an administrator
// reads in the refusal to start. The history and the service manager are
// optional: the module answers without them.
template <typename Service>
void require(const platform::ServiceBundle& bundle, const char* name, std::optional<std::string>* missing) {
  if (!*missing && !bundle.find<Service>()) *missing = name;
}

}  // namespace

std::unique_ptr<Host> Host::start(const HostOptions& options, std::string* error) {
  struct stat st;
  if (stat(options.root.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) {
    *error = "root " + options.root + " is not a directory";
    return nullptr;
  }
  std::unique_ptr<Host> host(new Host(options));
  if (!host->published_) {
    *error = "another host is already running in this process";
    return nullptr;
  }
  host->add_services();
  if (std::optional<std::string> missing = host->missing_service()) {
    *error = "cannot start without the " + *missing + " service";
    return nullptr;  // ~Host withdraws what was published
  }
  host->bundle_->seal();
  return host;
}

Host::Host(const HostOptions& options) : options_(options), bundle_(std::make_unique<platform::ServiceBundle>()) {
  // The log and the root are published first, alone: every later factory
  // logs through them and finds its files under the root.
  platform::ServiceBundle& b = *bundle_;
  b.add<platform::Log>(platform::make_syslog_log());
  published_ = platform::publish(bundle_.get());
}

void Host::add_services() {
  platform::ServiceBundle& b = *bundle_;
  // Before the first table is read: they all read the administrator's file
  // through the override.
  platform::set_host_config_override(options_.host_config_file);
  paths_ =
      b.add<platform::Paths>(std::make_unique<platform::Paths>(options_.root, platform::load_path_map(options_.root)));
  const HostOptions& options = options_;

  std::string user = options.default_user.empty() ? running_user_name() : options.default_user;
  requester_ = b.add<platform::Requester>(std::make_unique<HostRequester>(std::move(user)));
  modules_ = b.add<platform::ModuleManager>(std::make_unique<HostModuleManager>(options.context));
  queue_ = b.add<platform::BackgroundQueue>(std::make_unique<ThreadBackgroundQueue>());
  NetworkOptions network;
  network.answer_from_cache = options.long_running;
  b.add<platform::Network>(std::make_unique<LinuxNetwork>(std::move(network)));
  if (options.run_loop) b.add_borrowed<platform::RunLoop>(options.run_loop);

  tail_ = b.add<platform::TailService>(std::make_unique<ReloadableTailService>(load_log_sources()));
  b.add<platform::Clock>(platform::make_system_clock());
  b.add<platform::Tasks>(platform::make_process_tasks());
  b.add<platform::HostInfo>(platform::make_linux_host_info());
  b.add<platform::Hardware>(platform::make_linux_hardware());
  b.add<platform::SystemConfiguration>(platform::make_linux_sysconfig());
  b.add<platform::StoreWatcher>(platform::make_linux_store_watcher());
  b.add<platform::Preferences>(platform::make_global_preferences());
  b.add<platform::DistributedNotifications>(platform::make_dbus_notifications());
  b.add<platform::TimeZones>(platform::make_linux_time_zones());
  // Without the shipped table the server still runs; only choosing the
  // time zone by city is unavailable, and that is logged where it is tried.
  if (auto cities = platform::make_city_database()) b.add<platform::CityDatabase>(std::move(cities));
  // Records are published from the run loop; the command line has none and
  // publishes nothing.
  b.add<platform::Advertiser>(platform::make_avahi_advertiser(options.run_loop));
  b.add<platform::Directory>(platform::make_directory_store());

  b.add<platform::ProcessorStats>(platform::make_proc_processor_stats());
  interfaces_ =
      b.add<platform::InterfaceStats>(std::make_unique<ReloadableInterfaceStats>(platform::load_metered_interfaces()));
  b.add<platform::Volumes>(platform::make_mount_volumes());
  b.add<platform::ProcessTable>(platform::make_proc_process_table());
  b.add<platform::ProcessFinder>(platform::make_proc_process_finder());
  b.add<platform::EventMonitor>(platform::make_socket_event_monitor());
  // A host on a sandbox root may signal only the processes it started.
  if (paths_ && paths_->is_real_root())
    b.add<platform::ProcessSignals>(platform::make_linux_process_signals());
  else
    b.add<platform::ProcessSignals>(platform::make_sandbox_process_signals());

  std::string history_error;
  auto history = open_history_store(platform::resolve(kHistoryDatabasePath), {}, &history_error);
  if (history)
    b.add<platform::HistoryService>(std::move(history));
  else
    platform::log_error("hubwardend: no load history: " + history_error);

  // One service manager serves the module's job switches and, as the unit
  // inspector, the host's service modules.
  services_ = platform::make_shared_systemd_service_manager();
  if (services_) {
    b.add<platform::ServiceManager>(services_);
    for (auto& module : load_service_modules(services_->host_service_map(), services_))
      modules_->add_module(std::move(module));
    watch_units(services_->host_service_map());
  }
}

void Host::watch_units(const platform::HostServiceMap& map) {
  if (!options_.run_loop) return;
  // Every candidate: one that is not installed simply never changes.
  std::set<std::string> units;
  for (const auto& [job, candidates] : map.jobs) units.insert(candidates.begin(), candidates.end());
  for (const auto& [module, candidates] : map.service_modules) units.insert(candidates.begin(), candidates.end());
  unit_watch_.reset();
  unit_watch_ = platform::make_unit_state_watch(options_.run_loop, std::move(units));
}

std::optional<std::string> Host::missing_service() const {
  const platform::ServiceBundle& b = *bundle_;
  std::optional<std::string> missing;
  require<platform::Log>(b, "system log", &missing);
  require<platform::Paths>(b, "path table", &missing);
  require<platform::Requester>(b, "requester", &missing);
  require<platform::ModuleManager>(b, "module manager", &missing);
  require<platform::BackgroundQueue>(b, "background queue", &missing);
  require<platform::Network>(b, "network", &missing);
  require<platform::TailService>(b, "log tail", &missing);
  require<platform::Clock>(b, "clock", &missing);
  require<platform::Tasks>(b, "task launcher", &missing);
  require<platform::HostInfo>(b, "host information", &missing);
  require<platform::Hardware>(b, "hardware", &missing);
  require<platform::SystemConfiguration>(b, "system configuration", &missing);
  require<platform::StoreWatcher>(b, "configuration watch", &missing);
  require<platform::Preferences>(b, "system-wide preferences", &missing);
  require<platform::DistributedNotifications>(b, "distributed notifications", &missing);
  require<platform::TimeZones>(b, "time zones", &missing);
  require<platform::Advertiser>(b, "DNS-SD advertiser", &missing);
  require<platform::Directory>(b, "directory", &missing);
  require<platform::ProcessorStats>(b, "processor statistics", &missing);
  require<platform::InterfaceStats>(b, "interface counters", &missing);
  require<platform::Volumes>(b, "volumes", &missing);
  require<platform::ProcessTable>(b, "process table", &missing);
  require<platform::ProcessSignals>(b, "process signals", &missing);
  require<platform::ProcessFinder>(b, "process finder", &missing);
  require<platform::EventMonitor>(b, "event monitor port", &missing);
  if (options_.run_loop) require<platform::RunLoop>(b, "run loop", &missing);
  return missing;
}

std::optional<std::string> Host::reload_configuration() {
  // Check the administrator's file before anything changes, so that a
  // broken edit leaves the running configuration whole.
  std::string error;
  std::string admin_file =
      platform::host_config_file(platform::kHostConfigPath, paths_->resolve(platform::kHostConfigPath));
  platform::read_host_config(admin_file, &error);
  if (!error.empty()) return "host configuration " + admin_file + ": " + error;

  paths_->replace_prefixes(platform::load_path_map(options_.root));
  tail_->reload(load_log_sources());
  interfaces_->reload(platform::load_metered_interfaces());
  if (services_) {
    platform::HostServiceMap map = platform::load_host_service_map();
    modules_->replace_service_modules(load_service_modules(map, services_));
    watch_units(map);
  }
  platform::log_notice("hubwardend: host configuration reloaded");
  return std::nullopt;
}

Host::~Host() {
  unit_watch_.reset();  // posts nothing more
  // Background work still uses the services; let it finish first.
  if (queue_) queue_->wait_until_idle();
  if (published_) platform::withdraw(bundle_.get());
  bundle_.reset();  // the last made goes first
}

}  // namespace hubwardend
