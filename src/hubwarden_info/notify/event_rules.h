// The event monitor's rule files as the notification settings change them:
// each rule switched on or off, and the "Initialize" rule's assignments of
// a file's variables (threshold, contacts) given new values. Everything
// else in a rule file belongs to the event monitor and is kept as it was.
//
// Rule files are an administrator's: the module edits them in place but
// never creates one, never follows a link out of the rules folder, and
// leaves a file it cannot read as a rule list exactly as it found it.
// Safe from any thread; concurrent edits of one file are not coordinated
// (the caller holds the module context, which serialises them).
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "plist/value.h"

namespace hubwarden {

inline constexpr const char* kEventRulesFolder = "/etc/sentryd.d/rules";

// What one rule file receives.
struct RuleFileUpdate {
  bool active = false;
  // "lvalue" -> new "rvalue" for the "Initialize" rule's actions.
  std::vector<std::pair<std::string, std::string>> assignments;
};

// Sets every rule's "Active" to "1" or "0" and, in the rule named
// "Initialize", the "rvalue" of each action whose "lvalue" is assigned.
// Entries that are not dictionaries, and "Actions" that are not arrays, are
// passed over untouched.
void apply_rule_update(plist::Array& rules, const RuleFileUpdate& update);

enum class RuleFileResult {
  kWritten,      // the file was replaced with the updated rules
  kMissing,      // no such file: nothing is created
  kRefused,      // a link leading out of the rules folder, or not a regular file
  kTooLarge,     // over kMaxRuleFileBytes
  kUnparsable,   // not an XML property list holding an array
  kWriteFailed,  // the old file is intact
};

// A rule file is an administrator's short list of rules; anything this
// large is not one, and is left alone rather than loaded.
inline constexpr size_t kMaxRuleFileBytes = 1 << 20;

// Applies update to the rule file at path, a module path directly inside
// kEventRulesFolder (resolved under the root). The file is replaced
// atomically and keeps its permission bits. A link is followed only when
// it names another file directly inside the folder (relative, or absolute
// as a module path) and that file is no link itself. Only XML rule files
// are edited; a rule file in another property-list form reads as
// unparsable and is left as it is, so its format never changes behind the
// administrator's back.
RuleFileResult update_rule_file(const std::string& path, const RuleFileUpdate& update);

}  // namespace hubwarden
