// Editing the event monitor's rule files in place.
#include "notify/event_rules.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

#include "platform/file_util.h"
#include "platform/paths.h"
#include "platform/root_fs.h"
#include "platform/unique_fd.h"
#include "plist/codec.h"

namespace hubwarden {
namespace {

using plist::Array;
using plist::Dict;
using plist::Value;

bool directly_inside_rules_folder(const std::filesystem::path& module_path) {
  return module_path.is_absolute() && module_path.parent_path() == kEventRulesFolder && module_path.has_filename() &&
         module_path.filename() != "." && module_path.filename() != "..";
}

// Where a rule file's contents live, as a module path: path itself, or the
// file its link names when that file sits directly in the rules folder.
// nullopt when the link leads elsewhere or cannot be read.
std::optional<std::string> rule_file_target(const std::string& path, bool* missing) {
  std::string resolved = platform::resolve(path);
  std::string leaf;
  platform::UniqueFd folder(platform::open_parent_confined(resolved, false, &leaf));
  if (!folder.valid()) {
    *missing = errno == ENOENT || errno == ENOTDIR;
    return std::nullopt;
  }
  struct stat st;
  if (::fstatat(folder.get(), leaf.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0) {
    *missing = errno == ENOENT;
    return std::nullopt;
  }
  if (!S_ISLNK(st.st_mode)) return path;

  char text[4096];
  ssize_t n = ::readlinkat(folder.get(), leaf.c_str(), text, sizeof(text));
  if (n <= 0 || static_cast<size_t>(n) >= sizeof(text)) return std::nullopt;
  std::filesystem::path target(std::string(text, static_cast<size_t>(n)));
  if (target.is_relative()) target = std::filesystem::path(path).parent_path() / target;
  target = target.lexically_normal();
  if (!directly_inside_rules_folder(target)) return std::nullopt;
  return target.string();
}

}  // namespace

void apply_rule_update(Array& rules, const RuleFileUpdate& update) {
  for (Value& entry : rules) {
    Dict* rule = entry.as_dict();
    if (!rule) continue;
    rule->set("Active", update.active ? "1" : "0");
    const std::string* name = rule->find_string("rule_name");
    if (!name || *name != "Initialize") continue;
    Value* actions = rule->find("Actions");
    if (!actions || !actions->as_array()) continue;
    for (Value& action_value : *actions->as_array()) {
      Dict* action = action_value.as_dict();
      if (!action) continue;
      const std::string* lvalue = action->find_string("lvalue");
      if (!lvalue) continue;
      for (const auto& [variable, rvalue] : update.assignments)
        if (*lvalue == variable) action->set("rvalue", rvalue);
    }
  }
}

RuleFileResult update_rule_file(const std::string& path, const RuleFileUpdate& update) {
  bool missing = false;
  std::optional<std::string> target = rule_file_target(path, &missing);
  if (!target) return missing ? RuleFileResult::kMissing : RuleFileResult::kRefused;
  std::string resolved = platform::resolve(*target);

  // O_NOFOLLOW: a link is followed once, above, and never into another link.
  platform::UniqueFd fd(platform::open_confined(resolved, O_RDONLY | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC));
  if (!fd.valid()) return errno == ENOENT ? RuleFileResult::kMissing : RuleFileResult::kRefused;
  struct stat st;
  if (::fstat(fd.get(), &st) != 0 || !S_ISREG(st.st_mode)) return RuleFileResult::kRefused;
  if (static_cast<uint64_t>(st.st_size) > kMaxRuleFileBytes) return RuleFileResult::kTooLarge;

  std::string text;
  text.resize(static_cast<size_t>(st.st_size) + 1);
  size_t got = 0;
  while (got < text.size()) {
    ssize_t n = ::read(fd.get(), text.data() + got, text.size() - got);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) return RuleFileResult::kRefused;
    if (n == 0) break;
    got += static_cast<size_t>(n);
  }
  if (got > kMaxRuleFileBytes) return RuleFileResult::kTooLarge;  // grew while being read
  text.resize(got);

  plist::Parsed parsed = plist::parse_xml(text);
  if (!parsed.ok() || !parsed.value.as_array()) return RuleFileResult::kUnparsable;
  apply_rule_update(*parsed.value.as_array(), update);

  unsigned mode = st.st_mode & 07777;
  if (!platform::write_file_atomically(resolved, plist::write_xml(parsed.value), mode))
    return RuleFileResult::kWriteFailed;
  // The new file was created under the process umask; give it back the
  // administrator's permission bits.
  platform::UniqueFd written(platform::open_confined(resolved, O_RDONLY | O_NOFOLLOW | O_CLOEXEC));
  struct stat now;
  if (written.valid() && ::fstat(written.get(), &now) == 0 && (now.st_mode & 07777) != mode)
    ::fchmod(written.get(), mode);
  return RuleFileResult::kWritten;
}

}  // namespace hubwarden
