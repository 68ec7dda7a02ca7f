// The host's process-wide set-up: the platform root and one implementation
// of every platform service, real Linux ones throughout, plus the host's own
// services (requester, module manager, background queue, interface snapshot,
// tail service), published once as a sealed bundle (platform/registry.h).
//
// Host::start is the one way in, for the command line and the daemon alike.
// It refuses to start, naming the service, when a required one cannot be
// made. One Host exists at a time; destroying it first waits for background
// work, then withdraws and frees the services.
//
// reload_configuration() may run on any thread while calls are served; the
// rest is for the thread that owns the Host.
#pragma once

#include <memory>
#include <optional>
#include <string>

#include "hubwardend/background_queue.h"
#include "hubwardend/module_manager.h"
#include "hubwardend/requester.h"
#include "platform/linux/job_map.h"
#include "platform/linux/unit_state_watch.h"
#include "platform/paths.h"
#include "platform/registry.h"
#include "platform/run_loop.h"

namespace platform {
class SystemdServiceManager;
}

namespace hubwardend {

class LinuxNetwork;
class ReloadableInterfaceStats;
class ReloadableTailService;

struct HostOptions {
  // The directory that stands for "/" ("/" in production).
  std::string root = "/";
  // The requester outside of calls that name one; empty: the user running
  // the program.
  std::string default_user;
  // The module context for every call (not owned; must outlive the Host).
  plist::Dict* context = nullptr;
  // The administrator's host configuration as a real path, when it is not
  // in its usual place under the root; every table reads it from there.
  std::string host_config_file;
  // The daemon: name lookups never make a call wait (network.h).
  bool long_running = false;
  // The daemon's main loop (not owned); published as a service when given.
  platform::RunLoop* run_loop = nullptr;
};

class Host {
 public:
  // The started host, or nullptr with *error saying why (a required service
  // that could not be made, a root that is not a directory, another Host
  // alive in this process).
  static std::unique_ptr<Host> start(const HostOptions& options, std::string* error);
  ~Host();
  Host(const Host&) = delete;
  Host& operator=(const Host&) = delete;

  HostModuleManager& modules() { return *modules_; }
  ThreadBackgroundQueue& queue() { return *queue_; }
  const std::string& default_user() const { return requester_->default_user(); }

  // Reads the host configuration again and puts its path table, log
  // sources, metered interfaces and service modules in effect. Returns
  // nothing on success; an error text when the administrator's file does
  // not parse, in which case the configuration in effect stays as it was.
  std::optional<std::string> reload_configuration();

 private:
  explicit Host(const HostOptions& options);
  // Everything after the log, in the order services depend on each other.
  void add_services();
  // The first required service missing from the bundle, or nullopt.
  std::optional<std::string> missing_service() const;
  // Watches the units of map's jobs and service modules for state changes
  // (long-running host only), replacing the watch in effect.
  void watch_units(const platform::HostServiceMap& map);

  const HostOptions options_;
  std::unique_ptr<platform::ServiceBundle> bundle_;
  bool published_ = false;
  HostRequester* requester_ = nullptr;
  HostModuleManager* modules_ = nullptr;
  ThreadBackgroundQueue* queue_ = nullptr;
  platform::Paths* paths_ = nullptr;
  ReloadableTailService* tail_ = nullptr;
  ReloadableInterfaceStats* interfaces_ = nullptr;
  std::shared_ptr<platform::SystemdServiceManager> services_;  // also in the bundle
  std::unique_ptr<platform::UnitStateWatch> unit_watch_;
};

}  // namespace hubwardend
