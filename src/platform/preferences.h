// The system-wide preferences store: values that hold for any user and any
// application on this host, such as the city the time zone was chosen by.
// Keys name property-list values.
//
// Changes are seen by get() at once and reach the store, for other readers
// and later runs, at flush(). Safe from any thread; a flush writes the
// changes of every thread made so far.
#pragma once

#include <optional>
#include <string>

#include "plist/value.h"

namespace platform {

class Preferences {
 public:
  Preferences() = default;
  Preferences(const Preferences&) = delete;
  Preferences& operator=(const Preferences&) = delete;
  virtual ~Preferences() = default;

  // The value under key: a change not yet flushed, else what the store
  // holds. nullopt when there is none, or the store cannot be read.
  virtual std::optional<plist::Value> get(const std::string& key) = 0;

  // Sets key to value, or removes it (nullopt), for the next flush.
  virtual void set(const std::string& key, std::optional<plist::Value> value) = 0;

  // Writes every change made since the last successful flush, merged into
  // what the store holds now (another program's changes to other keys are
  // kept). Returns true when the store holds them (also when there was
  // nothing to write); false, with the changes kept for the next flush and
  // the store as it was, when it could not be written.
  virtual bool flush() = 0;
};

}  // namespace platform
