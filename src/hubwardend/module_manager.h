// The host's module manager: the modules loaded into this process
// (hubwarden_info itself and any registered service modules), and the one
// lock that guards the module context.
//
// The host holds the context lock around every call into the module; work
// the module runs in the background takes the same lock through
// get_and_lock_context and hands it back through set_and_unlock_context.
// The lock is re-entrant for the thread that holds it, so a module call
// that asks for its own context (directly or through do_command) does not
// deadlock. Safe from several threads.
#pragma once

#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "hubwardend/service_module.h"
#include "platform/host_services.h"

namespace hubwardend {

inline constexpr const char* kInfoModuleName = "hubwarden_info";

// A re-entrant lock that may be released by another thread than the one
// that took it (a context handed back from elsewhere).
class ContextLock {
 public:
  // Takes the lock, waiting at most timeout; false when it could not.
  bool lock_for(std::chrono::milliseconds timeout);
  void lock();
  // Releases one level; false (and nothing changes) when it is not held.
  bool unlock();
  bool held() const;

 private:
  mutable std::mutex mu_;
  std::condition_variable released_;
  std::thread::id owner_;  // guarded by mu_
  int depth_ = 0;          // guarded by mu_
};

class HostModuleManager : public platform::ModuleManager {
 public:
  // context (not owned) is the module context every call gets; it must
  // outlive the manager's use. lock_timeout bounds get_and_lock_context.
  explicit HostModuleManager(plist::Dict* context, std::chrono::milliseconds lock_timeout = std::chrono::seconds(30));
  HostModuleManager(const HostModuleManager&) = delete;
  HostModuleManager& operator=(const HostModuleManager&) = delete;

  // Registers another module; a later module of the same name as an
  // earlier one (or as hubwarden_info) is ignored.
  void add_module(std::unique_ptr<ServiceModule> module);

  // One request to hubwarden_info for user, under the context lock.
  std::optional<plist::Dict> process_request(const plist::Dict& request, const std::string& user);
  // One idle pass with argv {"hubwardend", "idle", pass}, under the lock.
  int process_idle(const std::string& pass, const std::string& user);

  // True once anything handed the context back or the module set
  // "contextDirty": the context has to be stored.
  bool context_marked_dirty();

  // platform::ModuleManager
  std::vector<std::string> module_names() override;
  std::optional<plist::Dict> do_command(const plist::Dict& request, const std::string& module,
                                        const std::string& user) override;
  plist::Dict* get_and_lock_context(const std::string& module, int* fd, bool* timed_out) override;
  void set_and_unlock_context(plist::Dict* context, const std::string& module, int* fd) override;

 private:
  ServiceModule* find_module(const std::string& name);
  void note_context_flag();

  plist::Dict* const context_;
  const std::chrono::milliseconds lock_timeout_;
  ContextLock context_lock_;

  std::mutex mu_;
  std::vector<std::unique_ptr<ServiceModule>> modules_;  // guarded by mu_
  bool dirty_ = false;                                   // guarded by mu_
};

}  // namespace hubwardend
