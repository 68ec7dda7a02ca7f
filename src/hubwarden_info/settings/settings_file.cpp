// The settings file store: whole-file reads and atomic whole-file writes of
// the module's settings property list, under gPrefsFileLock.
#include "settings/settings_file.h"

#include <memory>
#include <mutex>
#include <vector>

#include "platform/file_util.h"
#include "platform/paths.h"
#include "plist/codec.h"

namespace hubwarden {

std::atomic<std::shared_mutex*> gPrefsFileLock{nullptr};

void create_settings_lock() {
  // Only pass zero creates the lock and the daemon never runs two passes at
  // once, but a compare-exchange keeps a stray second caller harmless.
  if (gPrefsFileLock.load()) return;
  auto* lock = new std::shared_mutex;  // kept for the life of the process
  std::shared_mutex* expected = nullptr;
  if (!gPrefsFileLock.compare_exchange_strong(expected, lock)) delete lock;
}

void reset_settings_lock_for_testing() {
  // Retired locks are kept (reachable) rather than freed: a thread of a
  // test may still hold a pointer to one.
  static std::vector<std::unique_ptr<std::shared_mutex>> retired;
  if (std::shared_mutex* old = gPrefsFileLock.exchange(nullptr)) retired.emplace_back(old);
}

namespace {

// Lock sections that do nothing while the lock does not exist yet, so that
// requests served before the first idle pass still work.
class ReaderSection {
 public:
  ReaderSection() : lock_(gPrefsFileLock.load()) {
    if (lock_) lock_->lock_shared();
  }
  ~ReaderSection() {
    if (lock_) lock_->unlock_shared();
  }
  ReaderSection(const ReaderSection&) = delete;
  ReaderSection& operator=(const ReaderSection&) = delete;

 private:
  std::shared_mutex* lock_;
};

class WriterSection {
 public:
  WriterSection() : lock_(gPrefsFileLock.load()) {
    if (lock_) lock_->lock();
  }
  ~WriterSection() {
    if (lock_) lock_->unlock();
  }
  WriterSection(const WriterSection&) = delete;
  WriterSection& operator=(const WriterSection&) = delete;

 private:
  std::shared_mutex* lock_;
};

std::string settings_path() { return platform::resolve(kSettingsFilePath); }

// Reads and parses the file; nullopt when it is missing, unreadable or not a
// dictionary. REQUIRES: a lock section is held by the caller.
std::optional<plist::Dict> load_unlocked() {
  std::optional<std::string> text = platform::read_file(settings_path());
  if (!text) return std::nullopt;
  plist::Parsed parsed = plist::parse_xml(*text);
  if (!parsed.ok()) return std::nullopt;
  plist::Dict* root = parsed.value.as_dict();
  if (!root) return std::nullopt;
  return std::move(*root);
}

// A failed write is not reported: the atomic replacement leaves the
// previous file intact, which is all a caller could hope for.
void store_unlocked(const plist::Dict& settings) {
  platform::write_file_atomically(settings_path(), plist::write_xml(plist::Value(settings)), 0644);
}

}  // namespace

void write_settings_file(const plist::Dict& settings) {
  WriterSection section;
  store_unlocked(settings);
}

std::optional<plist::Dict> read_settings_file() {
  ReaderSection section;
  return load_unlocked();
}

std::optional<plist::Value> read_key_from_settings_file(const std::string& key) {
  std::optional<plist::Dict> settings;
  {
    ReaderSection section;
    settings = load_unlocked();
  }
  // The lookup happens on the private copy, after the lock is released.
  if (!settings) return std::nullopt;
  const plist::Value* value = settings->find(key);
  if (!value) return std::nullopt;
  return *value;
}

void overwrite_key_in_settings_file(const plist::Value& value, const std::string& key) {
  WriterSection section;
  plist::Dict settings = load_unlocked().value_or(plist::Dict());
  settings.set(key, value);
  store_unlocked(settings);
}

void update_keys_in_settings_file(const plist::Dict& changes) {
  WriterSection section;
  plist::Dict settings = load_unlocked().value_or(plist::Dict());
  settings.merge(changes);
  store_unlocked(settings);
}

void update_key_in_settings_file(const plist::Dict& changes, const std::string& key) {
  WriterSection section;
  plist::Dict settings = load_unlocked().value_or(plist::Dict());
  plist::Dict sub;
  if (const plist::Dict* stored = settings.find_dict(key)) sub = *stored;
  sub.merge(changes);
  settings.set(key, plist::Value(std::move(sub)));
  store_unlocked(settings);
}

}  // namespace hubwarden
