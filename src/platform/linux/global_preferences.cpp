// The system-wide preferences as one property-list file under the root.
#include "platform/linux/global_preferences.h"

#include <stdio.h>

#include <map>
#include <mutex>
#include <utility>

#include "platform/file_util.h"
#include "platform/log.h"
#include "platform/paths.h"
#include "platform/root_fs.h"
#include "platform/unique_fd.h"
#include "plist/codec.h"

namespace platform {

namespace {

enum class Loaded { kMissing, kDamaged, kRead };

// The file's dictionary into *dict. A file that is there but cannot be read
// (permissions, I/O) counts as damaged too: writing over it would lose
// whatever it holds.
Loaded load(const std::string& path, plist::Dict* dict) {
  ReadError error = ReadError::kNone;
  std::optional<std::string> text = read_file(path, kDefaultReadLimit, &error);
  if (error == ReadError::kNotFound) return Loaded::kMissing;
  if (!text) return Loaded::kDamaged;
  plist::Parsed parsed = plist::parse_xml(*text);
  const plist::Dict* root = parsed.ok() ? parsed.value.as_dict() : nullptr;
  if (root == nullptr) return Loaded::kDamaged;
  *dict = *root;
  return Loaded::kRead;
}

bool set_aside(const std::string& path) {
  std::string leaf;
  UniqueFd dir(open_parent_confined(path, false, &leaf));
  return dir.valid() && ::renameat(dir.get(), leaf.c_str(), dir.get(), (leaf + ".damaged").c_str()) == 0;
}

class GlobalPreferences : public Preferences {
 public:
  std::optional<plist::Value> get(const std::string& key) override {
    std::lock_guard<std::mutex> lock(mutex_);
    if (auto it = pending_.find(key); it != pending_.end()) return it->second;
    plist::Dict stored;
    if (load(resolve(kGlobalPreferencesPath), &stored) != Loaded::kRead) return std::nullopt;
    if (const plist::Value* value = stored.find(key)) return *value;
    return std::nullopt;
  }

  void set(const std::string& key, std::optional<plist::Value> value) override {
    std::lock_guard<std::mutex> lock(mutex_);
    pending_[key] = std::move(value);
  }

  bool flush() override {
    std::lock_guard<std::mutex> lock(mutex_);
    if (pending_.empty()) return true;
    const std::string path = resolve(kGlobalPreferencesPath);
    plist::Dict stored;
    if (load(path, &stored) == Loaded::kDamaged) {
      if (!set_aside(path)) {
        log_error("hubwardend: cannot read " + path + " nor set it aside; preferences not written");
        return false;
      }
      log_error("hubwardend: " + path + " was not a readable property list; kept as " + path + ".damaged");
    }
    for (const auto& [key, value] : pending_) {
      if (value) {
        stored.set(key, *value);
      } else {
        stored.remove(key);
      }
    }
    if (!write_file_atomically(path, plist::write_xml(plist::Value(std::move(stored))))) {
      log_error("hubwardend: cannot write " + path);
      return false;
    }
    pending_.clear();
    return true;
  }

 private:
  std::mutex mutex_;
  std::map<std::string, std::optional<plist::Value>> pending_;  // guarded by mutex_
};

}  // namespace

std::unique_ptr<Preferences> make_global_preferences() { return std::make_unique<GlobalPreferences>(); }

}  // namespace platform
