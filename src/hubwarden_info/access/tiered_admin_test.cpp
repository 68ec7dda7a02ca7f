// Tests of the tiered administrator summary over the in-memory directory.
#include "access/tiered_admin.h"

#include <gtest/gtest.h>

#include <cstdio>

#include "platform/fake/fake_directory.h"
#include "request/spine_test_support.h"

namespace hubwarden {
namespace {

using plist::Dict;
using plist::Value;

class TieredAdminTest : public ::testing::Test {
 protected:
  TieredAdminTest() {
    platform::install<platform::Directory>(&directory);
    platform::install<platform::Requester>(&requester);
  }
  ~TieredAdminTest() override {
    platform::install<platform::Directory>(nullptr);
    platform::install<platform::Requester>(nullptr);
  }
  std::optional<Dict> summary(ErrorName* error = nullptr) {
    std::optional<Dict> result;
    ErrorName e = get_tiered_admin_summary(nullptr, result, &context);
    if (error) *error = e;
    return result;
  }
  static Dict entry(bool monitor_only) { return Dict{{"monitorOnly", monitor_only}}; }

  platform::FakeDirectory directory;
  testing::FixedRequester requester{"alice"};
  Dict context;
};

TEST_F(TieredAdminTest, FullAdministratorGetsNoTable) {
  directory.add_user("alice");
  directory.add_group("admin", {"alice"});
  directory.add_group("com.marlo.admin_mail", {"alice"});
  std::optional<Dict> result = summary();
  ASSERT_TRUE(result);
  EXPECT_EQ(result->size(), 1u);
  EXPECT_EQ(*result->find("userIsFullAdmin"), Value(true));
}

TEST_F(TieredAdminTest, AdministrationWinsAndKeysTakeTheSecondPiece) {
  directory.add_user("alice", "A-1");
  directory.add_group("com.marlo.monitor_mail", {"alice"});
  directory.add_group("com.marlo.admin_mail", {"alice"});
  directory.add_group("com.marlo.admin_all_services", {"alice"});
  directory.add_group("com.marlo.monitor_dns", {"alice"});
  directory.add_group("com.marlo.monitor_web", {"bob"});
  directory.add_group("com.marlo.admin_web", {"bob"});
  // Nested membership counts.
  directory.put_group("com.marlo.admin_vpn", Dict{{"dsAttrTypeStandard:NestedGroups", plist::Array{Value("G-OPS")}}});
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

TEST_F(TieredAdminTest, OnlyTheFirst250GroupsOfEachFamilyCount) {
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
