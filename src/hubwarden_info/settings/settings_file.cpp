// The settings file store: whole-file reads and atomic whole-file writes of
// the module's settings property list, under gPrefsFileLock and the
// cross-process lock file.
#include "settings/settings_file.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <unistd.h>

#include <cstring>
#include <ctime>
#include <memory>
#include <mutex>
#include <vector>

#include "platform/file_lock.h"
#include "platform/file_util.h"
#include "platform/log.h"
#include "platform/paths.h"
#include "platform/root_fs.h"
#include "platform/unique_fd.h"
#include "plist/codec.h"

namespace hubwarden {

// Made when the module is loaded: requests served before the first idle
// pass write the file too, and must not do so unguarded.
std::atomic<std::shared_mutex*> gPrefsFileLock{new std::shared_mutex};

void create_settings_lock() {
  // Requests on several threads may race to make it (after a test reset);
  // the compare-exchange leaves exactly one.
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

std::shared_mutex* settings_lock() {
  create_settings_lock();
  return gPrefsFileLock.load();
}

class ReaderSection {
 public:
  ReaderSection() : lock_(settings_lock()) { lock_->lock_shared(); }
  ~ReaderSection() { lock_->unlock_shared(); }
  ReaderSection(const ReaderSection&) = delete;
  ReaderSection& operator=(const ReaderSection&) = delete;

 private:
  std::shared_mutex* lock_;
};

class WriterSection {
 public:
  WriterSection() : lock_(settings_lock()) { lock_->lock(); }
  ~WriterSection() { lock_->unlock(); }
  WriterSection(const WriterSection&) = delete;
  WriterSection& operator=(const WriterSection&) = delete;

 private:
  std::shared_mutex* lock_;
};

std::string settings_path() { return platform::resolve(kSettingsFilePath); }

std::atomic<std::chrono::milliseconds::rep> gLockTimeoutMs{platform::FileLock::kDefaultTimeout.count()};

std::optional<platform::FileLock> lock_file(platform::FileLock::Mode mode) {
  return platform::FileLock::acquire(platform::resolve(kSettingsLockPath), mode,
                                     std::chrono::milliseconds(gLockTimeoutMs.load()));
}

// A reader goes ahead even without the lock: the file is only ever
// replaced whole, so an unlocked read still sees one complete version.
// Most often the folder does not exist yet and there is nothing to read.
std::optional<platform::FileLock> lock_for_reading() { return lock_file(platform::FileLock::Mode::Shared); }

// A writer without the lock could lose another process's update, so it
// writes nothing.
std::optional<platform::FileLock> lock_for_writing() {
  std::string lock_path = platform::resolve(kSettingsLockPath);
  platform::make_directories(lock_path.substr(0, lock_path.find_last_of('/')));
  return lock_file(platform::FileLock::Mode::Exclusive);
}

enum class Stored { Missing, Damaged, Ok };

struct Loaded {
  Stored state = Stored::Missing;
  plist::Dict settings;  // when Ok
  std::string problem;   // when Damaged
};

// Reads and parses the file. REQUIRES: a lock section is held by the caller.
Loaded load_unlocked() {
  Loaded loaded;
  platform::ReadError error = platform::ReadError::kNone;
  std::optional<std::string> text = platform::read_file(settings_path(), platform::kDefaultReadLimit, &error);
  if (!text) {
    if (error == platform::ReadError::kNotFound) return loaded;
    loaded.state = Stored::Damaged;
    loaded.problem = error == platform::ReadError::kTooLarge     ? "too large to read"
                     : error == platform::ReadError::kNotRegular ? "not a regular file"
                                                                 : "cannot be read";
    return loaded;
  }
  plist::Parsed parsed = plist::parse_xml(*text);
  plist::Dict* root = parsed.ok() ? parsed.value.as_dict() : nullptr;
  if (!root) {
    // An empty file holds nothing worth keeping.
    loaded.state = text->empty() ? Stored::Missing : Stored::Damaged;
    loaded.problem = parsed.ok() ? "the property list is not a dictionary" : parsed.error;
    return loaded;
  }
  loaded.state = Stored::Ok;
  loaded.settings = std::move(*root);
  return loaded;
}

// Moves a damaged file out of the way under a name no earlier set-aside
// has, so that starting from empty settings loses nothing. False when it
// stays where it is; the caller must then not replace it.
bool set_aside_unlocked(const std::string& problem) {
  std::string path = settings_path();
  std::string leaf;
  platform::UniqueFd dir(platform::open_parent_confined(path, false, &leaf));
  std::string stem = leaf + ".corrupt-" + std::to_string(::time(nullptr)) + "-";
  for (int n = 0; dir.get() >= 0 && n < 1000; ++n) {
    std::string aside = stem + std::to_string(n);
    int rc = ::renameat2(dir.get(), leaf.c_str(), dir.get(), aside.c_str(), RENAME_NOREPLACE);
    if (rc != 0 && errno == EINVAL) {
      // A file system without no-replace renames: a hard link refuses an
      // existing name just the same.
      rc = ::linkat(dir.get(), leaf.c_str(), dir.get(), aside.c_str(), 0);
      if (rc == 0) ::unlinkat(dir.get(), leaf.c_str(), 0);
    }
    if (rc == 0) {
      platform::log_error("hubwarden_info: the settings file " + path + " does not parse (" + problem +
                          "); moved aside to " + aside);
      return true;
    }
    if (errno != EEXIST) break;
  }
  platform::log_error("hubwarden_info: the settings file " + path + " does not parse (" + problem +
                      ") and cannot be moved aside (" + std::strerror(errno) + "); settings not written");
  return false;
}

// A failed write is neither reported nor logged: the atomic replacement
// leaves the previous file intact, which is all a caller could hope for.
void store_unlocked(const plist::Dict& settings) {
  std::string text = plist::write_xml(plist::Value(settings));
  if (text.size() > kMaxSettingsFileBytes) return;
  platform::write_file_atomically(settings_path(), text, 0644);
}

// The writers' common shape: one read-modify-write inside both locks.
// A damaged file is set aside first and then counts as empty.
template <typename Change>
void rewrite(Change change) {
  WriterSection section;
  std::optional<platform::FileLock> lock = lock_for_writing();
  if (!lock) return;
  Loaded loaded = load_unlocked();
  if (loaded.state == Stored::Damaged && !set_aside_unlocked(loaded.problem)) return;
  change(loaded.settings);
  store_unlocked(loaded.settings);
}

std::optional<plist::Dict> read_locked() {
  ReaderSection section;
  std::optional<platform::FileLock> lock = lock_for_reading();
  Loaded loaded = load_unlocked();
  if (loaded.state != Stored::Ok) return std::nullopt;
  return std::move(loaded.settings);
}

}  // namespace

void set_settings_lock_timeout_for_testing(std::chrono::milliseconds timeout) { gLockTimeoutMs = timeout.count(); }

void write_settings_file(const plist::Dict& settings) {
  rewrite([&](plist::Dict& stored) { stored = settings; });
}

std::optional<plist::Dict> read_settings_file() { return read_locked(); }

std::optional<plist::Value> read_key_from_settings_file(const std::string& key) {
  // The lookup happens on the private copy, after the locks are released.
  std::optional<plist::Dict> settings = read_locked();
  if (!settings) return std::nullopt;
  const plist::Value* value = settings->find(key);
  if (!value) return std::nullopt;
  return *value;
}

void overwrite_key_in_settings_file(const plist::Value& value, const std::string& key) {
  rewrite([&](plist::Dict& settings) { settings.set(key, value); });
}

void update_keys_in_settings_file(const plist::Dict& changes) {
  rewrite([&](plist::Dict& settings) { settings.merge(changes); });
}

void update_key_in_settings_file(const plist::Dict& changes, const std::string& key) {
  rewrite([&](plist::Dict& settings) {
    plist::Dict sub;
    if (const plist::Dict* stored = settings.find_dict(key)) sub = *stored;
    sub.merge(changes);
    settings.set(key, plist::Value(std::move(sub)));
  });
}

}  // namespace hubwarden
