// Reading the notification settings from the settings file, and writing
// them through to the event monitor's rules.
#include "notify/notification_settings.h"

#include <signal.h>
#include <stdio.h>

#include "notify/event_rules.h"
#include "platform/process_finder.h"
#include "platform/registry.h"
#include "platform/signals.h"
#include "settings/settings_file.h"

namespace hubwarden {
namespace {

Dict stored_notifications_settings() {
  std::optional<Value> stored = read_key_from_settings_file("NotificationsSettings");
  // A damaged entry reads as no settings rather than as something the
  // console cannot display.
  Dict* settings = stored ? stored->as_dict() : nullptr;
  return settings ? std::move(*settings) : Dict();
}

struct RuleFileRow {
  const char* member;
  const char* path;
  const char* contacts_variable;
  const char* threshold_variable;  // nullptr: the file has none
};

constexpr RuleFileRow kRuleFiles[] = {
    {"diskFull", "/etc/sentryd.d/rules/DiskStatus.plist", "global:DiskNotificationContacts",
     "global:DiskFreeThreshold1"},
    {"suAvailable", "/etc/sentryd.d/rules/SWUpdate.plist", "global:SWUpdateNotificationContacts", nullptr},
    {"certificateExpiration", "/etc/sentryd.d/rules/SentrydCertificateExpiring.plist",
     "global:CertificateExpirationNotificationContacts", nullptr},
};

// The recipients' addresses joined by ",", in order; entries without an
// address string add nothing.
std::string joined_contacts(const Dict& member) {
  std::string joined;
  const Array* who = member.find_array("who");
  if (!who) return joined;
  bool first = true;
  for (const Value& entry : *who) {
    const Dict* recipient = entry.as_dict();
    const std::string* email = recipient ? recipient->find_string("email") : nullptr;
    if (!email) continue;
    if (!first) joined += ',';
    joined += *email;
    first = false;
  }
  return joined;
}

RuleFileUpdate update_for(const RuleFileRow& row, const Dict& settings) {
  static const Dict kNone;
  const Dict* found = settings.find_dict(row.member);
  const Dict& member = found ? *found : kNone;

  RuleFileUpdate update;
  const Value* active = member.find_number("active");
  update.active = active && active->number_is_true();
  if (row.threshold_variable) {
    const Value* threshold = member.find_number("freeSpaceThreshold");
    float value = threshold ? static_cast<float>(*threshold->to_double()) : 0.0f;
    char text[64];
    snprintf(text, sizeof(text), "literal:%1.2f", static_cast<double>(value));
    update.assignments.emplace_back(row.threshold_variable, text);
  }
  update.assignments.emplace_back(row.contacts_variable, "literal:" + joined_contacts(member));
  return update;
}

// Ends the running event monitor, which its service manager starts again
// on the new rules. Only the program found under that exact name is
// signalled; when none runs, nothing is.
void restart_event_monitor() {
  auto* finder = platform::find<platform::ProcessFinder>();
  auto* signals = platform::find<platform::ProcessSignals>();
  if (!finder || !signals) return;
  std::optional<int> pid = finder->pid_by_name("sentryd");
  if (!pid || *pid <= 1) return;
  if (signals->send(*pid, SIGTERM) != 0) signals->send(*pid, SIGKILL);
}

}  // namespace

ErrorName read_notifications_settings(const Dict*, ReplySlot& reply, Dict*) {
  reply = Dict{{"notifications_settings", stored_notifications_settings()}, {"readStatus", Value(0)}};
  return nullptr;
}

ErrorName write_notifications_settings(const Dict* request, ReplySlot& reply, Dict*) {
  if (const Dict* given = request ? request->find_dict("notifications_settings") : nullptr)
    overwrite_key_in_settings_file(Value(*given), "NotificationsSettings");
  Dict settings = stored_notifications_settings();
  for (const RuleFileRow& row : kRuleFiles) update_rule_file(row.path, update_for(row, settings));
  restart_event_monitor();
  reply = Dict{{"notifications_settings", std::move(settings)}, {"writeStatus", Value(0)}};
  return nullptr;
}

}  // namespace hubwarden
