// Tiers and the requests each may send.
#include "hubwardend/serve/authorization.h"

#include <array>

#include "access/acls.h"
#include "platform/host_services.h"
#include "platform/utf8.h"

namespace hubwardend::serve {

namespace {

// The commands that only read: a monitor may send these and nothing else.
// "getContext" is not among them: it hands out the module's whole context.
constexpr std::array<std::string_view, 12> kReadingCommands = {
    "getState",          "getHardwareInfo",   "getSystemLogPaths", "tailFile",
    "getHistory",        "getSWUpdateStatus", "listProcesses",     "readSettings",
    "readServiceConfig", "getServicesInfo",   "getSACLsForUser",   "getSACLsForUserWithAuthData",
};

struct AccessListKey {
  std::string_view key;
  const std::set<std::string, std::less<>> AccessListGroups::*groups;
};
constexpr std::array<AccessListKey, 3> kAccessListKeys = {{
    {"accessControlLists", &AccessListGroups::access},
    {"adminControlLists", &AccessListGroups::admin},
    {"monitorControlLists", &AccessListGroups::monitor},
}};

std::set<std::string, std::less<>> as_set(const plist::Array& names) {
  std::set<std::string, std::less<>> set;
  for (const plist::Value& name : names) {
    if (const std::string* s = name.as_string()) set.insert(*s);
  }
  return set;
}

std::string quoted(std::string_view text) { return "\"" + platform::escape_for_log(text) + "\""; }

// Why a record of an access list may not be written, if it may not. Both
// names a record can go by are checked, so that the answer does not depend
// on which of them the writer prefers.
std::optional<std::string> refusal_for_record(const plist::Dict& record, std::string_view key,
                                              const std::set<std::string, std::less<>>& allowed) {
  for (std::string_view name_key : {"dsAttrTypeStandard:RecordName", "_id_"}) {
    const std::string* name = record.find_string(name_key);
    if (name == nullptr) continue;
    if (*name == "admin") {
      return "not allowed: " + std::string(key) + " may not change the group \"admin\"";
    }
    if (allowed.find(*name) == allowed.end()) {
      return "not allowed: " + std::string(key) + " names the group " + quoted(*name) +
             ", which is not one of its groups for a known service";
    }
  }
  return std::nullopt;
}

std::optional<std::string> refusal_for_access_lists(const plist::Dict& request, const AccessListGroups& groups) {
  const plist::Dict* configuration = request.find_dict("configuration");
  if (configuration == nullptr) return std::nullopt;
  for (const AccessListKey& key : kAccessListKeys) {
    const plist::Array* records = configuration->find_array(key.key);
    if (records == nullptr) continue;
    for (const plist::Value& value : *records) {
      const plist::Dict* record = value.as_dict();
      if (record == nullptr) continue;
      if (auto refusal = refusal_for_record(*record, key.key, groups.*key.groups)) return refusal;
    }
  }
  return std::nullopt;
}

}  // namespace

Tier tier_for(const std::string& user, bool is_root) {
  return tier_for(user, is_root,
                  [](const std::string& u, const std::string& g) { return platform::does_user_belong_to_group(u, g); });
}

Tier tier_for(const std::string& user, bool is_root, const MembershipTest& is_member) {
  if (is_root) return Tier::kAdmin;
  if (user.empty()) return Tier::kNone;
  if (is_member(user, "admin") || is_member(user, "com.marlo.admin_info")) return Tier::kAdmin;
  if (is_member(user, "com.marlo.monitor_info")) return Tier::kMonitor;
  return Tier::kNone;
}

bool is_reading_command(std::string_view command) {
  for (std::string_view reading : kReadingCommands) {
    if (command == reading) return true;
  }
  return false;
}

AccessListGroups known_access_list_groups() {
  return {as_set(hubwarden::get_sacl_names()), as_set(hubwarden::get_aacl_names()),
          as_set(hubwarden::get_macl_names())};
}

std::optional<std::string> refusal_for(const plist::Dict& request, Tier tier) {
  const std::string* command = request.find_string("command");
  // Only a request that could reach the access lists pays for the lists.
  if (tier != Tier::kNone && command != nullptr && *command == "writeSettings") {
    return refusal_for(request, tier, known_access_list_groups());
  }
  return refusal_for(request, tier, AccessListGroups{});
}

std::optional<std::string> refusal_for(const plist::Dict& request, Tier tier, const AccessListGroups& groups) {
  const std::string* command = request.find_string("command");
  switch (tier) {
    case Tier::kNone:
      return "not allowed: the user is not a member of an administration or monitoring group";
    case Tier::kMonitor:
      if (command == nullptr || !is_reading_command(*command)) {
        return "not allowed: monitors may send only reading commands, not " +
               (command != nullptr ? quoted(*command) : std::string("a request without a command"));
      }
      return std::nullopt;
    case Tier::kAdmin:
      if (command != nullptr && *command == "writeSettings") return refusal_for_access_lists(request, groups);
      return std::nullopt;
  }
  return "not allowed";
}

}  // namespace hubwardend::serve
