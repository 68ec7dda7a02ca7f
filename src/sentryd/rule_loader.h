// Reads the rule files of the monitor's rules folder into compiled rules.
// The form of a rule file is described at the top of rule_loader.cpp.
//
// Bad input is skipped as narrowly as possible, with one log line each: a
// file that cannot be used (not a regular file, a symlink leading out of
// the folder, over kMaxRuleFileBytes, not an array) is skipped whole; a bad
// entry inside a good file is skipped alone. Nothing here throws.
// Thread-compatible: no shared state.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include "sentryd/log.h"
#include "sentryd/rules.h"

namespace sentryd {

inline constexpr size_t kMaxRuleFileBytes = 1024 * 1024;

struct RuleSet {
  std::vector<Rule> rules;  // active rules only, in file then entry order
  size_t files_read = 0;
};

// Loads every "*.plist" file of folder, in name order. A missing or
// unreadable folder gives an empty set and a log line.
RuleSet load_rules(const std::string& folder, const LogFn& log);

// Compiles the rules of one file whose content is xml; file_name is used in
// log lines and rules. Returns the active rules; an unusable file gives none.
std::vector<Rule> compile_rule_file(std::string_view file_name, std::string_view xml, const LogFn& log);

}  // namespace sentryd
