// The host's module manager: the modules loaded into this process
// (hubwarden_info itself and any registered service modules), and the one
// lock that guards the module context.
//
// How requests share the context
// ------------------------------
// Requests arrive on many threads, and some of them pause: listProcesses
// samples for a second, reverse lookups may take seconds. Holding the
// context lock across such a call would queue every other request behind
// it, so calls are split in two kinds:
//
//  * Reading commands (getState, listProcesses, readSettings, ... the
//    commands a monitoring user may send) take a copy of the context under
//    the lock, release it, and run on the copy. When the module marked the
//    copy "contextDirty", the top-level keys it changed are merged back
//    under the lock, except a key some other call changed meanwhile: that
//    newer value wins. The meters' sample keys are the usual case.
//  * Writing commands and idle passes hold the lock for their whole call and
//    work on the context itself, so their read-modify-write sequences stay
//    whole. A request waits behind a slow idle pass for at most that pass.
//
// Background work takes the context through get_and_lock_context and hands
// it back through set_and_unlock_context; each taking is a ContextLease
// with a ticket (returned in *fd), and a hand-back releases only the lease
// its ticket names. The lock is re-entrant for the thread that holds it, so
// a module call that asks for its own context does not deadlock.
//
// take_dirty_context() gives the host a copy to store whenever anything
// marked the context dirty since the last take.
//
// Safe from several threads.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <map>
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

// True for the commands that only read server state (they may still update
// cached values in the context). Anything else counts as writing.
bool is_reading_command(const plist::Dict& request);

// A re-entrant lock on the context whose holder may hand it to another
// thread to release (a lease given back from elsewhere).
class ContextLock {
 public:
  // Takes one level of the lock for the calling thread, waiting at most
  // timeout (forever when nullopt). False when it could not.
  bool acquire(std::optional<std::chrono::milliseconds> timeout);
  // Releases one level, from any thread. False (and nothing changes) when
  // the lock is not held.
  bool release();
  bool held() const;

 private:
  mutable std::mutex mu_;
  std::condition_variable released_;
  std::thread::id owner_;  // guarded by mu_
  int depth_ = 0;          // guarded by mu_
};

// One taking of the context lock; releases it when destroyed unless given
// back earlier. Movable, not copyable. Not for concurrent use itself.
class ContextLease {
 public:
  ContextLease() = default;
  ~ContextLease() { release(); }
  ContextLease(ContextLease&& other) noexcept { *this = std::move(other); }
  ContextLease& operator=(ContextLease&& other) noexcept;
  ContextLease(const ContextLease&) = delete;
  ContextLease& operator=(const ContextLease&) = delete;

  // False for a lease that was refused (timed out) or already released.
  explicit operator bool() const { return lock_ != nullptr; }
  // The context while the lease is held, else nullptr.
  plist::Dict* context() const { return lock_ ? context_ : nullptr; }
  // Releases the lock level this lease took; later calls do nothing.
  void release();

 private:
  friend class HostModuleManager;
  ContextLease(ContextLock* lock, plist::Dict* context) : lock_(lock), context_(context) {}

  ContextLock* lock_ = nullptr;
  plist::Dict* context_ = nullptr;
};

class HostModuleManager : public platform::ModuleManager {
 public:
  // context (not owned) is the module context every call gets; it must
  // outlive the manager. lock_timeout bounds get_and_lock_context.
  explicit HostModuleManager(plist::Dict* context, std::chrono::milliseconds lock_timeout = std::chrono::seconds(30));
  ~HostModuleManager() override;
  HostModuleManager(const HostModuleManager&) = delete;
  HostModuleManager& operator=(const HostModuleManager&) = delete;

  // Registers another module; a later module of the same name as an
  // earlier one (or as hubwarden_info) is ignored.
  void add_module(std::unique_ptr<ServiceModule> module);
  // Replaces every service module at once (a configuration reload). Calls
  // already inside an old module finish with it.
  void replace_service_modules(std::vector<std::unique_ptr<ServiceModule>> modules);

  // One request to hubwarden_info for user; see the top of this file for
  // how it holds the context.
  std::optional<plist::Dict> process_request(const plist::Dict& request, const std::string& user);
  // One idle pass with argv {"hubwardend", "idle", pass}, under the lock.
  int process_idle(const std::string& pass, const std::string& user);

  // Takes the context lock, waiting at most timeout (forever when nullopt);
  // an empty lease when it could not be had in time.
  ContextLease lease_context(std::optional<std::chrono::milliseconds> timeout);

  // True once anything handed the context back or the module set
  // "contextDirty": the context has to be stored.
  bool context_marked_dirty();
  // A copy of the context, taken under the lock, when anything marked it
  // dirty since the last take; clears the mark and "contextDirty". nullopt
  // when nothing changed.
  std::optional<plist::Dict> take_dirty_context();

  // platform::ModuleManager
  std::vector<std::string> module_names() override;
  std::optional<plist::Dict> do_command(const plist::Dict& request, const std::string& module,
                                        const std::string& user) override;
  // *fd receives the lease's ticket, which set_and_unlock_context expects.
  plist::Dict* get_and_lock_context(const std::string& module, int* fd, bool* timed_out) override;
  // Releases the lease named by *fd (or, without a ticket, the latest lease
  // taken on this thread); a hand-back naming no outstanding lease is logged
  // and changes nothing. The module's name is not checked: hubwarden_info
  // hands its context back under a misspelled name.
  void set_and_unlock_context(plist::Dict* context, const std::string& module, int* fd) override;

 private:
  struct Outstanding {
    ContextLease lease;
    std::thread::id taken_on;
  };

  std::shared_ptr<ServiceModule> find_module(const std::string& name);
  // REQUIRES: the context lock held by the caller.
  void note_context_flag();
  std::optional<plist::Dict> process_request_on_copy(const plist::Dict& request, const std::string& user);
  void mark_dirty();

  plist::Dict* const context_;
  const std::chrono::milliseconds lock_timeout_;
  ContextLock context_lock_;

  std::mutex mu_;
  std::vector<std::shared_ptr<ServiceModule>> modules_;  // guarded by mu_
  std::map<int, Outstanding> outstanding_;               // by ticket; guarded by mu_
  int next_ticket_ = 1;                                  // guarded by mu_
  bool dirty_ = false;                                   // guarded by mu_
};

}  // namespace hubwardend
