// System-wide preferences for tests: an in-memory store whose flushes are
// counted and can be made to fail. Safe from any thread.
#pragma once

#include <map>
#include <mutex>
#include <optional>
#include <string>

#include "platform/preferences.h"

namespace platform {

class FakePreferences : public Preferences {
 public:
  std::optional<plist::Value> get(const std::string& key) override;
  void set(const std::string& key, std::optional<plist::Value> value) override;
  bool flush() override;

  // What the store holds (flushed values only).
  std::optional<plist::Value> stored(const std::string& key) const;
  // Puts value straight into the store, as another program would.
  void store(const std::string& key, plist::Value value);
  // Makes every later flush fail (or succeed again).
  void fail_flush(bool fail);
  int flushes() const;

 private:
  mutable std::mutex mutex_;
  std::map<std::string, plist::Value> stored_;
  std::map<std::string, std::optional<plist::Value>> pending_;
  bool fail_flush_ = false;
  int flushes_ = 0;
};

}  // namespace platform
