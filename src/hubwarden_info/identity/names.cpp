// Computer and local host names: the filter that makes a host name label of
// free text, and the two changes that write a name and wait to see it.
#include "identity/names.h"

#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstring>

#include "identity/dns_name.h"
#include "identity/latin_transform.h"
#include "platform/log.h"
#include "platform/registry.h"
#include "platform/utf8.h"

namespace hubwarden {

namespace {

constexpr size_t kMaxComputerNameUnits = 63;
constexpr const char* kPreferencesClient = "hubwarden_info";
constexpr const char* kStoreClient = "BravuraAdmin";

// Set by the store session's callback during a wait; clear between waits.
std::atomic<bool> gNameChanged{false};

void log_name_notice(const std::string& what) {
  platform::log_notice("hubwarden_info: [" + std::to_string(::getpid()) + "] " + what);
}

bool is_ascii_letter(unsigned char c) { return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z'); }
bool is_ascii_digit(unsigned char c) { return c >= '0' && c <= '9'; }

// UTF-16 code units of well-formed UTF-8: one per sequence, two for the
// four-byte ones (characters outside the basic plane).
size_t utf16_length(const std::string& utf8) {
  size_t units = 0;
  for (unsigned char c : utf8) {
    if ((c & 0xC0) == 0x80) continue;  // continuation byte
    units += c >= 0xF0 ? 2 : 1;
  }
  return units;
}

const char* describe(platform::StoreWatchFailure failure) {
  switch (failure) {
    case platform::StoreWatchFailure::kCreateSession:
      return "could not create the store session";
    case platform::StoreWatchFailure::kCreateKey:
      return "could not create the computer-name and host-names keys";
    case platform::StoreWatchFailure::kRegisterKeys:
      return "could not register the keys";
    case platform::StoreWatchFailure::kNone:
      break;
  }
  return "could not create the store session";
}

using NameWriter = int (*)(const std::string&, platform::PreferencesSession&);

// Watch first, so the announcement of our own write cannot slip past.
int change_name(const std::string& name, NameWriter write) {
  std::unique_ptr<platform::StoreSession> store = init_detection_runloop();
  if (!store) return kNameChangeNotSeenErr;
  std::unique_ptr<platform::PreferencesSession> session = init_preferences_session();
  if (!session) return kCannotSetComputerNameErr;
  if (int status = write(name, *session); status != 0) return status;
  return detect_with_runloop(*store);
}

int write_in_transaction(platform::PreferencesSession& session, int error,
                         bool (platform::PreferencesSession::*set)(const std::string&), const std::string& name) {
  if (!session.lock()) return error;
  bool ok = (session.*set)(name) && session.commit() && session.apply();
  session.unlock();
  return ok ? 0 : error;
}

}  // namespace

bool is_computer_name_valid(const std::string* name) {
  if (name == nullptr || !platform::is_valid_utf8(*name)) return false;
  size_t units = utf16_length(*name);
  if (units < 1 || units > kMaxComputerNameUnits) return false;
  return name->find_first_of("=*@:") == std::string::npos;
}

void get_plain_ascii_name(const unsigned char* in, unsigned char* out, size_t capacity) {
  const size_t in_length = in[0];
  const unsigned char* text = in + 1;
  unsigned char* written = out + 1;
  size_t n = 0;
  for (size_t i = 0; i < in_length; ++i) {
    const unsigned char c = text[i];
    if (c == '\'') continue;
    if (c == 0xE2 && i + 2 < in_length && text[i + 1] == 0x80 && text[i + 2] == 0x99) {
      i += 2;  // typographic apostrophe
      continue;
    }
    if (n >= capacity) continue;
    if (is_ascii_letter(c)) {
      written[n++] = c;
    } else if (n == 0) {
      // A label must begin with a letter.
    } else if (is_ascii_digit(c) || (c == '-' && i + 1 < in_length)) {
      written[n++] = c;
    } else if (written[n - 1] != '-') {
      written[n++] = '-';
    }
  }
  while (n > 0 && written[n - 1] == '-') --n;
  // The input held at most 255 bytes, so the output fits its length byte.
  out[0] = static_cast<unsigned char>(n);
}

std::optional<std::string> get_zero_conf_name_from_computer_name(const std::string& name) {
  unsigned char in[kPlainNameCapacity] = {};
  unsigned char out[kPlainNameCapacity + 1] = {};
  const size_t copied = std::min(name.size(), kPlainNameCapacity - 1);
  std::memcpy(in + 1, name.data(), copied);
  in[0] = static_cast<unsigned char>(name.size() % 256);
  get_plain_ascii_name(in, out, kPlainNameCapacity);
  if (out[0] == 0) return std::nullopt;
  return std::string(reinterpret_cast<const char*>(out + 1), out[0]);
}

std::string munge_name_into_legal_localcast_name(const std::string& name) {
  if (name.empty()) return kFallbackLocalcastName;
  std::optional<std::string> plain = get_zero_conf_name_from_computer_name(name);
  if (!plain) {
    if (std::optional<std::string> latin = transliterate_to_latin(name))
      plain = get_zero_conf_name_from_computer_name(*latin);
  }
  if (!plain || !is_valid_dns_name(*plain)) return kFallbackLocalcastName;
  return *plain;
}

std::unique_ptr<platform::PreferencesSession> init_preferences_session() {
  platform::SystemConfiguration* store = platform::find<platform::SystemConfiguration>();
  if (store == nullptr) return nullptr;
  return store->open_preferences(kPreferencesClient);
}

int set_computer_name_with_preferences_session(const std::string& name, platform::PreferencesSession& session) {
  return write_in_transaction(session, kCannotSetComputerNameErr, &platform::PreferencesSession::set_computer_name,
                              name);
}

int set_localcast_name_with_preferences_session(const std::string& name, platform::PreferencesSession& session) {
  return write_in_transaction(session, kCannotSetLocalcastNameErr, &platform::PreferencesSession::set_local_host_name,
                              name);
}

std::unique_ptr<platform::StoreSession> init_detection_runloop() {
  platform::StoreWatcher* watcher = platform::find<platform::StoreWatcher>();
  platform::StoreWatchFailure failure = platform::StoreWatchFailure::kCreateSession;
  std::unique_ptr<platform::StoreSession> session;
  if (watcher != nullptr) {
    session = watcher->open_session(kStoreClient, {platform::StoreKey::kComputerName, platform::StoreKey::kHostNames},
                                    &failure);
  }
  if (!session) log_name_notice(describe(failure));
  return session;
}

void computer_name_changed_callback() { gNameChanged.store(true); }

int detect_with_runloop(platform::StoreSession& store) {
  gNameChanged.store(false);
  const int exit_code = store.run_for(kNameChangeWait, computer_name_changed_callback);
  if (gNameChanged.exchange(false)) return 0;
  if (exit_code == platform::kRunFinished) {
    log_name_notice("could not create the run loop source");
  } else {
    log_name_notice("run loop did not receive the name change notification (exit code " + std::to_string(exit_code) +
                    ")");
  }
  return kNameChangeNotSeenErr;
}

int set_computer_name(const std::string& name) {
  if (!is_computer_name_valid(&name)) return kInvalidComputerNameErr;
  return change_name(name, set_computer_name_with_preferences_session);
}

int set_localcast_name(const std::string& name) {
  return change_name(munge_name_into_legal_localcast_name(name), set_localcast_name_with_preferences_session);
}

}  // namespace hubwarden
