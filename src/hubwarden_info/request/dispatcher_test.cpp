#include <gtest/gtest.h>

#include "platform/fake/fake_directory.h"
#include "request/globals.h"
#include "request/module.h"
#include "request/operations.h"
#include "request/spine_test_support.h"

namespace hubwarden {
namespace {

using testing::FixedRequester;
using testing::Installed;
using testing::MembershipDirectory;

using testing::keys_of;

class ScriptedTail : public platform::TailService {
 public:
  ErrorName error = nullptr;
  bool give_path = true;
  std::string seen_identifier;
  Dict seen_paths;

  ErrorName tail(const std::string& identifier, const Dict& log_paths, std::optional<std::string>* path, Value* offset,
                 Value* amount, std::optional<std::string>* contents, Dict*, const Dict&) override {
    seen_identifier = identifier;
    seen_paths = log_paths;
    if (error) return error;
    if (give_path) *path = "/var/log/system.log";
    *offset = Value(int64_t{40});
    *amount = Value(int64_t{2});
    *contents = "ok";
    return nullptr;
  }
};

class DispatcherTest : public ::testing::Test {
 protected:
  DispatcherTest() : requester_("alice"), installed_requester_(&requester_), installed_directory_(&directory_) {
    reset_module_globals_for_testing();
  }
  ~DispatcherTest() override { reset_module_globals_for_testing(); }

  std::optional<Dict> call(const Dict& request) {
    return hubwarden_info().doProcessInputWithRequest(request, &context_, -1);
  }

  FixedRequester requester_;
  MembershipDirectory directory_;
  Installed<platform::Requester> installed_requester_;
  Installed<platform::Directory> installed_directory_;
  Dict context_;
};

TEST_F(DispatcherTest, TierQuestionsStopAtTheFirstAdministratorGroup) {
  // A plain user is asked about all three groups, the third one only for show.
  call({{"command", "getSystemLogPaths"}});
  EXPECT_EQ(directory_.groups_asked(),
            (std::vector<std::string>{"admin", "com.marlo.admin_info", "com.marlo.monitor_info"}));

  MembershipDirectory admins;
  admins.add_member("alice", "admin");
  {
    Installed<platform::Directory> use(&admins);
    call({{"command", "getSystemLogPaths"}});
  }
  EXPECT_EQ(admins.groups_asked(), (std::vector<std::string>{"admin"}));

  MembershipDirectory info_admins;
  info_admins.add_member("alice", "com.marlo.admin_info");
  {
    Installed<platform::Directory> use(&info_admins);
    call({{"command", "getSystemLogPaths"}});
  }
  EXPECT_EQ(info_admins.groups_asked(), (std::vector<std::string>{"admin", "com.marlo.admin_info"}));
}

TEST_F(DispatcherTest, MalformedAndUnknownRequestsGetNoReply) {
  EXPECT_FALSE(call({}));
  EXPECT_FALSE(call({{"command", 7}}));
  EXPECT_FALSE(call({{"command", "getstate"}}));  // case-sensitive
  EXPECT_FALSE(call({{"command", "noSuchCommand"}}));
  ScriptedTail tail;
  Installed<platform::TailService> use(&tail);
  EXPECT_FALSE(call({{"command", "tailFile"}, {"identifier", "systemLog"}, {"offset", "0"}, {"amount", 10}}));
  EXPECT_FALSE(call({{"command", "tailFile"}, {"identifier", 3}, {"offset", 0}, {"amount", 10}}));
  EXPECT_FALSE(call({{"command", "tailFile"}, {"identifier", "systemLog"}, {"offset", 0}}));
  EXPECT_TRUE(tail.seen_identifier.empty());
  EXPECT_FALSE(call({{"command", "getHistory"}}));
  EXPECT_FALSE(call({{"command", "getHistory"}, {"timeScale", "60"}}));
  EXPECT_FALSE(call({{"command", "ignoreUpdateIdentifiers"}, {"identifiersToIgnore", "x"}}));
}

TEST_F(DispatcherTest, TailFileRepliesInOrderAndEndsAtTheFirstMissingValue) {
  ScriptedTail tail;
  Installed<platform::TailService> use(&tail);
  Dict request{{"command", "tailFile"}, {"identifier", "systemLog"}, {"offset", 10}, {"amount", 2.5}};

  std::optional<Dict> reply = call(request);
  ASSERT_TRUE(reply);
  EXPECT_EQ(keys_of(*reply), (std::vector<std::string>{"identifier", "path", "offset", "amount", "tailContents"}));
  EXPECT_EQ(*reply->find_string("tailContents"), "ok");
  EXPECT_EQ(tail.seen_paths.size(), 4u);  // the service gets the whole log table

  tail.give_path = false;
  reply = call(request);
  ASSERT_TRUE(reply);
  EXPECT_EQ(keys_of(*reply), (std::vector<std::string>{"identifier"}));

  tail.error = "LOG_FILE_NOT_FOUND_ERR";
  reply = call(request);
  ASSERT_TRUE(reply);
  EXPECT_EQ(keys_of(*reply), (std::vector<std::string>{"error"}));
  EXPECT_EQ(*reply->find_string("error"), "LOG_FILE_NOT_FOUND_ERR");
}

TEST_F(DispatcherTest, DirectRepliesNeverCarryAnErrorAndAuthDataMustMatch) {
  context_.set("marker", 42);
  std::optional<Dict> reply = call({{"command", "getContext"}});
  ASSERT_TRUE(reply);
  ASSERT_TRUE(reply->find_dict("context"));
  EXPECT_EQ(*reply->find_dict("context"), context_);

  reply = call({{"command", "getSACLsForUser"}});
  ASSERT_TRUE(reply);
  EXPECT_EQ(keys_of(*reply), (std::vector<std::string>{"command"}));

  // Before the first idle pass there is no auth string: nothing matches.
  reply = call({{"command", "getSACLsForUserWithAuthData"}, {"user", "bob"}, {"authData", ""}});
  ASSERT_TRUE(reply);
  EXPECT_EQ(keys_of(*reply), (std::vector<std::string>{"command", "user"}));

  create_auth_string();
  reply = call({{"command", "getSACLsForUserWithAuthData"}, {"user", "bob"}, {"authData", "wrong"}});
  ASSERT_TRUE(reply);
  EXPECT_EQ(keys_of(*reply), (std::vector<std::string>{"command", "user"}));
  EXPECT_EQ(*reply->find_string("user"), "bob");

  reply = call({{"command", "getTieredAdminSummary"}});
  ASSERT_TRUE(reply);
  EXPECT_EQ(keys_of(*reply), (std::vector<std::string>{"error"}));

  // Matching auth data, as data or as text, answers the services.
  platform::FakeDirectory directory;
  directory.add_user("bob");
  Installed<platform::Directory> use(&directory);
  const std::string auth = *auth_string();
  reply = call({{"command", "getSACLsForUserWithAuthData"},
                {"user", "bob"},
                {"authData", plist::Data(auth.begin(), auth.end())}});
  ASSERT_TRUE(reply);
  EXPECT_EQ(keys_of(*reply), (std::vector<std::string>{"command", "user", "sacls"}));
  // No access group exists, so every service is open to everybody.
  EXPECT_EQ(reply->find_array("sacls")->size(), 8u);

  reply = call({{"command", "getSACLsForUserWithAuthData"}, {"user", "bob"}, {"authData", auth}});
  ASSERT_TRUE(reply);
  EXPECT_TRUE(reply->find_array("sacls"));
  reply = call({{"command", "getSACLsForUser"}, {"user", "nobody-here"}});
  ASSERT_TRUE(reply);
  EXPECT_EQ(keys_of(*reply), (std::vector<std::string>{"command", "user"}));
}

TEST_F(DispatcherTest, SystemLogPathsAlwaysHaveTheFourEntries) {
  std::optional<Dict> reply = call({{"command", "getSystemLogPaths"}});
  ASSERT_TRUE(reply);
  EXPECT_EQ(keys_of(*reply), (std::vector<std::string>{"systemLog", "kernelLog", "softwareUpdateLog", "secureLog"}));
  EXPECT_EQ(*reply->find_string("softwareUpdateLog"), "/Library/Logs/Software Update.log");
}

}  // namespace
}  // namespace hubwarden
