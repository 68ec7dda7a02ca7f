// Who may send what, decided at the daemon's entrances before a module sees
// a request. The module works out tiers for its own replies but refuses
// nothing, so the daemon must: root and administrators may send every
// command, monitors only the commands that read, everyone else nothing.
// Besides, no caller may use the access-list keys of "writeSettings" to
// write a group outside the three access-list families of the known
// services, and never the "admin" group itself, whose members administer
// the whole machine.
//
// Thread-safety: every function may be called from any thread; the group
// lists behind refusal_for are built once by the module.
#pragma once

#include <functional>
#include <optional>
#include <set>
#include <string>
#include <string_view>

#include "plist/value.h"

namespace hubwardend::serve {

enum class Tier {
  kNone,     // may send nothing
  kMonitor,  // may send the reading commands
  kAdmin,    // may send every command
};

// Answers whether user is a member of group.
using MembershipTest = std::function<bool(const std::string& user, const std::string& group)>;

// The tier of user: kAdmin for root (is_root: uid 0 on the local socket) and
// for members of "admin" or "com.marlo.admin_info", else kMonitor for
// members of "com.marlo.monitor_info", else kNone. An empty user name is
// kNone unless is_root. Membership comes from the platform's directory, or
// from is_member when given.
Tier tier_for(const std::string& user, bool is_root);
Tier tier_for(const std::string& user, bool is_root, const MembershipTest& is_member);

// Whether a monitor may send command: the commands that only read state.
bool is_reading_command(std::string_view command);

// The groups each access-list key may name.
struct AccessListGroups {
  std::set<std::string, std::less<>> access;   // for "accessControlLists"
  std::set<std::string, std::less<>> admin;    // for "adminControlLists"
  std::set<std::string, std::less<>> monitor;  // for "monitorControlLists"
};

// The module's own lists: "com.marlo.access_", "com.marlo.admin_" and
// "com.marlo.monitor_" followed by each service it knows, and by
// "all_services". REQUIRES: the platform root is installed (the lists are
// read from the module's resources under it once per process).
AccessListGroups known_access_list_groups();

// Why request may not be served for a caller of tier (the text of a 403
// reply and of its log line), or nullopt when it may. Refused: anything from
// kNone; from kMonitor, a request whose "command" is not a reading command
// (a missing or non-text command included); from any tier, a
// "writeSettings" whose access-list keys hold a record naming, by
// "dsAttrTypeStandard:RecordName" or "_id_", a group that is not in the
// key's family of groups, or "admin". Records the module would skip (not a
// dictionary, naming no group) are let through. The first overload uses
// known_access_list_groups().
std::optional<std::string> refusal_for(const plist::Dict& request, Tier tier);
std::optional<std::string> refusal_for(const plist::Dict& request, Tier tier, const AccessListGroups& groups);

}  // namespace hubwardend::serve
