// Services the module takes from its host daemon and its common library:
// the requesting user, the module manager, the background queue, the
// interface snapshot, the tail service and the history service.
//
// All are safe to call from several threads.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "platform/error_name.h"
#include "plist/value.h"

namespace platform {

// Who the current request runs for.
class Requester {
 public:
  virtual ~Requester() = default;
  // The requesting user's short name for the call that handed over context
  // (the host's do_get_user). Empty when unknown.
  virtual std::string user_for(const plist::Dict* context) = 0;
};

// The daemon's module manager.
class ModuleManager {
 public:
  virtual ~ModuleManager() = default;
  // Names of the loaded modules.
  virtual std::vector<std::string> module_names() = 0;
  // Sends request to module on behalf of user; nullopt when the module is
  // absent or gives no reply.
  virtual std::optional<plist::Dict> do_command(const plist::Dict& request, const std::string& module,
                                                const std::string& user) = 0;
  // Locks and returns the stored context of module (nullptr when unknown).
  // *timed_out is set when the lock could not be had in time.
  virtual plist::Dict* get_and_lock_context(const std::string& module, int* fd, bool* timed_out) = 0;
  // Hands back the context taken by get_and_lock_context and unlocks it.
  virtual void set_and_unlock_context(plist::Dict* context, const std::string& module, int* fd) = 0;
};

// A concurrent background work queue. The host waits for queued work before
// it stores the context and exits.
class BackgroundQueue {
 public:
  virtual ~BackgroundQueue() = default;
  virtual void dispatch(std::function<void()> work) = 0;
};

// The interface snapshot and host-name lookups.
class Network {
 public:
  virtual ~Network() = default;
  // One dictionary per address: "name", "family", "ipAddress",
  // "isPrimaryIPv4Interface", "dnsName". complete asks for the slower,
  // fresh gathering (reverse lookups); otherwise a quick one.
  virtual plist::Array get_interfaces_info(bool complete) = 0;
  // Host names of address (nullopt: this host), waiting at most timeout.
  virtual std::vector<std::string> host_names_for_address(const std::optional<std::string>& address,
                                                          double timeout_seconds) = 0;
};

// The tail service behind "tailFile".
class TailService {
 public:
  virtual ~TailService() = default;
  // Looks identifier up in log_paths and reads at most *amount bytes from
  // *offset of that file. On success sets *path, *contents and the offset
  // and amount actually read. Returns null or an error name.
  virtual ErrorName tail(const std::string& identifier, const plist::Dict& log_paths,
                         std::optional<std::string>* path, plist::Value* offset, plist::Value* amount,
                         std::optional<std::string>* contents, plist::Dict* context,
                         const plist::Dict& request) = 0;
};

// The history service: stores one sample per idle pass and returns the
// samples of a time span.
class HistoryService {
 public:
  virtual ~HistoryService() = default;
  virtual ErrorName update(const plist::Array& sample, plist::Dict* context) = 0;
  // Samples of the last time_scale seconds as dictionaries with "t" and
  // "v1".."v18" (or only the keys variant names); *samples stays nullopt
  // when there are none.
  virtual ErrorName get(const plist::Value* variant, const plist::Value& time_scale,
                        std::optional<plist::Array>* samples, plist::Dict* context) = 0;
};

// Common-library shorthands the module's code calls by these names.
std::string do_get_user(const plist::Dict* context, int, int);
bool does_user_belong_to_group(const std::string& user, const std::string& group);

}  // namespace platform
