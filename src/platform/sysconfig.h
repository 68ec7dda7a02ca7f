// The system configuration store: the computer name, the local (multicast
// DNS) host name and the host name, written through preferences sessions,
// and sessions that watch the store for changes of names and addresses.
//
// All methods are safe from any thread; one session object is used by one
// thread at a time.
#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace platform {

class RunLoop;

// A transaction on the stored names, in the order lock, set..., commit,
// apply, unlock. Setting only stages a name; commit stores what was staged
// (files other programs read are replaced atomically); apply makes the
// stored names take effect in the running system. Each step returns false
// on failure and leaves what earlier steps did in place.
class PreferencesSession {
 public:
  virtual ~PreferencesSession() = default;
  // Takes the store's lock without waiting; false when another session
  // holds it.
  virtual bool lock() = 0;
  virtual bool set_computer_name(const std::string& name) = 0;
  virtual bool set_local_host_name(const std::string& name) = 0;
  virtual bool set_host_name(const std::string& name) = 0;
  virtual bool commit() = 0;
  virtual bool apply() = 0;
  // Releases the lock (does nothing when it is not held). The destructor
  // unlocks too.
  virtual void unlock() = 0;
};

class SystemConfiguration {
 public:
  virtual ~SystemConfiguration() = default;
  // Whether the store can be reached at all (client_name names the caller).
  virtual bool open(const std::string& client_name) = 0;
  virtual std::optional<std::string> computer_name() = 0;
  virtual std::optional<std::string> local_host_name() = 0;
  // A session for changing names; nullptr when none can be opened.
  virtual std::unique_ptr<PreferencesSession> open_preferences(const std::string& client_name) = 0;
};

// What a store session can be asked to watch.
enum class StoreKey {
  kComputerName,  // the computer name
  kHostNames,     // the local host name and the host name
  kIPv4Entities,  // IPv4 addresses of any interface (and links coming and going)
  kIPv6Entities,  // IPv6 addresses of any interface
};

// Exit codes of StoreSession::run_for, as a run loop reports them.
inline constexpr int kRunFinished = 1;  // nothing to wait on
inline constexpr int kRunStopped = 2;
inline constexpr int kRunTimedOut = 3;  // waited the whole time

// A session on the store that sees changes of the keys it watches. Changes
// are delivered either on the calling thread, inside run_for, or on the
// daemon's run loop after schedule; not both.
class StoreSession {
 public:
  virtual ~StoreSession() = default;
  // Waits on the calling thread for the whole timeout (it does not return
  // after the first change), calling changed() on this thread for each
  // change seen. Returns kRunTimedOut, or kRunFinished when the session has
  // nothing it can wait on.
  virtual int run_for(std::chrono::milliseconds timeout, const std::function<void()>& changed) = 0;
  // Delivers every later change to changed() on loop's thread, for as long
  // as the session lives. false when the session cannot be watched there.
  virtual bool schedule(RunLoop& loop, std::function<void()> changed) = 0;
};

// Why opening a store session failed.
enum class StoreWatchFailure {
  kNone,
  kCreateSession,  // no session on the store
  kCreateKey,      // a key could not be formed
  kRegisterKeys,   // the watch could not be set up
};

class StoreWatcher {
 public:
  virtual ~StoreWatcher() = default;
  // Opens a session that watches keys. nullptr on failure, with *failure
  // (when given) naming the step that failed.
  virtual std::unique_ptr<StoreSession> open_session(const std::string& client_name, const std::vector<StoreKey>& keys,
                                                     StoreWatchFailure* failure) = 0;
};

}  // namespace platform
