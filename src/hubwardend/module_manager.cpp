// Module registry, request routing and the context lock.
#include "hubwardend/module_manager.h"

#include "hubwardend/requester.h"
#include "platform/log.h"
#include "request/module.h"

namespace hubwardend {

bool ContextLock::lock_for(std::chrono::milliseconds timeout) {
  std::unique_lock<std::mutex> lock(mu_);
  const std::thread::id me = std::this_thread::get_id();
  if (depth_ > 0 && owner_ == me) {
    ++depth_;
    return true;
  }
  if (!released_.wait_for(lock, timeout, [this] { return depth_ == 0; })) return false;
  owner_ = me;
  depth_ = 1;
  return true;
}

void ContextLock::lock() {
  std::unique_lock<std::mutex> lock(mu_);
  const std::thread::id me = std::this_thread::get_id();
  if (depth_ > 0 && owner_ == me) {
    ++depth_;
    return;
  }
  released_.wait(lock, [this] { return depth_ == 0; });
  owner_ = me;
  depth_ = 1;
}

bool ContextLock::unlock() {
  std::lock_guard<std::mutex> lock(mu_);
  if (depth_ == 0) return false;
  if (--depth_ == 0) {
    owner_ = std::thread::id();
    released_.notify_one();
  }
  return true;
}

bool ContextLock::held() const {
  std::lock_guard<std::mutex> lock(mu_);
  return depth_ > 0;
}

namespace {

class LockedContext {
 public:
  explicit LockedContext(ContextLock& lock) : lock_(lock) { lock_.lock(); }
  ~LockedContext() { lock_.unlock(); }
  LockedContext(const LockedContext&) = delete;
  LockedContext& operator=(const LockedContext&) = delete;

 private:
  ContextLock& lock_;
};

}  // namespace

HostModuleManager::HostModuleManager(plist::Dict* context, std::chrono::milliseconds lock_timeout)
    : context_(context), lock_timeout_(lock_timeout) {}

void HostModuleManager::add_module(std::unique_ptr<ServiceModule> module) {
  if (!module) return;
  std::lock_guard<std::mutex> lock(mu_);
  const std::string& name = module->name();
  if (name == kInfoModuleName) return;
  for (const auto& m : modules_)
    if (m->name() == name) return;
  modules_.push_back(std::move(module));
}

ServiceModule* HostModuleManager::find_module(const std::string& name) {
  std::lock_guard<std::mutex> lock(mu_);
  for (const auto& m : modules_)
    if (m->name() == name) return m.get();
  return nullptr;
}

void HostModuleManager::note_context_flag() {
  // Called with the context lock held.
  if (context_ && plist::is_flag_set(context_->find("contextDirty"))) {
    std::lock_guard<std::mutex> lock(mu_);
    dirty_ = true;
  }
}

std::optional<plist::Dict> HostModuleManager::process_request(const plist::Dict& request, const std::string& user) {
  LockedContext held(context_lock_);
  ScopedUser as(user);
  hubwarden_info module;
  std::optional<plist::Dict> reply = module.doProcessInputWithRequest(request, context_, -1);
  note_context_flag();
  return reply;
}

int HostModuleManager::process_idle(const std::string& pass, const std::string& user) {
  LockedContext held(context_lock_);
  ScopedUser as(user);
  const char* argv[] = {"hubwardend", "idle", pass.c_str(), nullptr};
  hubwarden_info module;
  int code = module.doProcessArgsWithArgc(3, argv, context_, -1);
  note_context_flag();
  return code;
}

bool HostModuleManager::context_marked_dirty() {
  {
    LockedContext held(context_lock_);
    note_context_flag();
  }
  std::lock_guard<std::mutex> lock(mu_);
  return dirty_;
}

std::vector<std::string> HostModuleManager::module_names() {
  std::vector<std::string> names{kInfoModuleName};
  std::lock_guard<std::mutex> lock(mu_);
  for (const auto& m : modules_) names.push_back(m->name());
  return names;
}

std::optional<plist::Dict> HostModuleManager::do_command(const plist::Dict& request, const std::string& module,
                                                         const std::string& user) {
  if (module == kInfoModuleName) return process_request(request, user);
  // Service modules keep no context, so no lock is taken for them; they
  // answer from their own, internally locked, state.
  if (ServiceModule* m = find_module(module)) return m->handle(request, user);
  return std::nullopt;
}

plist::Dict* HostModuleManager::get_and_lock_context(const std::string& module, int* fd, bool* timed_out) {
  if (fd) *fd = -1;
  if (timed_out) *timed_out = false;
  if (module != kInfoModuleName || !context_) return nullptr;
  if (!context_lock_.lock_for(lock_timeout_)) {
    if (timed_out) *timed_out = true;
    platform::log_error("hubwardend: timed out waiting for the context of " + module);
    return nullptr;
  }
  return context_;
}

void HostModuleManager::set_and_unlock_context(plist::Dict* context, const std::string& module, int* fd) {
  // The module name is not checked: hubwarden_info hands its context back
  // under a misspelled name, and there is only one context lock to release.
  if (context && context_ && context != context_ && context_lock_.held()) *context_ = *context;
  if (!context_lock_.unlock()) {
    platform::log_error("hubwardend: context of " + module + " handed back without being taken");
    return;
  }
  std::lock_guard<std::mutex> lock(mu_);
  dirty_ = true;
}

}  // namespace hubwardend
