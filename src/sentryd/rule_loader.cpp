// Rule files: what the monitor reads and how it compiles them.
//
// A rule file is an XML property list whose top level is an array of rule
// dictionaries. Every member value is a string:
//
//   {"rule_name": "Initialize", "Active": "1",
//    "Actions": [{"lvalue": "global:DiskFreeThreshold1", "rvalue": "literal:10.00"}, ...]}
//
//   {"rule_name": "DiskLow", "Active": "1",
//    "event_type": "com.marlo.hubwarden_info.diskstate",
//    "Criteria": [{"lvalue": "event:freePercent", "op": "<", "rvalue": "global:DiskFreeThreshold1"}],
//    "ThrottleKey": "event:volumeName", "ThrottleSeconds": "86400",
//    "Actions": [{"action": "mail", "to": "global:DiskNotificationContacts",
//                 "subject": "Disk ${event:volumeName} is low", "body": "..."}]}
//
// Operands ("lvalue", "rvalue", "to", "ThrottleKey") are "event:KEY" (the
// event's value at KEY), "global:NAME" (a variable of this file) or
// "literal:TEXT". Subjects and bodies are texts with ${event:KEY} and
// ${global:NAME} placeholders. "op" is one of == != < <= > >=; both sides
// compare as numbers when both parse as numbers, else as byte strings. A
// criterion on an event key the event lacks does not hold.
//
// "Initialize" rules hold assignments, made once at load, before the file's
// other rules are compiled and whatever their "Active": they are the file's
// constants, and the administrator's settings switch "Active" on and off in
// every rule of the file at once. Globals are scoped to their file, not
// shared across files: the files are rewritten one by one and each names
// its own variables, and a scope per file means that a file dropped in
// later cannot redirect another file's contacts, and the outcome never
// depends on the order the files are read in.
//
// Any other rule applies only when its "Active" is the string "1".
#include "sentryd/rule_loader.h"

#include <dirent.h>
#include <fcntl.h>
#include <limits.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <map>

#include "plist/codec.h"
#include "plist/value.h"
#include "sentryd/mail_message.h"

namespace sentryd {
namespace {

using Globals = std::map<std::string, std::string, std::less<>>;

bool starts_with(std::string_view s, std::string_view prefix) { return s.substr(0, prefix.size()) == prefix; }

// Parses an operand; on failure returns nullopt and sets why.
std::optional<Operand> compile_operand(std::string_view text, const Globals& globals, std::string* why) {
  if (starts_with(text, "event:")) {
    if (text.size() == 6) {
      *why = "empty event key";
      return std::nullopt;
    }
    return Operand{Operand::Kind::Event, std::string(text.substr(6))};
  }
  if (starts_with(text, "literal:")) return Operand{Operand::Kind::Literal, std::string(text.substr(8))};
  if (starts_with(text, "global:")) {
    auto it = globals.find(text.substr(7));
    if (it == globals.end()) {
      *why = "undefined variable " + std::string(text);
      return std::nullopt;
    }
    return Operand{Operand::Kind::Literal, it->second};
  }
  *why = "operand \"" + std::string(text) + "\" is not event:, global: or literal:";
  return std::nullopt;
}

// Splits text at ${...} placeholders. Text that only looks like a
// placeholder (no closing brace) stays as it is.
std::optional<Template> compile_template(std::string_view text, const Globals& globals, std::string* why) {
  Template out;
  std::string literal;
  size_t i = 0;
  while (i < text.size()) {
    size_t open = text.find("${", i);
    size_t close = open == std::string_view::npos ? open : text.find('}', open + 2);
    if (close == std::string_view::npos) {
      literal.append(text.substr(i));
      break;
    }
    literal.append(text.substr(i, open - i));
    auto operand = compile_operand(text.substr(open + 2, close - open - 2), globals, why);
    if (!operand) return std::nullopt;
    if (operand->kind == Operand::Kind::Literal) {
      literal += operand->text;
    } else {
      if (!literal.empty()) out.parts.push_back({Operand::Kind::Literal, std::move(literal)});
      literal.clear();
      out.parts.push_back(std::move(*operand));
    }
    i = close + 1;
  }
  if (!literal.empty()) out.parts.push_back({Operand::Kind::Literal, std::move(literal)});
  return out;
}

std::optional<Comparison> parse_comparison(std::string_view op) {
  if (op == "==") return Comparison::Equal;
  if (op == "!=") return Comparison::NotEqual;
  if (op == "<") return Comparison::Less;
  if (op == "<=") return Comparison::LessEqual;
  if (op == ">") return Comparison::Greater;
  if (op == ">=") return Comparison::GreaterEqual;
  return std::nullopt;
}

// Makes the assignments of one "Initialize" rule into globals.
void run_initialize(const plist::Dict& rule, Globals* globals, const std::string& where, const LogFn& log) {
  const plist::Array* actions = rule.find_array("Actions");
  if (!actions) return;
  for (size_t i = 0; i < actions->size(); ++i) {
    const plist::Dict* action = (*actions)[i].as_dict();
    const std::string* lvalue = action ? action->find_string("lvalue") : nullptr;
    const std::string* rvalue = action ? action->find_string("rvalue") : nullptr;
    std::string why = "not an assignment of a global: to a string";
    if (lvalue && rvalue && starts_with(*lvalue, "global:") && lvalue->size() > 7) {
      std::optional<Operand> value = compile_operand(*rvalue, *globals, &why);
      if (value && value->kind == Operand::Kind::Literal) {
        (*globals)[lvalue->substr(7)] = value->text;
        continue;
      }
      if (value) why = "an event value cannot initialise a variable";
    }
    log(where + ": skipped assignment " + std::to_string(i) + ": " + why);
  }
}

// why receives the reason a rule is refused; warnings what is wrong in a
// rule that is kept all the same.
std::optional<Rule> compile_rule(const plist::Dict& entry, std::string_view file, const Globals& globals,
                                 std::string* why, std::string* warnings) {
  Rule rule;
  rule.file = std::string(file);
  const std::string* name = entry.find_string("rule_name");
  rule.name = name ? *name : "";
  const std::string* event_type = entry.find_string("event_type");
  if (!event_type || event_type->empty()) {
    *why = "no \"event_type\"";
    return std::nullopt;
  }
  rule.event_type = *event_type;
  if (const plist::Value* criteria = entry.find("Criteria")) {
    const plist::Array* list = criteria->as_array();
    if (!list) {
      *why = "\"Criteria\" is not an array";
      return std::nullopt;
    }
    for (const plist::Value& item : *list) {
      const plist::Dict* c = item.as_dict();
      const std::string* l = c ? c->find_string("lvalue") : nullptr;
      const std::string* op = c ? c->find_string("op") : nullptr;
      const std::string* r = c ? c->find_string("rvalue") : nullptr;
      if (!l || !op || !r) {
        *why = "a criterion lacks \"lvalue\", \"op\" or \"rvalue\"";
        return std::nullopt;
      }
      auto comparison = parse_comparison(*op);
      if (!comparison) {
        *why = "unknown operator \"" + *op + "\"";
        return std::nullopt;
      }
      auto left = compile_operand(*l, globals, why);
      auto right = left ? compile_operand(*r, globals, why) : std::nullopt;
      if (!right) return std::nullopt;
      rule.criteria.push_back({std::move(*left), *comparison, std::move(*right)});
    }
  }
  if (const std::string* key = entry.find_string("ThrottleKey")) {
    rule.throttle_key = compile_operand(*key, globals, why);
    if (!rule.throttle_key) return std::nullopt;
  }
  if (const std::string* seconds = entry.find_string("ThrottleSeconds")) {
    const char* end = seconds->data() + seconds->size();
    auto [ptr, ec] = std::from_chars(seconds->data(), end, rule.throttle_seconds);
    if (ec != std::errc() || ptr != end || rule.throttle_seconds < 0) {
      *why = "\"ThrottleSeconds\" is not a whole number of seconds";
      return std::nullopt;
    }
  }
  const plist::Array* actions = entry.find_array("Actions");
  for (size_t i = 0; actions && i < actions->size(); ++i) {
    const plist::Dict* a = (*actions)[i].as_dict();
    const std::string* kind = a ? a->find_string("action") : nullptr;
    const std::string* to = a ? a->find_string("to") : nullptr;
    const std::string* subject = a ? a->find_string("subject") : nullptr;
    const std::string* body = a ? a->find_string("body") : nullptr;
    if (!kind || *kind != "mail" || !to || !subject) {
      *why = "action " + std::to_string(i) + " is not a mail with \"to\" and \"subject\"";
      return std::nullopt;
    }
    MailAction mail;
    auto recipients = compile_operand(*to, globals, why);
    auto subject_text = recipients ? compile_template(*subject, globals, why) : std::nullopt;
    auto body_text = subject_text ? compile_template(body ? *body : "", globals, why) : std::nullopt;
    if (!body_text) return std::nullopt;
    if (recipients->kind == Operand::Kind::Literal) {
      std::vector<std::string> rejected;
      parse_recipients(recipients->text, &rejected);
      for (const std::string& bad : rejected) *warnings += " unusable address \"" + bad + "\";";
    }
    rule.actions.push_back({std::move(*recipients), std::move(*subject_text), std::move(*body_text)});
  }
  if (rule.actions.empty()) {
    *why = "no mail action";
    return std::nullopt;
  }
  return rule;
}

// Reads path into *content when it is a regular file of at most
// kMaxRuleFileBytes; else says why not.
bool read_rule_file(const std::string& path, std::string* content, std::string* why) {
  int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY);
  if (fd < 0) {
    *why = "cannot be opened";
    return false;
  }
  struct stat st;
  bool ok = ::fstat(fd, &st) == 0 && S_ISREG(st.st_mode);
  if (!ok) *why = "not a regular file";
  if (ok && static_cast<uint64_t>(st.st_size) > kMaxRuleFileBytes) {
    ok = false;
    *why = "larger than 1 MB";
  }
  if (ok) {
    content->resize(kMaxRuleFileBytes + 1);
    size_t got = 0;
    while (got < content->size()) {
      ssize_t n = ::read(fd, content->data() + got, content->size() - got);
      if (n < 0 && errno == EINTR) continue;
      if (n <= 0) {
        ok = n == 0;
        break;
      }
      got += static_cast<size_t>(n);
    }
    content->resize(got);
    if (!ok) *why = "cannot be read";
    if (ok && got > kMaxRuleFileBytes) {
      ok = false;
      *why = "larger than 1 MB";
    }
  }
  ::close(fd);
  return ok;
}

std::string real_path(const std::string& path) {
  char buffer[PATH_MAX];
  return ::realpath(path.c_str(), buffer) ? std::string(buffer) : std::string();
}

}  // namespace

std::vector<Rule> compile_rule_file(std::string_view file_name, std::string_view xml, const LogFn& log) {
  std::string where(file_name);
  plist::Parsed parsed = plist::parse_xml(xml);
  if (!parsed.ok()) {
    log("skipped " + where + ": not a property list (" + parsed.error + ")");
    return {};
  }
  const plist::Array* entries = parsed.value.as_array();
  if (!entries) {
    log("skipped " + where + ": not an array of rules");
    return {};
  }
  Globals globals;
  for (const plist::Value& item : *entries) {
    const plist::Dict* entry = item.as_dict();
    const std::string* name = entry ? entry->find_string("rule_name") : nullptr;
    if (name && *name == "Initialize") run_initialize(*entry, &globals, where, log);
  }
  std::vector<Rule> rules;
  for (size_t i = 0; i < entries->size(); ++i) {
    const plist::Dict* entry = (*entries)[i].as_dict();
    if (!entry) {
      log(where + ": skipped entry " + std::to_string(i) + ": not a dictionary");
      continue;
    }
    const std::string* name = entry->find_string("rule_name");
    if (name && *name == "Initialize") continue;
    const std::string* active = entry->find_string("Active");
    if (!active || *active != "1") continue;
    std::string why;
    std::string warnings;
    std::string label = name ? "\"" + *name + "\"" : std::to_string(i);
    std::optional<Rule> rule = compile_rule(*entry, file_name, globals, &why, &warnings);
    if (!warnings.empty()) log(where + ": rule " + label + ":" + warnings);
    if (!rule) {
      log(where + ": skipped rule " + label + ": " + why);
      continue;
    }
    rules.push_back(std::move(*rule));
  }
  return rules;
}

RuleSet load_rules(const std::string& folder, const LogFn& log) {
  RuleSet set;
  std::string real_folder = real_path(folder);
  DIR* dir = real_folder.empty() ? nullptr : ::opendir(real_folder.c_str());
  if (!dir) {
    log("no rules: cannot read the folder " + folder);
    return set;
  }
  std::vector<std::string> names;
  while (struct dirent* e = ::readdir(dir)) {
    std::string_view name = e->d_name;
    if (name.size() > 6 && name[0] != '.' && name.substr(name.size() - 6) == ".plist") names.emplace_back(name);
  }
  ::closedir(dir);
  std::sort(names.begin(), names.end());
  for (const std::string& name : names) {
    std::string path = real_folder + "/" + name;
    struct stat st;
    if (::lstat(path.c_str(), &st) != 0) continue;  // gone since the listing
    if (S_ISLNK(st.st_mode)) {
      std::string target = real_path(path);
      if (target.empty() || !starts_with(target, real_folder + "/")) {
        log("skipped " + name + ": a symlink leading out of the rules folder");
        continue;
      }
      path = target;
    }
    std::string content;
    std::string why;
    if (!read_rule_file(path, &content, &why)) {
      log("skipped " + name + ": " + why);
      continue;
    }
    ++set.files_read;
    std::vector<Rule> rules = compile_rule_file(name, content, log);
    for (Rule& rule : rules) set.rules.push_back(std::move(rule));
  }
  return set;
}

}  // namespace sentryd
