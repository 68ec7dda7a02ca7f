// Tests of the access control lists: name lists, record reads and writes
// with their control keys, and the services a user may use.
#include "access/acls.h"

#include <gtest/gtest.h>

#include <cstdio>

#include "access/tiered_admin.h"
#include "platform/fake/fake_directory.h"
#include "platform/fake/fake_log.h"
#include "platform/file_util.h"
#include "request/operations.h"
#include "request/spine_test_support.h"

namespace hubwarden {
namespace {

using platform::FakeDirectory;

const std::string kResources = "/usr/share/hubwardend/bundles/hubwarden_info.bundle/Contents/Resources/";

plist::Array names_of(std::initializer_list<const char*> names) {
  plist::Array a;
  for (const char* n : names) a.emplace_back(n);
  return a;
}

class AclsTest : public ::testing::Test {
 protected:
  AclsTest() { reset_acl_name_caches_for_testing(); }
  ~AclsTest() override { reset_acl_name_caches_for_testing(); }
  std::optional<Array> sacls(const char* user, bool search = true) {
    Value name(user);
    return sacls_for_user(&name, nullptr, search);
  }
  std::optional<Dict> summary(ErrorName* error = nullptr) {
    std::optional<Dict> result;
    Dict context;
    ErrorName e = get_tiered_admin_summary(nullptr, result, &context);
    if (error) *error = e;
    return result;
  }

  testing::SandboxRoot root;
  FakeDirectory directory;
  platform::FakeLog log;
  testing::FixedRequester requester{"alice"};
  testing::Installed<platform::Directory> installed_directory{&directory};
  testing::Installed<platform::Log> installed_log{&log};
  testing::Installed<platform::Requester> installed_requester{&requester};
};

TEST_F(AclsTest, NameListsFollowTheFilesAndAreBuiltOnce) {
  // No file: only the all-services group.
  EXPECT_EQ(get_acl_names(root.path(kResources + "sacl_list.plist"), kAccessGroupPrefix),
            names_of({"com.marlo.access_all_services"}));
  platform::write_file_atomically(root.path(kResources + "sacl_list.plist"),
                                  "<plist version=\"1.0\"><array><string>mail</string><integer>3</integer>"
                                  "<string>vpn</string></array></plist>");
  platform::write_file_atomically(root.path(kResources + "tacl_list.plist"), "(dns, web)");
  EXPECT_EQ(get_sacl_names(),
            names_of({"com.marlo.access_mail", "com.marlo.access_vpn", "com.marlo.access_all_services"}));
  EXPECT_EQ(get_aacl_names(), names_of({"com.marlo.admin_dns", "com.marlo.admin_web", "com.marlo.admin_all_services"}));
  EXPECT_EQ(get_macl_names(),
            names_of({"com.marlo.monitor_dns", "com.marlo.monitor_web", "com.marlo.monitor_all_services"}));
  // Never re-read: a changed or damaged file leaves the lists alone.
  platform::write_file_atomically(root.path(kResources + "sacl_list.plist"), "<plist");
  EXPECT_EQ(get_sacl_names().size(), 3u);
  EXPECT_EQ(&get_sacl_names(), &get_sacl_names());
  // A damaged file counts as missing.
  EXPECT_EQ(get_acl_names(root.path(kResources + "sacl_list.plist"), kAccessGroupPrefix),
            names_of({"com.marlo.access_all_services"}));
}

TEST_F(AclsTest, ShippedNameFilesParse) {
  std::string dir = std::string(HUBWARDEN_SOURCE_RESOURCES) + "/";
  plist::Array sacl = get_acl_names(dir + "sacl_list.plist", kAccessGroupPrefix);
  plist::Array tacl = get_acl_names(dir + "tacl_list.plist", kAdminGroupPrefix);
  EXPECT_GT(sacl.size(), 8u);
  EXPECT_EQ(sacl.front(), Value("com.marlo.access_filer"));
  EXPECT_GT(tacl.size(), 20u);
  EXPECT_EQ(tacl.back(), Value("com.marlo.admin_all_services"));
}

TEST_F(AclsTest, ReadKeepsTheFirstFailureAndEveryReadableGroup) {
  directory.add_group("com.marlo.access_mail", {"alice"});
  directory.add_group("com.marlo.access_vpn", {"bob"});
  directory.fail_get_group("com.marlo.access_chat", -7);
  directory.fail_get_group("com.marlo.access_web", -8);
  plist::Array records{Value("stale")};
  int32_t status = read_acls(nullptr,
                             names_of({"com.marlo.access_ftp", "com.marlo.access_mail", "com.marlo.access_chat",
                                       "com.marlo.access_vpn", "com.marlo.access_web"}),
                             &records);
  EXPECT_EQ(status, -7);
  ASSERT_EQ(records.size(), 2u);
  EXPECT_EQ(*records[0].as_dict()->find_string("_id_"), "com.marlo.access_mail");
  EXPECT_EQ(*records[1].as_dict()->find_string("_id_"), "com.marlo.access_vpn");
  EXPECT_TRUE(records[1].as_dict()->contains("dsAttrTypeStandard:GroupMembership"));
  // Absent groups alone are no failure.
  EXPECT_EQ(read_acls(nullptr, names_of({"com.marlo.access_ftp"}), &records), 0);
  EXPECT_TRUE(records.empty());
}

TEST_F(AclsTest, WriteRulesForCreationRemovalAndUpdates) {
  directory.add_group("com.marlo.access_old", {"x"});
  directory.add_group("com.marlo.access_keep", {"x"});
  Dict full{{"_id_", "ignored"},
            {"dsAttrTypeStandard:RecordName", "com.marlo.access_new"},
            {"dsAttrTypeStandard:PrimaryGroupID", "99"},
            {"dsAttrTypeStandard:GeneratedUID", "G"},
            {"dsAttrTypeVirtual:UserMemberDistinguishedNames", "a"},
            {"dsAttrTypeVirtual:UserMemberNames", "b"},
            {"dsAttrTypeVirtual:GroupMemberNames", "c"},
            {"dsAttrTypeVirtual:GroupMemberDistinguishedNames", "d"},
            {"_newid_", "YES"},
            {"_obsoleteid_", false},
            {"dsAttrTypeStandard:GroupMembership", names_of({"alice"})}};
  plist::Array records{
      // Both flags: removed, not created.
      Value(Dict{{"_id_", "com.marlo.access_old"}, {"_obsoleteid_", "YES"}, {"_newid_", "YES"}}),
      Value(full),
      // Only the name keys: an update with nothing to write.
      Value(Dict{{"_id_", "com.marlo.access_keep"}, {"dsAttrTypeStandard:RecordName", "com.marlo.access_keep"}}),
      // The same with "_newid_": written with an empty attribute set.
      Value(Dict{{"_id_", "com.marlo.access_empty"},
                 {"dsAttrTypeStandard:RecordName", "com.marlo.access_empty"},
                 {"_newid_", true}}),
      // Lower-case yes and "1" are not true: an update that passes them on.
      Value(Dict{{"_id_", "com.marlo.access_keep"}, {"_newid_", "yes"}, {"_obsoleteid_", "1"}}),
  };
  ASSERT_EQ(write_acls(records, nullptr), 0);
  std::vector<FakeDirectory::Write> writes = directory.writes();
  ASSERT_EQ(writes.size(), 4u);
  EXPECT_EQ(writes[0].group, "com.marlo.access_old");
  EXPECT_FALSE(writes[0].attributes);
  EXPECT_EQ(writes[1].group, "com.marlo.access_new");
  EXPECT_TRUE(writes[1].create);
  EXPECT_EQ(*writes[1].attributes,
            (Dict{{"_obsoleteid_", false}, {"dsAttrTypeStandard:GroupMembership", names_of({"alice"})}}));
  EXPECT_EQ(writes[2].group, "com.marlo.access_empty");
  EXPECT_TRUE(writes[2].create);
  EXPECT_TRUE(writes[2].attributes->empty());
  EXPECT_FALSE(writes[3].create);
  EXPECT_EQ(*writes[3].attributes, (Dict{{"_newid_", "yes"}, {"_obsoleteid_", "1"}}));
  EXPECT_FALSE(directory.group("com.marlo.access_old"));
  EXPECT_TRUE(directory.group("com.marlo.access_empty"));

  // The first failure stops the walk and is returned.
  directory.fail_set_group("com.marlo.access_a", -42);
  plist::Array failing{Value(Dict{{"_id_", "com.marlo.access_a"}, {"k", "v"}}),
                       Value(Dict{{"_id_", "com.marlo.access_b"}, {"k", "v"}})};
  EXPECT_EQ(write_acls(failing, nullptr), -42);
  EXPECT_EQ(directory.writes().size(), 5u);
  // Removing a group that is not there is a directory failure like any other.
  EXPECT_EQ(write_acls({Value(Dict{{"_id_", "com.marlo.access_gone"}, {"_obsoleteid_", 1}})}, nullptr),
            platform::kDirectoryRecordNotFound);
}

const std::vector<std::string> kAllEight = {"_filer._tcp",       "_carddav._tcp", "_backup-target._tcp", "_caldav._tcp",
                                            "_xmpp-client._tcp", "_imap._tcp",    "_smb._tcp",           "_l2tp._udp"};

std::vector<std::string> texts(const Array& a) {
  std::vector<std::string> out;
  for (const Value& v : a) out.push_back(v.as_string() ? *v.as_string() : "<not a string>");
  return out;
}

TEST_F(AclsTest, SaclsForUser) {
  directory.add_user("alice");
  directory.add_user("bob");
  // No access groups at all: everything is open.
  ASSERT_TRUE(sacls("alice"));
  EXPECT_EQ(texts(*sacls("alice")), kAllEight);

  directory.add_group("com.marlo.access_mail", {"alice"});
  directory.add_group("com.marlo.access_filer", {"bob"});
  directory.add_group("com.marlo.access_ftp", {"alice"});  // no identifier
  // Open services are appended after the user's own, in table order.
  EXPECT_EQ(texts(*sacls("alice")),
            (std::vector<std::string>{"_imap._tcp", "_carddav._tcp", "_backup-target._tcp", "_caldav._tcp",
                                      "_xmpp-client._tcp", "_smb._tcp", "_l2tp._udp"}));

  // The all-services group ends the walk with all eight, after what came
  // before it in name order, so an identifier can occur twice.
  directory.add_group("com.marlo.access_all_services", {"alice"});
  directory.add_group("com.marlo.access_addressbook", {"alice"});
  std::vector<std::string> expected{"_carddav._tcp"};
  expected.insert(expected.end(), kAllEight.begin(), kAllEight.end());
  EXPECT_EQ(texts(*sacls("alice")), expected);

  // Nested membership counts.
  directory.add_user("carol", "C-1");
  directory.put_group("com.marlo.access_vpn", Dict{{"dsAttrTypeStandard:NestedGroups", names_of({"G-STAFF"})}});
  directory.add_group("staff", {"carol"}, "G-STAFF");
  std::vector<std::string> carol = texts(*sacls("carol"));
  EXPECT_EQ(carol.front(), "_l2tp._udp");
  EXPECT_TRUE(log.entries().empty());

  // Only the prefix's length is taken on trust, and suffixes match exactly.
  EXPECT_EQ(service_name_from_sacl_group_name("xxxxxxxxxxxxxxxxxvpn"), "_l2tp._udp");
  EXPECT_FALSE(service_name_from_sacl_group_name("com.marlo.access_Mail"));
  EXPECT_FALSE(service_name_from_sacl_group_name("short"));
}

TEST_F(AclsTest, SaclsForUserFailuresAreLoggedAndGiveNothing) {
  EXPECT_FALSE(sacls("nobody"));
  EXPECT_TRUE(log.entries().empty());
  EXPECT_FALSE(sacls_for_user(nullptr, nullptr, true));
  Value number(5);
  EXPECT_FALSE(sacls_for_user(&number, nullptr, true));

  directory.add_user("alice");
  directory.fail_find_user("alice", platform::kDirectoryNodeUnavailable);
  EXPECT_FALSE(sacls("alice"));
  directory.fail_node("/LDAPv3/127.0.0.1", platform::kDirectoryNodeUnavailable);
  EXPECT_FALSE(sacls("alice", false));
  directory.fail_node("/Local/Default", platform::kDirectoryRecordNotFound);
  EXPECT_FALSE(sacls("alice"));
  const std::string prefix = "hubwarden_info: sacls_for_user(): unable to ";
  EXPECT_EQ(log.entries(),
            (std::vector<platform::FakeLog::Entry>{
                {platform::Priority::Error, prefix + "get the user record. Got error node unavailable (-14002)"},
                {platform::Priority::Error,
                 prefix + "open the node to search for the user. Got error node unavailable (-14002)"},
                {platform::Priority::Error, prefix + "open the local node. Got error record not found (-14136)"}}));
}

Dict entry(bool monitor_only) { return Dict{{"monitorOnly", monitor_only}}; }

TEST_F(AclsTest, TieredSummaryAdministrationWinsAndKeysTakeTheSecondPiece) {
  directory.add_user("alice", "A-1");
  directory.add_group("com.marlo.monitor_mail", {"alice"});
  directory.add_group("com.marlo.admin_mail", {"alice"});
  directory.add_group("com.marlo.admin_all_services", {"alice"});
  directory.add_group("com.marlo.monitor_dns", {"alice"});
  directory.add_group("com.marlo.monitor_web", {"bob"});
  directory.add_group("com.marlo.admin_web", {"bob"});
  // Nested membership counts.
  directory.put_group("com.marlo.admin_vpn", Dict{{"dsAttrTypeStandard:NestedGroups", names_of({"G-OPS"})}});
  directory.add_group("ops", {"alice"}, "G-OPS");

  ErrorName error = "unset";
  std::optional<Dict> result = summary(&error);
  EXPECT_EQ(error, nullptr);
  ASSERT_TRUE(result);
  ASSERT_EQ(result->size(), 2u);
  EXPECT_EQ(result->at_index(0).first, "userIsFullAdmin");
  EXPECT_EQ(result->at_index(0).second, Value(false));
  const Dict* table = result->find_dict("tieredAdminSummary");
  ASSERT_TRUE(table);
  EXPECT_EQ(*table, (Dict{{"hubwarden_all", entry(false)},
                          {"hubwarden_mail", entry(false)},
                          {"hubwarden_vpn", entry(false)},
                          {"hubwarden_dns", entry(true)}}));

  // A full administrator gets no table at all.
  directory.add_group("admin", {"alice"});
  result = summary();
  ASSERT_TRUE(result);
  EXPECT_EQ(*result, (Dict{{"userIsFullAdmin", true}}));

  // Someone in no group gets an empty table; an unknown user an error.
  directory.add_user("bob");
  requester.set_user("carol");
  directory.add_user("carol");
  result = summary();
  ASSERT_TRUE(result);
  EXPECT_TRUE(result->find_dict("tieredAdminSummary")->empty());
  requester.set_user("mallory");
  result = summary(&error);
  EXPECT_FALSE(result);
  EXPECT_STREQ(error, "Couldn't find user record");
}

TEST_F(AclsTest, TieredSummaryOnlyTheFirst250GroupsOfEachFamilyCount) {
  directory.add_user("alice");
  char name[64];
  for (int i = 0; i < 300; ++i) {
    std::snprintf(name, sizeof name, "com.marlo.admin_s%03d", i);
    directory.add_group(name, {"alice"});
    std::snprintf(name, sizeof name, "com.marlo.monitor_m%03d", i);
    directory.add_group(name, {"alice"});
  }
  std::optional<Dict> result = summary();
  ASSERT_TRUE(result);
  const Dict* table = result->find_dict("tieredAdminSummary");
  EXPECT_EQ(table->size(), 500u);
  EXPECT_TRUE(table->contains("hubwarden_s249"));
  EXPECT_FALSE(table->contains("hubwarden_s250"));
  EXPECT_TRUE(table->contains("hubwarden_m249"));
  EXPECT_FALSE(table->contains("hubwarden_m250"));
  for (const auto& [prefix, limit] : directory.queries()) EXPECT_EQ(limit, 250u) << prefix;

  // Query failures are not reported: the table just comes out empty.
  directory.fail_node("/Local/Default", platform::kDirectoryNodeUnavailable);
  result = summary();
  ASSERT_TRUE(result);
  EXPECT_TRUE(result->find_dict("tieredAdminSummary")->empty());
}

}  // namespace
}  // namespace hubwarden
