// What the host installs, and in which order.
#include "hubwardend/platform_setup.h"

#include "hubwardend/history_store.h"
#include "hubwardend/network.h"
#include "hubwardend/service_modules.h"
#include "hubwardend/tail_service.h"
#include "platform/linux/basics.h"
#include "platform/linux/directory_store.h"
#include "platform/linux/host_paths.h"
#include "platform/linux/meters_linux.h"
#include "platform/linux/metered_interfaces.h"
#include "platform/linux/proc_process_table.h"
#include "platform/linux/process_signals.h"
#include "platform/linux/systemd_service_manager.h"
#include "platform/log.h"

namespace hubwardend {

template <typename Service, typename Impl>
Impl* Host::own(std::unique_ptr<Impl> impl) {
  Impl* raw = impl.get();
  if (!raw) return nullptr;
  Service* previous = platform::slot<Service>();
  platform::install<Service>(raw);
  uninstall_.push_back([previous] { platform::install<Service>(previous); });
  owned_.push_back(std::shared_ptr<Impl>(std::move(impl)));
  return raw;
}

template <typename Service, typename Impl>
void Host::own_shared(std::shared_ptr<Impl> impl) {
  if (!impl) return;
  Service* previous = platform::slot<Service>();
  platform::install<Service>(impl.get());
  uninstall_.push_back([previous] { platform::install<Service>(previous); });
  owned_.push_back(std::move(impl));
}

Host::Host(const std::string& root, std::string default_user, plist::Dict* context) {
  // The log first, so that the rest (the prefix table included) can report
  // failures; syslog needs no file under the root.
  own<platform::Log>(platform::make_syslog_log());
  // Paths next: every later factory may resolve files under the root.
  own<platform::Paths>(std::make_unique<platform::Paths>(root, platform::load_path_map(root)));

  requester_ = own<platform::Requester>(std::make_unique<HostRequester>(std::move(default_user)));
  modules_ = own<platform::ModuleManager>(std::make_unique<HostModuleManager>(context));
  queue_ = own<platform::BackgroundQueue>(std::make_unique<ThreadBackgroundQueue>());
  own<platform::Network>(std::make_unique<LinuxNetwork>());
  own<platform::TailService>(std::make_unique<FileTailService>(load_log_sources()));

  install_linux_services();
}

void Host::install_linux_services() {
  own<platform::Clock>(platform::make_system_clock());
  own<platform::Tasks>(platform::make_process_tasks());
  own<platform::HostInfo>(platform::make_linux_host_info());
  own<platform::Hardware>(platform::make_linux_hardware());
  own<platform::SystemConfiguration>(platform::make_linux_sysconfig());
  own<platform::Directory>(platform::make_directory_store());

  own<platform::ProcessorStats>(platform::make_proc_processor_stats());
  own<platform::InterfaceStats>(platform::make_sysfs_interface_stats(platform::load_metered_interfaces()));
  own<platform::Volumes>(platform::make_mount_volumes());
  own<platform::ProcessTable>(platform::make_proc_process_table());
  // A host on a sandbox root may signal only the processes it started.
  if (platform::get<platform::Paths>().is_real_root())
    own<platform::ProcessSignals>(platform::make_linux_process_signals());
  else
    own<platform::ProcessSignals>(platform::make_sandbox_process_signals());

  std::string history_error;
  auto history = open_history_store(platform::resolve(kHistoryDatabasePath), {}, &history_error);
  if (history)
    own<platform::HistoryService>(std::move(history));
  else
    platform::log_error("hubwardend: no load history: " + history_error);

  // One service manager serves the module's job switches and, as the unit
  // inspector, the host's service modules.
  std::shared_ptr<platform::SystemdServiceManager> services = platform::make_shared_systemd_service_manager();
  if (services) {
    own_shared<platform::ServiceManager>(services);
    for (auto& module : load_service_modules(services->host_service_map(), services))
      modules_->add_module(std::move(module));
  }

  // Further Linux services are installed here, one line each, in the order
  // they depend on each other (process table, ...).
}

Host::~Host() {
  // Background work still uses the services; let it finish first.
  if (queue_) queue_->wait_until_idle();
  for (auto it = uninstall_.rbegin(); it != uninstall_.rend(); ++it) (*it)();
  // Free in reverse order of creation: the queue's workers go before the
  // services they might still reference.
  while (!owned_.empty()) owned_.pop_back();
}

}  // namespace hubwardend
