// The registrars and the TXT encoding of their records.
#include "access/zeroconf_registrar.h"

#include <algorithm>
#include <atomic>

#include "platform/log.h"
#include "platform/registry.h"
#include "platform/utf8.h"

namespace hubwarden {

namespace {

constexpr const char* kLogPrefix = "hubwarden_info: ";

std::optional<std::string> txt_value_bytes(const plist::Value& value) {
  if (const std::string* s = value.as_string()) return *s;
  if (const plist::Data* d = value.as_data()) return std::string(d->begin(), d->end());
  if (const int64_t* i = value.as_integer()) return std::to_string(*i);
  if (const uint64_t* u = value.as_unsigned()) return std::to_string(*u);
  return std::nullopt;
}

void log_dropped_entry(const std::string& key, const char* why) {
  platform::log_error(std::string(kLogPrefix) + "TXT entry \"" + platform::escape_for_log(key) + "\" left out: " + why);
}

}  // namespace

plist::Dict make_registration(const std::string& type, uint64_t port, const std::optional<plist::Dict>& txt) {
  plist::Dict registration{{"serviceName", type}, {"port", port}};
  if (txt) registration.set("txtDictionary", *txt);
  return registration;
}

platform::TxtRecord encode_txt_record(const plist::Dict& txt) {
  platform::TxtRecord record;
  for (const auto& [key, value] : txt) {
    if (key.empty() || key.find('=') != std::string::npos) {
      log_dropped_entry(key, "the key cannot be sent");
      continue;
    }
    std::optional<std::string> bytes = txt_value_bytes(value);
    if (!bytes) {
      log_dropped_entry(key, "the value is neither text, data nor an integer");
      continue;
    }
    // DNS-SD gives each entry one length byte; a longer one cannot be sent,
    // and sending the record without it beats sending no record.
    if (key.size() + 1 + bytes->size() > platform::kMaxTxtEntryBytes) {
      log_dropped_entry(key, "longer than 255 bytes");
      continue;
    }
    record.push_back({key, std::move(*bytes)});
  }
  return record;
}

void ZeroconfRegistrar::registerWithZeroconf(const std::string& type, uint64_t port,
                                             const std::optional<plist::Dict>& txt) {
  plist::Dict registration = make_registration(type, port, txt);
  if (isRegistered(registration)) return;
  publishRegistration(registration);
}

void ZeroconfRegistrar::publishRegistration(const plist::Dict& registration) {
  const std::string* type = registration.find_string("serviceName");
  const plist::Value* port_value = registration.find("port");
  const uint64_t* port = port_value ? port_value->as_unsigned() : nullptr;
  std::optional<platform::TxtRecord> txt;
  if (const plist::Dict* dict = registration.find_dict("txtDictionary")) txt = encode_txt_record(*dict);

  std::unique_ptr<platform::PublishedRecord> record;
  if (platform::Advertiser* advertiser = platform::find<platform::Advertiser>(); advertiser && type && port) {
    record = advertiser->publish(*type, static_cast<uint16_t>(*port), txt, &ZeroconfRegistrar::didNotPublish);
  }
  std::lock_guard<std::mutex> lock(dictionaryLock);
  registry_.emplace_back(registration, std::move(record));
}

bool ZeroconfRegistrar::isRegistered(const plist::Dict& registration) const {
  std::lock_guard<std::mutex> lock(dictionaryLock);
  return std::any_of(registry_.begin(), registry_.end(), [&](const Entry& e) { return e.first == registration; });
}

std::vector<plist::Dict> ZeroconfRegistrar::existingRegistrations() const {
  std::lock_guard<std::mutex> lock(dictionaryLock);
  std::vector<plist::Dict> keys;
  keys.reserve(registry_.size());
  for (const Entry& e : registry_) keys.push_back(e.first);
  return keys;
}

void ZeroconfRegistrar::removeAllPublishedServices() {
  std::vector<Entry> dropped;
  {
    std::lock_guard<std::mutex> lock(dictionaryLock);
    dropped.swap(registry_);
  }
  // The handles go here, outside the lock, oldest first: an advertiser may
  // take its own lock to withdraw.
  for (Entry& e : dropped) e.second.reset();
}

void ZeroconfRegistrar::didNotPublish(const std::string& description) {
  platform::log_error(std::string(kLogPrefix) + "failed to publish: " + description);
}

namespace {

struct Registrars {
  std::mutex mu;
  std::atomic<ZeroconfRegistrar*> configured{nullptr};
  std::atomic<ZeroconfRegistrar*> waiting{nullptr};
};

Registrars& registrars() {
  static Registrars* r = new Registrars;  // never destroyed: records live as long as the process
  return *r;
}

ZeroconfRegistrar* made_on_first_use(std::atomic<ZeroconfRegistrar*>& slot, bool create) {
  ZeroconfRegistrar* r = slot.load(std::memory_order_acquire);
  if (r || !create) return r;
  std::lock_guard<std::mutex> lock(registrars().mu);
  r = slot.load(std::memory_order_relaxed);
  if (!r) {
    r = new ZeroconfRegistrar;
    slot.store(r, std::memory_order_release);
  }
  return r;
}

}  // namespace

ZeroconfRegistrar* configured_server_registrar(bool create) {
  return made_on_first_use(registrars().configured, create);
}

ZeroconfRegistrar* waiting_for_setup_registrar(bool create) { return made_on_first_use(registrars().waiting, create); }

ZeroconfRegistrar& general_registrar() {
  static ZeroconfRegistrar* r = new ZeroconfRegistrar;
  return *r;
}

void clear_zeroconf_registrars_for_testing() {
  if (ZeroconfRegistrar* r = configured_server_registrar(false)) r->removeAllPublishedServices();
  if (ZeroconfRegistrar* r = waiting_for_setup_registrar(false)) r->removeAllPublishedServices();
  general_registrar().removeAllPublishedServices();
}

}  // namespace hubwarden
