// The network change watch and the host name check behind it.
#include "identity/hostname_watch.h"

#include <atomic>
#include <memory>
#include <mutex>

#include "platform/host_info.h"
#include "platform/host_services.h"
#include "platform/log.h"
#include "platform/notifications.h"
#include "platform/registry.h"
#include "platform/run_loop.h"
#include "platform/sysconfig.h"
#include "request/cached_state.h"
#include "request/globals.h"
#include "request/operations.h"
#include "settings/settings_file.h"

namespace hubwarden {

namespace {

// The session lives for the process and is never destroyed: at exit the
// run loop it is scheduled on is already gone, and a destructor run then
// would cancel its watches on a dead loop. The snapshot is replaced after
// every check. The pending flag is set on the loop thread and cleared by
// the worker; a race costs at most one extra check.
std::mutex gWatchMutex;
platform::StoreSession* gStoreSession = nullptr;  // guarded by gWatchMutex
std::optional<Array> gLastSnapshot;                     // guarded by gWatchMutex
std::atomic<bool> gCheckPending{false};

void log_line(platform::Priority priority, const std::string& line) {
  if (auto* log = platform::find<platform::Log>()) log->write(priority, line);
}

Array take_snapshot() {
  auto* network = platform::find<platform::Network>();
  return network ? network->get_interfaces_info(true) : Array();
}

std::optional<std::string> string_at(const Dict& d, const char* key) {
  const std::string* s = d.find_string(key);
  return s ? std::optional<std::string>(*s) : std::nullopt;
}

bool equals(const Value* stored, const std::string& text) {
  const std::string* s = stored ? stored->as_string() : nullptr;
  return s && *s == text;
}

}  // namespace

void init_info_hostname() {
  std::unique_ptr<platform::StoreSession> session;
  auto* watcher = platform::find<platform::StoreWatcher>();
  platform::StoreWatchFailure failure = platform::StoreWatchFailure::kCreateSession;
  if (watcher) {
    session = watcher->open_session("",
                                    {platform::StoreKey::kIPv4Entities, platform::StoreKey::kIPv6Entities,
                                     platform::StoreKey::kHostNames, platform::StoreKey::kComputerName},
                                    &failure);
  }
  if (!session) {
    switch (failure) {
      case platform::StoreWatchFailure::kCreateKey:
        log_line(platform::Priority::Error, "hubwarden_info: cannot create the store keys to watch");
        break;
      case platform::StoreWatchFailure::kRegisterKeys:
        log_line(platform::Priority::Error, "hubwarden_info: cannot register the store keys to watch");
        break;
      default:
        log_line(platform::Priority::Error, "hubwarden_info: cannot create the store session");
        break;
    }
  } else if (auto* loop = platform::find<platform::RunLoop>()) {
    if (session->schedule(*loop, [] { SCPrefsChangedNotificationHandler(); })) {
      log_line(platform::Priority::Info, "hubwarden_info ready for notifications");
    } else {
      log_line(platform::Priority::Error, "hubwarden_info: cannot add the store session to the run loop");
      session.reset();
    }
  } else {
    // A one-shot host has no loop to deliver changes on; it only needs the
    // snapshot, and this is said once per process.
    static std::once_flag said;
    std::call_once(said, [] {
      log_line(platform::Priority::Info, "hubwarden_info: no run loop, network changes are not watched");
    });
  }

  Array snapshot = take_snapshot();
  std::lock_guard lock(gWatchMutex);
  if (session) {
    delete gStoreSession;  // a second start, from tests only
    gStoreSession = session.release();
  }
  gLastSnapshot = std::move(snapshot);
}

void SCPrefsChangedNotificationHandler() {
  if (gCheckPending.exchange(true)) return;
  auto* loop = platform::find<platform::RunLoop>();
  if (!loop || loop->add_timer(kHostNameCheckDelay, [] { check_hostname_and_ip(); }) == 0) gCheckPending = false;
}

void check_hostname_and_ip() {
  auto* queue = platform::find<platform::BackgroundQueue>();
  if (gRunningUnderHubwardend && queue)
    queue->dispatch([] { do_check_hostname_and_ip(); });
  else
    do_check_hostname_and_ip();
}

void do_check_hostname_and_ip() {
  auto* host = platform::find<platform::HostInfo>();
  std::optional<std::string> host_name = host ? host->host_name() : std::nullopt;
  if (host_name && host_name->size() > 255) host_name->resize(255);

  Array snapshot = take_snapshot();
  std::optional<std::string> dns_name, primary_ip;
  for (const Value& entry : snapshot) {
    const Dict* d = entry.as_dict();
    if (!d || !equals(d->find("family"), "AF_INET") || !is_flag_set(d->find("isPrimaryIPv4Interface"))) continue;
    primary_ip = string_at(*d, "ipAddress");
    dns_name = string_at(*d, "dnsName");
  }
  check_host_name(host_name, dns_name, primary_ip);

  std::optional<Array> previous;
  {
    std::lock_guard lock(gWatchMutex);
    previous = gLastSnapshot;
  }
  if (previous) {
    SendNetChangedNotification(&*previous, &snapshot);
    if (auto* modules = platform::find<platform::ModuleManager>()) {
      int fd = -1;
      bool timed_out = false;
      if (Dict* context = modules->get_and_lock_context(kModuleName, &fd, &timed_out)) {
        update_cached_state(context);
        modules->set_and_unlock_context(context, kModuleName, &fd);
      }
    }
  }

  {
    std::lock_guard lock(gWatchMutex);
    gLastSnapshot = std::move(snapshot);
  }
  gCheckPending = false;
}

void check_host_name(const std::optional<std::string>& host_name, const std::optional<std::string>& dns_name,
                     const std::optional<std::string>& primary_ip) {
  if (!host_name || !dns_name || !primary_ip || dns_name->empty() || *dns_name == "localhost") return;
  Dict settings = read_settings_file().value_or(Dict());

  // The comparisons below use the settings as read, even on the first
  // check, when none of the old values is there yet.
  bool first_check = !settings.contains("oldDNSName");
  Dict updates;
  if (first_check) {
    updates.set("oldDNSName", *dns_name);
    updates.set("oldHostName", *host_name);
    updates.set("hostNameIsSynced", *host_name == *dns_name);
    updates.set("oldPrimaryIP", *primary_ip);
  }

  bool changed;
  if (is_flag_set(settings.find("hostNameIsSynced"))) {
    changed = !(equals(settings.find("oldDNSName"), *dns_name) && equals(settings.find("oldPrimaryIP"), *primary_ip));
    if (changed) {
      // A failure is recorded all the same, so the next check sees no
      // change instead of trying again and again.
      set_host_name(*dns_name, true);
      updates.set("oldPrimaryIP", *primary_ip);
      updates.set("oldDNSName", *dns_name);
      updates.set("oldHostName", *dns_name);
    }
  } else {
    changed = !(equals(settings.find("oldHostName"), *host_name) && equals(settings.find("oldPrimaryIP"), *primary_ip));
    if (changed) {
      updates.set("oldPrimaryIP", *primary_ip);
      updates.set("oldHostName", *host_name);
    }
  }
  if (changed || first_check) update_keys_in_settings_file(updates);
}

ErrorName set_host_name(const std::string& name, bool force) {
  if (!force) {
    auto* host = platform::find<platform::HostInfo>();
    std::optional<std::string> current = host ? host->host_name() : std::nullopt;
    bool link_local = current && current->size() >= 6 && current->ends_with(".local") && *current != "localhost";
    if (!link_local) return nullptr;
  }
  auto* config = platform::find<platform::SystemConfiguration>();
  std::unique_ptr<platform::PreferencesSession> session =
      config ? config->open_preferences(kHostNameClientName) : nullptr;
  if (!session || !session->lock()) return kCannotSetHostnameErr;
  bool done = session->set_host_name(name) && session->commit() && session->apply();
  session->unlock();
  return done ? nullptr : kCannotSetHostnameErr;
}

const Dict* FindElementInArray(const Array& array, const std::string& name) {
  for (const Value& entry : array) {
    const Dict* d = entry.as_dict();
    if (d && equals(d->find("name"), name)) return d;
  }
  return nullptr;
}

std::string CreateDiff(const Array* old_state, const Array* new_state) {
  size_t old_count = old_state ? old_state->size() : 0;
  size_t new_count = new_state ? new_state->size() : 0;
  if (old_count == 0 && new_count == 0) return "";

  // On equal counts the old snapshot is walked: an interface that replaced
  // another shows only through the one it replaced.
  const Array* longer = new_count > old_count ? new_state : old_state;
  const Array* shorter = new_count > old_count ? old_state : new_state;
  bool shorter_empty = (new_count > old_count ? old_count : new_count) == 0;

  std::string changes;
  for (const Value& entry : *longer) {
    const Dict* d = entry.as_dict();
    const std::string* name = d ? d->find_string("name") : nullptr;
    if (!name) continue;  // nothing to report it by
    if (!shorter_empty) {
      const Dict* match = FindElementInArray(*shorter, *name);
      if (match && *match == *d) continue;
    }
    if (!changes.empty()) changes += ',';
    changes += *name;
  }
  return changes;
}

void SendNetChangedNotification(const Array* old_state, const Array* new_state) {
  std::string changes = CreateDiff(old_state, new_state);
  if (changes.empty()) return;
  platform::Notification notification;
  notification.name = kNetChangedNotification;
  notification.object = kNetChangedObject;
  notification.user_info.set("changes", changes);
  notification.user_info.set("oldState", old_state ? *old_state : Array());
  notification.user_info.set("newState", new_state ? *new_state : Array());
  platform::default_center().post(notification);
}

bool hostname_check_pending_for_testing() { return gCheckPending; }

std::optional<Array> last_snapshot_for_testing() {
  std::lock_guard lock(gWatchMutex);
  return gLastSnapshot;
}

void reset_hostname_watch_for_testing() {
  std::lock_guard lock(gWatchMutex);
  delete gStoreSession;
  gStoreSession = nullptr;
  gLastSnapshot.reset();
  gCheckPending = false;
}

}  // namespace hubwarden
