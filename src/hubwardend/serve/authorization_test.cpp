#include "hubwardend/serve/authorization.h"

#include <gtest/gtest.h>

#include <map>
#include <set>
#include <string>
#include <tuple>
#include <vector>

namespace hubwardend::serve {
namespace {

TEST(AuthorizationTest, TierComesFromRootOrGroupMembership) {
  const std::map<std::string, std::set<std::string>> groups_of = {
      {"ann", {"admin"}},
      {"ben", {"com.marlo.admin_info"}},
      {"cat", {"com.marlo.monitor_info"}},
      {"dan", {"com.marlo.monitor_info", "com.marlo.admin_info"}},
      {"eve", {"staff", "com.marlo.admin_dns", "com.marlo.monitor_dns"}},
  };
  std::vector<std::string> asked;
  MembershipTest is_member = [&](const std::string& user, const std::string& group) {
    asked.push_back(user);
    auto it = groups_of.find(user);
    return it != groups_of.end() && it->second.count(group) > 0;
  };
  struct Case {
    std::string user;
    bool is_root;
    Tier tier;
  };
  const std::vector<Case> cases = {
      {"ann", false, Tier::kAdmin}, {"ben", false, Tier::kAdmin}, {"cat", false, Tier::kMonitor},
      {"dan", false, Tier::kAdmin}, {"eve", false, Tier::kNone},  {"nobody", false, Tier::kNone},
      {"", false, Tier::kNone},     {"", true, Tier::kAdmin},     {"eve", true, Tier::kAdmin},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(tier_for(c.user, c.is_root, is_member), c.tier) << c.user << (c.is_root ? " as root" : "");
  }
  // Nobody asks the directory about an empty name.
  for (const std::string& user : asked) EXPECT_FALSE(user.empty());
}

AccessListGroups module_groups() {
  return {
      {"com.marlo.access_filer", "com.marlo.access_mail", "com.marlo.access_all_services"},
      {"com.marlo.admin_dns", "com.marlo.admin_info", "com.marlo.admin_all_services"},
      {"com.marlo.monitor_dns", "com.marlo.monitor_info", "com.marlo.monitor_all_services"},
  };
}

plist::Dict write_settings(const std::string& key, plist::Value lists) {
  return plist::Dict{{"command", "writeSettings"}, {"configuration", plist::Dict{{key, std::move(lists)}}}};
}

plist::Dict group(const std::string& id, const char* flag = nullptr) {
  plist::Dict record{{"_id_", id}};
  if (flag != nullptr) record.set(flag, "YES");
  return record;
}

TEST(AuthorizationTest, MonitorsReadOnlyAndNobodyElseGetsIn) {
  const AccessListGroups groups = module_groups();
  // Tiers by command: (command, monitor may, administrator may).
  const std::vector<std::tuple<std::string, bool, bool>> cases = {
      {"getState", true, true},       {"tailFile", true, true},       {"getSACLsForUserWithAuthData", true, true},
      {"readSettings", true, true},   {"writeSettings", false, true}, {"writeServiceConfig", false, true},
      {"killProcesses", false, true}, {"reboot", false, true},        {"getContext", false, true},
      {"getstate", false, true},      {"getState ", false, true},     {"noSuchCommand", false, true},
  };
  for (const auto& [command, monitor_may, admin_may] : cases) {
    plist::Dict request{{"command", command}};
    EXPECT_EQ(is_reading_command(command), monitor_may) << command;
    auto refusal = refusal_for(request, Tier::kMonitor, groups);
    EXPECT_EQ(!refusal, monitor_may) << command;
    if (refusal) {
      EXPECT_NE(refusal->find("\"" + command + "\""), std::string::npos) << *refusal;
    }
    EXPECT_EQ(!refusal_for(request, Tier::kAdmin, groups), admin_may) << command;
    EXPECT_NE(refusal_for(request, Tier::kNone, groups), std::nullopt) << command;
  }
  // Without a command (or with one that is not text) a monitor is refused
  // and an administrator is not: the module answers nothing.
  for (const plist::Dict& request :
       {plist::Dict{}, plist::Dict{{"command", 5}}, plist::Dict{{"command", plist::Array{"getState"}}}}) {
    EXPECT_NE(refusal_for(request, Tier::kMonitor, groups), std::nullopt);
    EXPECT_NE(refusal_for(request, Tier::kNone, groups), std::nullopt);
    EXPECT_EQ(refusal_for(request, Tier::kAdmin, groups), std::nullopt);
  }
}

TEST(AuthorizationTest, AccessListWritesNameOnlyTheirFamilysKnownGroups) {
  const AccessListGroups groups = module_groups();
  plist::Dict renamed_to_admin = group("com.marlo.admin_dns");
  renamed_to_admin.set("dsAttrTypeStandard:RecordName", "admin");
  plist::Dict record_name_elsewhere = group("com.marlo.access_mail");
  record_name_elsewhere.set("dsAttrTypeStandard:RecordName", "wheel");
  plist::Dict record_name_only{{"dsAttrTypeStandard:RecordName", "com.marlo.access_filer"}};

  struct Case {
    const char* what;
    plist::Dict request;
    bool allowed;
  };
  const std::vector<Case> cases = {
      {"a known access group created",
       write_settings("accessControlLists", plist::Array{group("com.marlo.access_mail", "_newid_")}), true},
      {"the all-services groups",
       write_settings("monitorControlLists", plist::Array{group("com.marlo.monitor_all_services")}), true},
      {"admin groups of known services removed",
       write_settings("adminControlLists",
                      plist::Array{group("com.marlo.admin_dns", "_obsoleteid_"), group("com.marlo.admin_info")}),
       true},
      {"a record known by its record name only", write_settings("accessControlLists", plist::Array{record_name_only}),
       true},
      {"records the module skips",
       write_settings("accessControlLists", plist::Array{"admin", 5, plist::Dict{{"x", 1}}}), true},
      {"lists that are not arrays", write_settings("adminControlLists", "admin"), true},
      {"no configuration dictionary", plist::Dict{{"command", "writeSettings"}, {"configuration", "admin"}}, true},
      {"another command holding the keys",
       plist::Dict{{"command", "readSettings"},
                   {"configuration", plist::Dict{{"adminControlLists", plist::Array{group("admin")}}}}},
       true},

      {"the admin group deleted", write_settings("adminControlLists", plist::Array{group("admin", "_obsoleteid_")}),
       false},
      {"the admin group written as an access list", write_settings("accessControlLists", plist::Array{group("admin")}),
       false},
      {"admin behind a valid _id_", write_settings("adminControlLists", plist::Array{renamed_to_admin}), false},
      {"a foreign group behind a valid _id_", write_settings("accessControlLists", plist::Array{record_name_elsewhere}),
       false},
      {"a group of another family", write_settings("accessControlLists", plist::Array{group("com.marlo.admin_info")}),
       false},
      {"a monitor group in the admin list",
       write_settings("adminControlLists", plist::Array{group("com.marlo.monitor_dns")}), false},
      {"an unknown service", write_settings("accessControlLists", plist::Array{group("com.marlo.access_ftp2")}), false},
      {"a near miss", write_settings("accessControlLists", plist::Array{group("com.marlo.access_mail ")}), false},
      {"a system group", write_settings("monitorControlLists", plist::Array{group("sudo", "_newid_")}), false},
      {"a bad record after good ones",
       write_settings("accessControlLists",
                      plist::Array{group("com.marlo.access_mail"), group("com.marlo.access_filer"), group("wheel")}),
       false},
  };
  for (const Case& c : cases) {
    auto refusal = refusal_for(c.request, Tier::kAdmin, groups);
    EXPECT_EQ(!refusal.has_value(), c.allowed) << c.what << ": " << refusal.value_or("allowed");
  }

  // Root is held to the same rule; the reason names the group.
  auto refusal = refusal_for(write_settings("adminControlLists", plist::Array{group("admin", "_obsoleteid_")}),
                             tier_for("", true, [](const std::string&, const std::string&) { return false; }), groups);
  ASSERT_TRUE(refusal.has_value());
  EXPECT_NE(refusal->find("\"admin\""), std::string::npos) << *refusal;
  refusal =
      refusal_for(write_settings("accessControlLists", plist::Array{group("evil\x01name")}), Tier::kAdmin, groups);
  ASSERT_TRUE(refusal.has_value());
  EXPECT_NE(refusal->find("\"evil\\x01name\""), std::string::npos) << *refusal;
}

}  // namespace
}  // namespace hubwardend::serve
