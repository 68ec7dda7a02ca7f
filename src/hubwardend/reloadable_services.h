// Services built from the host configuration that a running host reloads
// (on SIGHUP) without replacing the object it published: the log sources
// behind the tail service and the list of metered interfaces. Each forwards
// to its current implementation; a reload swaps that in whole, and a call
// already running finishes with the one it started with.
//
// Safe from several threads.
#pragma once

#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "hubwardend/log_sources.h"
#include "hubwardend/tail_service.h"
#include "platform/host_services.h"
#include "platform/meters.h"

namespace hubwardend {

// The current implementation of Interface, replaced whole.
template <typename Interface>
class Swappable {
 public:
  explicit Swappable(std::shared_ptr<Interface> initial) : current_(std::move(initial)) {}
  std::shared_ptr<Interface> current() const {
    std::lock_guard<std::mutex> lock(mu_);
    return current_;
  }
  void replace(std::shared_ptr<Interface> next) {
    std::lock_guard<std::mutex> lock(mu_);
    current_.swap(next);
    // The old one is released (outside the lock) when next goes.
  }

 private:
  mutable std::mutex mu_;
  std::shared_ptr<Interface> current_;  // guarded by mu_; never null
};

class ReloadableTailService : public platform::TailService {
 public:
  explicit ReloadableTailService(LogSources sources);
  void reload(LogSources sources);

  ErrorName tail(const std::string& identifier, const plist::Dict& log_paths, std::optional<std::string>* path,
                 plist::Value* offset, plist::Value* amount, std::optional<std::string>* contents, plist::Dict* context,
                 const plist::Dict& request) override;

 private:
  Swappable<FileTailService> impl_;
};

class ReloadableInterfaceStats : public platform::InterfaceStats {
 public:
  // extra: the configuration's extra interface patterns.
  explicit ReloadableInterfaceStats(std::vector<std::string> extra);
  void reload(std::vector<std::string> extra);

  bool read(std::vector<platform::InterfaceCounters>* interfaces) override;

 private:
  Swappable<platform::InterfaceStats> impl_;
};

}  // namespace hubwardend
