// The host's process-wide set-up: the platform root and one installed
// implementation of every platform service, real Linux ones throughout,
// plus the host's own services (requester, module manager, background
// queue, interface snapshot, tail service).
//
// One Host exists at a time; it installs everything when made and, when
// destroyed, first waits for background work, then uninstalls and frees
// what it installed. Not thread-safe itself; the services it installs are.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "hubwardend/background_queue.h"
#include "hubwardend/module_manager.h"
#include "hubwardend/requester.h"
#include "platform/paths.h"
#include "platform/registry.h"

namespace hubwardend {

class Host {
 public:
  // root: the directory that stands for "/" ("/" in production).
  // default_user: the requester outside of calls that name one.
  // context (not owned) is the module context for every call.
  Host(const std::string& root, std::string default_user, plist::Dict* context);
  ~Host();
  Host(const Host&) = delete;
  Host& operator=(const Host&) = delete;

  HostModuleManager& modules() { return *modules_; }
  ThreadBackgroundQueue& queue() { return *queue_; }
  const std::string& default_user() const { return requester_->default_user(); }

 private:
  // Installs impl as the process's Service and keeps it until ~Host.
  template <typename Service, typename Impl>
  Impl* own(std::unique_ptr<Impl> impl);
  template <typename Service, typename Impl>
  void own_shared(std::shared_ptr<Impl> impl);

  void install_linux_services();

  std::vector<std::function<void()>> uninstall_;  // run in reverse order
  std::vector<std::shared_ptr<void>> owned_;
  HostRequester* requester_ = nullptr;
  HostModuleManager* modules_ = nullptr;
  ThreadBackgroundQueue* queue_ = nullptr;
};

}  // namespace hubwardend
