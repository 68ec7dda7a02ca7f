// Decides which mails an event calls for: the active rules for its
// "event_type" whose criteria all hold, less those the throttle holds back
// and those without a single usable recipient.
//
// Event values are untrusted; they reach the mail only through the
// composer (mail_message.h), which keeps them out of header structure.
// Thread-compatible: evaluate() is const, the throttle is the caller's.
#pragma once

#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "plist/value.h"
#include "sentryd/rules.h"
#include "sentryd/throttle.h"

namespace sentryd {

struct MailRequest {
  std::string rule;  // "file/rule_name", for log lines
  std::vector<std::string> to;
  std::string subject;
  std::string body;
};

// Compares two texts as numbers when both parse whole as finite decimal
// numbers (surrounding blanks allowed), else as byte strings.
bool compare_values(std::string_view left, Comparison op, std::string_view right);

class Evaluator {
 public:
  explicit Evaluator(std::vector<Rule> rules);

  // Appends to *out the mails event calls for at now, admitting each
  // throttled rule through throttle. An event without a string
  // "event_type" calls for nothing.
  void evaluate(const plist::Dict& event, Throttle& throttle, Throttle::Clock::time_point now,
                std::vector<MailRequest>* out) const;

  size_t rule_count() const { return rules_.size(); }

 private:
  std::vector<Rule> rules_;
  std::unordered_map<std::string, std::vector<size_t>> by_type_;
};

}  // namespace sentryd
