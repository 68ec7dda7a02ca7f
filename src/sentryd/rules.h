// The rules the monitor acts on, in the form the loader compiles them to.
// Globals are constants of a rule file, so the loader substitutes them
// while compiling: what remains to be looked up per event is only the
// event's own values. Plain data; safe to share read-only between threads.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace sentryd {

// One side of a comparison or one piece of a text: either fixed text
// (a literal, or a global already substituted) or an event value by key.
struct Operand {
  enum class Kind { Literal, Event };
  Kind kind = Kind::Literal;
  std::string text;  // the literal text, or the event key
};

// A text assembled from pieces, e.g. "Volume " + event:volumeName + " is low".
struct Template {
  std::vector<Operand> parts;
};

enum class Comparison { Equal, NotEqual, Less, LessEqual, Greater, GreaterEqual };

struct Criterion {
  Operand left;
  Comparison op = Comparison::Equal;
  Operand right;
};

struct MailAction {
  Operand to;  // a comma-separated list of addresses once resolved
  Template subject;
  Template body;
};

struct Rule {
  std::string file;  // the rule file's name, for log lines
  std::string name;  // "rule_name"
  std::string event_type;
  std::vector<Criterion> criteria;      // all must hold
  std::optional<Operand> throttle_key;  // one throttle per distinct value
  int64_t throttle_seconds = 0;         // 0: never throttled
  std::vector<MailAction> actions;
};

}  // namespace sentryd
