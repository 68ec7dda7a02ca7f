// ZeroconfRegistrar: the owner of published DNS-SD records. Each record is
// kept under its registration, the dictionary {"serviceName", "port",
// "txtDictionary" (absent without TXT data)}; the record stays on the
// network for as long as its registration is in the registry, and leaves it
// when removed.
//
// Thread-safety: every method is safe from any thread; dictionaryLock
// guards the registry. A check-then-publish sequence made of several calls
// (isRegistered, then publishRegistration) is not atomic as a whole.
//
// Three registrars live for the whole process, each made on first use and
// never destroyed: the configured-server one, the waiting-for-setup one and
// the general one behind register_with_zeroconf.
#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "platform/dns_sd.h"
#include "plist/value.h"

namespace hubwarden {

class ZeroconfRegistrar {
 public:
  ZeroconfRegistrar() = default;
  ZeroconfRegistrar(const ZeroconfRegistrar&) = delete;
  ZeroconfRegistrar& operator=(const ZeroconfRegistrar&) = delete;

  // Publishes type on port with txt unless the same registration is already
  // in the registry.
  void registerWithZeroconf(const std::string& type, uint64_t port, const std::optional<plist::Dict>& txt);
  // Publishes registration whether or not it is registered already, and
  // keeps the record under it. Without an advertiser (a host that publishes
  // nothing) the registration is still kept, so repeated calls stay quiet.
  void publishRegistration(const plist::Dict& registration);
  // Whether registration (compared by value) is in the registry.
  bool isRegistered(const plist::Dict& registration) const;
  // Copies of the registry's registrations, oldest first.
  std::vector<plist::Dict> existingRegistrations() const;
  // Empties the registry, which withdraws every record it held.
  void removeAllPublishedServices();

  // The advertiser could not publish a record: logged, and the registration
  // stays, so the same TXT data is not tried again until it changes.
  static void didNotPublish(const std::string& description);

 private:
  using Entry = std::pair<plist::Dict, std::unique_ptr<platform::PublishedRecord>>;
  mutable std::mutex dictionaryLock;
  std::vector<Entry> registry_;  // guarded by dictionaryLock, in registration order
};

// The registration dictionary for a record.
plist::Dict make_registration(const std::string& type, uint64_t port, const std::optional<plist::Dict>& txt);

// A TXT dictionary as DNS-SD TXT entries, in the dictionary's order.
// Strings and data go as their bytes, numbers and booleans as decimal text.
// An entry that cannot be sent (a key that is empty or holds "=", a value
// of another type, a "key=value" over 255 bytes) is left out and logged
// with its key; the rest still go.
platform::TxtRecord encode_txt_record(const plist::Dict& txt);

// The three process-wide registrars. The configured and waiting-for-setup
// ones are null until made with create = true.
ZeroconfRegistrar* configured_server_registrar(bool create);
ZeroconfRegistrar* waiting_for_setup_registrar(bool create);
ZeroconfRegistrar& general_registrar();

// Test hook: withdraws every record of the three registrars.
void clear_zeroconf_registrars_for_testing();

}  // namespace hubwarden
