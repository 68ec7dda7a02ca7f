// The host name check and the network change watch: a store session that
// hears about address, link and name changes, a timer that lets a burst of
// them settle, and a check that keeps the host name in step with the DNS
// name of the primary address (when the administrator asked for that) and
// tells the rest of the daemon which interfaces changed.
//
// Thread-safety: the change handler and the timer run on the daemon's run
// loop, the check on the background queue (or in place outside the
// daemon); the last snapshot is kept under a lock. check_host_name and
// set_host_name are safe from any thread (the settings file has its own
// lock). init_info_hostname and check_host_name are declared in
// request/operations.h, where the idle driver and the cached state find them.
#pragma once

#include <chrono>
#include <optional>
#include <string>

#include "platform/error_name.h"
#include "plist/value.h"

namespace hubwarden {

inline constexpr const char* kCannotSetHostnameErr = "CANNOT_SET_HOSTNAME_ERR";
inline constexpr const char* kNetChangedNotification = "com.marlo.hubwarden_info.netchanged";
inline constexpr const char* kNetChangedObject = "com.marlo.hubwarden_info";
inline constexpr const char* kHostNameClientName = "com.marlo.hubwardend.hubwarden_dns";
// How long a burst of changes may go on before the one check it leads to.
inline constexpr std::chrono::milliseconds kHostNameCheckDelay{5000};

// The store's change callback: arms the one-shot check timer unless a check
// is already pending, so that a burst makes one check.
void SCPrefsChangedNotificationHandler();
// The timer's action: the check on the background queue inside the daemon,
// else in place.
void check_hostname_and_ip();
// One check: host name, fresh snapshot, check_host_name, the change
// notification and the cached-state refresh, then the snapshot kept.
void do_check_hostname_and_ip();

// Sets the system host name through a preferences session. Without force,
// only a link-local name ("*.local", not "localhost") is replaced and any
// other name is left as it is. Returns nullptr, or kCannotSetHostnameErr
// when the session cannot be opened, locked, set, committed or applied.
ErrorName set_host_name(const std::string& name, bool force);

// The first entry of array whose "name" is name; nullptr when there is
// none. Entries that are not dictionaries or have no name are skipped.
const plist::Dict* FindElementInArray(const plist::Array& array, const std::string& name);
// The names of the interfaces that differ between two snapshots, joined
// by ",", walking the longer one only (entries found only in the shorter
// one are not reported); "" when there is no difference. Null pointers
// stand for absent snapshots.
std::string CreateDiff(const plist::Array* old_state, const plist::Array* new_state);
// Posts the in-process network change notification when CreateDiff finds a
// difference; posts nothing otherwise.
void SendNetChangedNotification(const plist::Array* old_state, const plist::Array* new_state);

// Test hooks: whether a check is pending; the snapshot kept; forgetting the
// session, the snapshot and the pending flag.
bool hostname_check_pending_for_testing();
std::optional<plist::Array> last_snapshot_for_testing();
void reset_hostname_watch_for_testing();

}  // namespace hubwarden
