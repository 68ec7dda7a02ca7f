// Module registry, request routing, the context lock and its leases.
#include "hubwardend/module_manager.h"

#include <array>
#include <string_view>

#include "hubwardend/requester.h"
#include "platform/log.h"
#include "request/module.h"

namespace hubwardend {

bool is_reading_command(const plist::Dict& request) {
  static constexpr std::array<std::string_view, 13> kReading = {
      "getState",          "getHardwareInfo",   "getSystemLogPaths", "tailFile",
      "getHistory",        "getSWUpdateStatus", "listProcesses",     "readSettings",
      "readServiceConfig", "getServicesInfo",   "getSACLsForUser",   "getSACLsForUserWithAuthData",
      "getContext"};
  const std::string* command = request.find_string("command");
  if (!command) return false;
  for (std::string_view name : kReading)
    if (*command == name) return true;
  return false;
}

bool ContextLock::acquire(std::optional<std::chrono::milliseconds> timeout) {
  std::unique_lock<std::mutex> lock(mu_);
  const std::thread::id me = std::this_thread::get_id();
  if (depth_ > 0 && owner_ == me) {
    ++depth_;
    return true;
  }
  auto free = [this] { return depth_ == 0; };
  if (timeout) {
    if (!released_.wait_for(lock, *timeout, free)) return false;
  } else {
    released_.wait(lock, free);
  }
  owner_ = me;
  depth_ = 1;
  return true;
}

bool ContextLock::release() {
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

ContextLease& ContextLease::operator=(ContextLease&& other) noexcept {
  if (this != &other) {
    release();
    lock_ = other.lock_;
    context_ = other.context_;
    other.lock_ = nullptr;
    other.context_ = nullptr;
  }
  return *this;
}

void ContextLease::release() {
  if (!lock_) return;
  lock_->release();
  lock_ = nullptr;
  context_ = nullptr;
}

HostModuleManager::HostModuleManager(plist::Dict* context, std::chrono::milliseconds lock_timeout)
    : context_(context), lock_timeout_(lock_timeout) {}

HostModuleManager::~HostModuleManager() {
  std::map<int, Outstanding> left;
  {
    std::lock_guard<std::mutex> lock(mu_);
    left.swap(outstanding_);
  }
  if (!left.empty()) platform::log_error("hubwardend: the context was still taken when the host stopped");
}

void HostModuleManager::add_module(std::unique_ptr<ServiceModule> module) {
  if (!module) return;
  std::lock_guard<std::mutex> lock(mu_);
  const std::string& name = module->name();
  if (name == kInfoModuleName) return;
  for (const auto& m : modules_)
    if (m->name() == name) return;
  modules_.push_back(std::move(module));
}

void HostModuleManager::replace_service_modules(std::vector<std::unique_ptr<ServiceModule>> modules) {
  std::vector<std::shared_ptr<ServiceModule>> replacement;
  for (auto& module : modules) {
    if (!module || module->name() == kInfoModuleName) continue;
    bool repeated = false;
    for (const auto& m : replacement) repeated = repeated || m->name() == module->name();
    if (!repeated) replacement.push_back(std::move(module));
  }
  std::lock_guard<std::mutex> lock(mu_);
  modules_.swap(replacement);
  // The old modules go when the last call inside one of them returns.
}

std::shared_ptr<ServiceModule> HostModuleManager::find_module(const std::string& name) {
  std::lock_guard<std::mutex> lock(mu_);
  for (const auto& m : modules_)
    if (m->name() == name) return m;
  return nullptr;
}

void HostModuleManager::mark_dirty() {
  std::lock_guard<std::mutex> lock(mu_);
  dirty_ = true;
}

void HostModuleManager::note_context_flag() {
  if (context_ && plist::is_flag_set(context_->find("contextDirty"))) mark_dirty();
}

ContextLease HostModuleManager::lease_context(std::optional<std::chrono::milliseconds> timeout) {
  if (!context_lock_.acquire(timeout)) return ContextLease();
  return ContextLease(&context_lock_, context_);
}

std::optional<plist::Dict> HostModuleManager::process_request(const plist::Dict& request, const std::string& user) {
  if (context_ && is_reading_command(request)) return process_request_on_copy(request, user);
  ContextLease held = lease_context(std::nullopt);
  ScopedUser as(user);
  hubwarden_info module;
  std::optional<plist::Dict> reply = module.doProcessInputWithRequest(request, context_, -1);
  note_context_flag();
  return reply;
}

std::optional<plist::Dict> HostModuleManager::process_request_on_copy(const plist::Dict& request,
                                                                      const std::string& user) {
  plist::Dict before;
  {
    ContextLease held = lease_context(std::nullopt);
    before = *context_;
  }
  plist::Dict working = before;
  // So that the flag afterwards says whether this call changed anything.
  working.remove("contextDirty");
  std::optional<plist::Dict> reply;
  {
    ScopedUser as(user);
    hubwarden_info module;
    reply = module.doProcessInputWithRequest(request, &working, -1);
  }
  if (!plist::is_flag_set(working.find("contextDirty"))) return reply;

  ContextLease held = lease_context(std::nullopt);
  plist::Dict& live = *context_;
  // A key changed here goes back only where the live context still holds
  // what this call started from; otherwise another call changed it since,
  // and its value is the newer one.
  auto untouched_since = [&](const std::string& key) {
    const plist::Value* was = before.find(key);
    const plist::Value* now = live.find(key);
    return was ? (now && *now == *was) : now == nullptr;
  };
  for (const auto& [key, value] : working) {
    if (key == "contextDirty") continue;
    const plist::Value* was = before.find(key);
    if (was && *was == value) continue;
    if (untouched_since(key)) live.set(key, value);
  }
  for (const auto& [key, value] : before)
    if (key != "contextDirty" && !working.contains(key) && untouched_since(key)) live.remove(key);
  live.set("contextDirty", true);
  mark_dirty();
  return reply;
}

int HostModuleManager::process_idle(const std::string& pass, const std::string& user) {
  ContextLease held = lease_context(std::nullopt);
  ScopedUser as(user);
  const char* argv[] = {"hubwardend", "idle", pass.c_str(), nullptr};
  hubwarden_info module;
  int code = module.doProcessArgsWithArgc(3, argv, context_, -1);
  note_context_flag();
  return code;
}

bool HostModuleManager::context_marked_dirty() {
  {
    ContextLease held = lease_context(std::nullopt);
    note_context_flag();
  }
  std::lock_guard<std::mutex> lock(mu_);
  return dirty_;
}

std::optional<plist::Dict> HostModuleManager::take_dirty_context() {
  if (!context_) return std::nullopt;
  ContextLease held = lease_context(std::nullopt);
  note_context_flag();
  {
    std::lock_guard<std::mutex> lock(mu_);
    if (!dirty_) return std::nullopt;
    dirty_ = false;
  }
  context_->remove("contextDirty");
  return *context_;
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
  if (std::shared_ptr<ServiceModule> m = find_module(module)) return m->handle(request, user);
  return std::nullopt;
}

plist::Dict* HostModuleManager::get_and_lock_context(const std::string& module, int* fd, bool* timed_out) {
  if (fd) *fd = -1;
  if (timed_out) *timed_out = false;
  if (module != kInfoModuleName || !context_) return nullptr;
  ContextLease lease = lease_context(lock_timeout_);
  if (!lease) {
    if (timed_out) *timed_out = true;
    platform::log_error("hubwardend: timed out waiting for the context of " + module);
    return nullptr;
  }
  std::lock_guard<std::mutex> lock(mu_);
  int ticket = next_ticket_;
  // Tickets stay positive; one still outstanding after a wrap is skipped.
  do {
    ticket = next_ticket_;
    next_ticket_ = next_ticket_ == INT32_MAX ? 1 : next_ticket_ + 1;
  } while (outstanding_.count(ticket));
  outstanding_.emplace(ticket, Outstanding{std::move(lease), std::this_thread::get_id()});
  if (fd) *fd = ticket;
  return context_;
}

void HostModuleManager::set_and_unlock_context(plist::Dict* context, const std::string& module, int* fd) {
  std::optional<Outstanding> returned;
  {
    std::lock_guard<std::mutex> lock(mu_);
    auto it = outstanding_.end();
    if (fd && *fd > 0) {
      it = outstanding_.find(*fd);
    } else {
      // No ticket: the latest lease this thread took.
      for (auto i = outstanding_.begin(); i != outstanding_.end(); ++i)
        if (i->second.taken_on == std::this_thread::get_id()) it = i;
    }
    if (it != outstanding_.end()) {
      returned.emplace(std::move(it->second));
      outstanding_.erase(it);
      dirty_ = true;
    }
  }
  if (!returned) {
    platform::log_error("hubwardend: context of " + module + " handed back without being taken");
    return;
  }
  if (fd) *fd = -1;
  // A copy handed back in place of the lent dictionary replaces it.
  if (context && context != context_) *context_ = *context;
  returned->lease.release();
}

}  // namespace hubwardend
