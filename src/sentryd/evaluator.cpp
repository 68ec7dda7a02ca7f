// Rule evaluation against one event.
#include "sentryd/evaluator.h"

#include <charconv>
#include <cmath>
#include <optional>

#include "sentryd/mail_message.h"

namespace sentryd {
namespace {

std::optional<double> as_number(std::string_view text) {
  while (!text.empty() && (text.front() == ' ' || text.front() == '\t')) text.remove_prefix(1);
  while (!text.empty() && (text.back() == ' ' || text.back() == '\t')) text.remove_suffix(1);
  if (text.empty()) return std::nullopt;
  double value = 0;
  auto [ptr, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (ec != std::errc() || ptr != text.data() + text.size() || !std::isfinite(value)) return std::nullopt;
  return value;
}

template <typename T>
bool apply(const T& a, Comparison op, const T& b) {
  switch (op) {
    case Comparison::Equal:
      return a == b;
    case Comparison::NotEqual:
      return a != b;
    case Comparison::Less:
      return a < b;
    case Comparison::LessEqual:
      return a <= b;
    case Comparison::Greater:
      return a > b;
    case Comparison::GreaterEqual:
      return a >= b;
  }
  return false;
}

// The operand's text, or nullptr when it names a key the event lacks.
const std::string* resolve(const Operand& operand, const plist::Dict& event) {
  if (operand.kind == Operand::Kind::Literal) return &operand.text;
  return event.find_string(operand.text);
}

// A missing event value reads as empty text inside a mail.
std::string expand(const Template& text, const plist::Dict& event) {
  std::string out;
  for (const Operand& part : text.parts) {
    if (const std::string* value = resolve(part, event)) out += *value;
  }
  return out;
}

}  // namespace

bool compare_values(std::string_view left, Comparison op, std::string_view right) {
  std::optional<double> l = as_number(left);
  std::optional<double> r = l ? as_number(right) : std::nullopt;
  if (l && r) return apply(*l, op, *r);
  return apply(left, op, right);
}

Evaluator::Evaluator(std::vector<Rule> rules) : rules_(std::move(rules)) {
  for (size_t i = 0; i < rules_.size(); ++i) by_type_[rules_[i].event_type].push_back(i);
}

void Evaluator::evaluate(const plist::Dict& event, Throttle& throttle, Throttle::Clock::time_point now,
                         std::vector<MailRequest>* out) const {
  const std::string* type = event.find_string("event_type");
  if (!type) return;
  auto found = by_type_.find(*type);
  if (found == by_type_.end()) return;
  for (size_t index : found->second) {
    const Rule& rule = rules_[index];
    bool holds = true;
    for (const Criterion& c : rule.criteria) {
      const std::string* l = resolve(c.left, event);
      const std::string* r = resolve(c.right, event);
      if (!l || !r || !compare_values(*l, c.op, *r)) {
        holds = false;
        break;
      }
    }
    if (!holds) continue;
    std::string id = rule.file + "/" + rule.name;
    std::vector<MailRequest> mails;
    for (const MailAction& action : rule.actions) {
      const std::string* list = resolve(action.to, event);
      // Unusable addresses were reported at load; dropped here quietly so a
      // typo costs one log line, not one per event.
      MailRequest mail{id, parse_recipients(list ? *list : "", nullptr), "", ""};
      if (mail.to.empty()) continue;
      mail.subject = expand(action.subject, event);
      mail.body = expand(action.body, event);
      mails.push_back(std::move(mail));
    }
    if (mails.empty()) continue;
    if (rule.throttle_seconds > 0) {
      const std::string* key = rule.throttle_key ? resolve(*rule.throttle_key, event) : nullptr;
      if (!throttle.admit(id, key ? *key : "", std::chrono::seconds(rule.throttle_seconds), now)) continue;
    }
    for (MailRequest& mail : mails) out->push_back(std::move(mail));
  }
}

}  // namespace sentryd
