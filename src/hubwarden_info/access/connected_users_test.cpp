#include "access/connected_users.h"

#include <gtest/gtest.h>

#include "access/services_table.h"
#include "monitor/monitor_test_support.h"
#include "request/operations.h"

namespace hubwarden {
namespace {

using plist::Array;
using plist::Dict;
using plist::Value;

class ConnectedUsersTest : public testing::MonitorTest {
 protected:
  ConnectedUsersTest() : requester_slot_(&requester_) {
    modules_.replies = {
        {"hubwarden_filer", Dict{{"usersArray", Array{"ann", "bob"}}}},
        {"hubwarden_ftp", Dict{{"usersArray", Array{"ann"}}}},
        {"hubwarden_mail", Dict{{"usersArray", Array{"cy", "cy", "dee"}}}},
        {"hubwarden_smb", Dict{{"usersArray", Array{"eve"}}}},
        {"hubwarden_mediastream", Dict{{"connectionsArray", Array{1, 2, 3, 4}}}},
    };
  }
  static Dict configured(bool yes) { return Dict{{"configured", yes}}; }

  testing::FixedRequester requester_{"operator"};
  testing::Installed<platform::Requester> requester_slot_;
  Dict context_;
};

TEST_F(ConnectedUsersTest, NothingIsAskedBeforeTheServicesAreReady) {
  Dict all{{"com.marlo.Overseer.MarloFile", configured(true)}};
  EXPECT_EQ(get_numConnectedUsers(&all, &context_), 0u);
  EXPECT_TRUE(modules_.calls.empty());
}

TEST_F(ConnectedUsersTest, GatedServicesAreAskedOnlyWhenConfiguredAndMailAlways) {
  create_services_table();

  // No configuration at all, or an empty one: mail alone.
  EXPECT_EQ(get_numConnectedUsers(nullptr, &context_), 3u);
  Dict none;
  EXPECT_EQ(get_numConnectedUsers(&none, &context_), 3u);
  EXPECT_EQ(modules_.modules_asked(), (std::vector<std::string>{"hubwarden_mail", "hubwarden_mail"}));

  // Everything configured: each list is counted entry by entry, duplicates
  // included, in the fixed order with each module's own command.
  modules_.calls.clear();
  Dict all{{"com.marlo.Overseer.MarloFile", configured(true)},
           {"com.marlo.Overseer.FTP", configured(true)},
           {"com.marlo.Overseer.Windows", configured(true)},
           {"com.marlo.Overseer.Mediastream", Dict{{"configured", "YES"}}},
           {"com.marlo.Overseer.Mail", configured(false)}};
  EXPECT_EQ(get_numConnectedUsers(&all, &context_), 2u + 1 + 3 + 1 + 4);
  EXPECT_EQ(modules_.modules_asked(), (std::vector<std::string>{"hubwarden_filer", "hubwarden_ftp", "hubwarden_mail",
                                                                "hubwarden_smb", "hubwarden_mediastream"}));
  EXPECT_EQ(modules_.calls[0].request, (Dict{{"command", "getConnectedUsers"}}));
  EXPECT_EQ(modules_.calls[4].request, (Dict{{"command", "getConnections"}}));
  EXPECT_EQ(modules_.calls[0].user, "operator");

  // Unconfigured services are skipped; a reply key that is not an array,
  // a reply without the key and a missing module add nothing.
  modules_.calls.clear();
  all.set("com.marlo.Overseer.FTP", configured(false));
  modules_.replies["hubwarden_filer"] = Dict{{"usersArray", 7}};
  modules_.replies["hubwarden_smb"] = Dict{{"connectionsArray", Array{"x"}}};
  modules_.replies.erase("hubwarden_mediastream");
  EXPECT_EQ(get_numConnectedUsers(&all, &context_), 3u);
  EXPECT_EQ(modules_.modules_asked(),
            (std::vector<std::string>{"hubwarden_filer", "hubwarden_mail", "hubwarden_smb", "hubwarden_mediastream"}));
}

}  // namespace
}  // namespace hubwarden
