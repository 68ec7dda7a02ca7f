#include "monitor/server_info.h"

#include <gtest/gtest.h>

#include <algorithm>

#include "access/connected_users.h"
#include "access/services_table.h"
#include "monitor/monitor_test_support.h"
#include "plist/codec.h"
#include "request/operations.h"

namespace hubwarden {
namespace {

using plist::Array;
using plist::Dict;
using plist::Value;
using testing::keys_of;

const Dict kInfo{{"state", "UNKNOWN"}, {"cpuUsageBy100", "stale"}, {"readWriteSettingsVersion", 1}};

// Keys whose presence depends on other subsystems (service configuration,
// loaded services, administrator tiers); they are checked for their place,
// not their presence.
const std::vector<std::string> kProvidedKeys = {"serviceConfig", "availableServices", "tieredAdminSummary"};

class ServerInfoTest : public testing::MonitorTest {
 protected:
  ServerInfoTest() {
    context_.set("info", kInfo);
    cpu_.ticks = {ticks(1, 1, 1)};
    net_.interfaces = {{"en0", 0, 0}};
    volumes_.volumes = {volume("Boot", 100, 40)};
  }

  ErrorName state(const Value& variant) {
    reply_.reset();
    return get_server_info(reply_, &variant, true, &context_);
  }

  // Adds a stored sample that is age seconds old with v1 = usage.
  void sample(double age, Value usage) {
    Array values(18, Value(""));
    values[0] = std::move(usage);
    history_.stored.push_back({history_.now - age, values});
  }

  const Array& cpu_history() { return *reply_->find_array("cpuHistoryBy100"); }

  Dict context_;
  ReplySlot reply_;
};

std::string details(const std::string& plist_text) { return "withDetails+" + plist_text; }

TEST_F(ServerInfoTest, ReplyKeysFollowTheCachedStateInOrder) {
  modules_.replies["hubwarden_certs"] = Dict{{"identityCertificates", Array{"cert"}}};
  Dict asked{{"CPU Avg Times", Array{5}}, {"GetDiskUsage", true}, {"GetNumConnectedUsers", true}};
  ASSERT_EQ(state(Value(details(plist::write_xml(Value(asked))))), nullptr);
  ASSERT_TRUE(reply_);

  std::vector<std::string> keys = keys_of(*reply_);
  std::vector<std::string> own;
  std::copy_if(keys.begin(), keys.end(), std::back_inserter(own), [](const std::string& k) {
    return std::find(kProvidedKeys.begin(), kProvidedKeys.end(), k) == kProvidedKeys.end();
  });
  // "cpuUsageBy100" was already in the cached state: it keeps its place and
  // takes the new value.
  EXPECT_EQ(
      own, (std::vector<std::string>{"state", "cpuUsageBy100", "readWriteSettingsVersion", "cpuHistoryBy100",
                                     "volumeInfos", "numConnectedUsers", "networkThroughput", "identityCertificates"}));
  EXPECT_EQ(*reply_->find("cpuUsageBy100"), Value(uint64_t{0}));
  EXPECT_EQ(*reply_->find("identityCertificates"), Value(Array{"cert"}));
  EXPECT_EQ(reply_->find_array("volumeInfos")->size(), 1u);
  EXPECT_EQ(*reply_->find("networkThroughput"), Value(uint64_t{0}));
  // Keys from other subsystems, when present, sit between the cached state
  // and the load figures, in their fixed order.
  auto place = [&](const std::string& k) { return std::find(keys.begin(), keys.end(), k) - keys.begin(); };
  long last = place("readWriteSettingsVersion");
  for (const std::string& k : kProvidedKeys) {
    if (!reply_->contains(k)) continue;
    EXPECT_GT(place(k), last) << k;
    last = place(k);
  }
  EXPECT_LT(last, place("cpuHistoryBy100"));

  // The cached state itself is not changed by the report; without the
  // certificate module there is no certificate key.
  EXPECT_EQ(*context_.find_dict("info"), kInfo);
  modules_.replies.clear();
  ASSERT_EQ(state(Value("")), nullptr);
  EXPECT_FALSE(reply_->contains("identityCertificates"));
}

TEST_F(ServerInfoTest, OnlyADictionaryAfterThePrefixAsksForDetails) {
  const char* no_details[] = {"",
                              "withDetails+",
                              "withDetails+(1, 2)",
                              "withDetails+<plist",
                              "withdetails+{GetDiskUsage=YES;}",
                              "withDetails+<plist version=\"1.0\"><array><true/></array></plist>"};
  for (const char* v : no_details) {
    Value variant(v);
    StatusDetails d = parse_status_variant(&variant);
    EXPECT_TRUE(d.cpu_average_minutes.empty() && !d.disk_usage && !d.connected_users) << v;
    ASSERT_EQ(state(Value(v)), nullptr) << v;
    for (const char* key : {"cpuHistoryBy100", "volumeInfos", "numConnectedUsers"})
      EXPECT_FALSE(reply_->contains(key)) << v << " " << key;
  }
  Value number(3);
  EXPECT_FALSE(parse_status_variant(&number).disk_usage);
  EXPECT_FALSE(parse_status_variant(nullptr).disk_usage);

  // The older text form carries everything as strings.
  Value text(details("{ \"CPU Avg Times\" = (5, \"60\"); GetDiskUsage = YES; GetNumConnectedUsers = 0; }"));
  StatusDetails from_text = parse_status_variant(&text);
  EXPECT_EQ(from_text.cpu_average_minutes, (Array{"5", "60"}));
  EXPECT_TRUE(from_text.disk_usage);
  EXPECT_FALSE(from_text.connected_users);

  Value xml(details(plist::write_xml(Value(Dict{{"GetNumConnectedUsers", true}, {"GetDiskUsage", false}}))));
  StatusDetails from_xml = parse_status_variant(&xml);
  EXPECT_TRUE(from_xml.connected_users);
  EXPECT_FALSE(from_xml.disk_usage);
}

TEST_F(ServerInfoTest, CpuAveragesCountSamplesNoOlderThanTheirSpan) {
  clock_.time += 0.75;  // the server time is truncated to whole seconds
  history_.now = clock_.time;
  sample(0, uint64_t{100});
  sample(300, uint64_t{200});
  sample(301, uint64_t{4000});
  sample(3600, uint64_t{600});
  sample(3601, uint64_t{9999});  // outside every span
  sample(-50, "");               // from the future: always counts, as 0

  ASSERT_EQ(state(Value(details("{\"CPU Avg Times\" = (5, 60, 0);}"))), nullptr);
  ASSERT_EQ(history_.time_scales_asked.size(), 1u);
  EXPECT_EQ(history_.time_scales_asked[0], Value(3600));
  EXPECT_EQ(history_.variants_asked[0], std::optional<Value>(Value("v1")));
  Array expected = {Dict{{"cpuUsageBy100", (100 + 200 + 0) / 3}, {"interval", "5"}},
                    Dict{{"cpuUsageBy100", (100 + 200 + 4000 + 600 + 0) / 5}, {"interval", "60"}},
                    Dict{{"cpuUsageBy100", (100 + 0) / 2}, {"interval", "0"}}};
  EXPECT_EQ(cpu_history(), expected);
  EXPECT_EQ(keys_of(*cpu_history()[0].as_dict()), (std::vector<std::string>{"cpuUsageBy100", "interval"}));
}

TEST_F(ServerInfoTest, CpuAverageSpansOfAnySizeAndSign) {
  sample(10, uint64_t{500});
  sample(-120, uint64_t{300});  // two minutes ahead
  Array spans = {-5, 2.9, 2147483647, 1e12, -1e12};
  ASSERT_EQ(state(Value(details(plist::write_xml(Value(Dict{{"CPU Avg Times", spans}}))))), nullptr);
  // The longest span is the largest 32-bit value; its time scale does not
  // overflow.
  EXPECT_EQ(history_.time_scales_asked.back(), Value(int64_t{2147483647} * 60));
  const Array& got = cpu_history();
  ASSERT_EQ(got.size(), 5u);
  // -5 minutes: only a sample at least five minutes ahead would count.
  EXPECT_EQ(*got[0].as_dict()->find("cpuUsageBy100"), Value(0));
  EXPECT_EQ(*got[0].as_dict()->find("interval"), Value(-5));
  // 2.9 minutes is 2: both samples; the interval is echoed as sent.
  EXPECT_EQ(*got[1].as_dict()->find("cpuUsageBy100"), Value(400));
  EXPECT_EQ(*got[1].as_dict()->find("interval"), Value(2.9));
  EXPECT_EQ(*got[2].as_dict()->find("cpuUsageBy100"), Value(400));
  for (size_t i = 3; i < 5; ++i) EXPECT_TRUE(got[i].as_dict()->find("cpuUsageBy100")->is_number());

  // No samples at all: every average is 0. All-negative spans ask for a
  // time scale of 0.
  history_.stored.clear();
  ASSERT_EQ(state(Value(details("{\"CPU Avg Times\" = (-1, -2);}"))), nullptr);
  EXPECT_EQ(history_.time_scales_asked.back(), Value(0));
  for (const Value& entry : cpu_history()) EXPECT_EQ(*entry.as_dict()->find("cpuUsageBy100"), Value(0));

  // A history error fails the whole report.
  history_.time_scales_asked.clear();
  history_.get_error = "HISTORY_READ_ERR";
  EXPECT_STREQ(state(Value(details("{\"CPU Avg Times\" = (5);}"))), "HISTORY_READ_ERR");
  EXPECT_FALSE(reply_);
  // Without averages the history is not asked.
  EXPECT_EQ(state(Value(details("{\"CPU Avg Times\" = ();}"))), nullptr);
  EXPECT_EQ(history_.time_scales_asked.size(), 1u);
}

TEST_F(ServerInfoTest, MissingCachedStateIsRebuiltOrFailsAfterTheMetersRan) {
  context_.remove("info");
  ASSERT_EQ(state(Value("")), nullptr);
  ASSERT_TRUE(context_.find_dict("info"));
  EXPECT_EQ(keys_of(*reply_).front(), "state");
  EXPECT_TRUE(reply_->contains("readWriteSettingsVersion"));

  // With no context there is nothing to keep the state in.
  ReplySlot reply;
  EXPECT_STREQ(get_server_info(reply, nullptr, false, nullptr), kCannotMallocErr);
  EXPECT_FALSE(reply);
}

Dict configured(Value yes) { return Dict{{"configured", yes}}; }

TEST_F(ServerInfoTest, ConnectedUsersAskConfiguredServicesAndMailAlways) {
  testing::FixedRequester requester("operator");
  testing::Installed<platform::Requester> requester_slot(&requester);
  modules_.replies = {
      {"hubwarden_filer", Dict{{"usersArray", Array{"ann", "bob"}}}},
      {"hubwarden_ftp", Dict{{"usersArray", Array{"ann"}}}},
      {"hubwarden_mail", Dict{{"usersArray", Array{"cy", "cy", "dee"}}}},
      {"hubwarden_smb", Dict{{"usersArray", Array{"eve"}}}},
      {"hubwarden_mediastream", Dict{{"connectionsArray", Array{1, 2, 3, 4}}}},
  };
  Dict all{{"com.marlo.Overseer.MarloFile", configured(true)},
           {"com.marlo.Overseer.FTP", configured(true)},
           {"com.marlo.Overseer.Windows", configured(true)},
           {"com.marlo.Overseer.Mediastream", configured("YES")},
           {"com.marlo.Overseer.Mail", configured(false)}};
  // Before the services are ready nothing is asked.
  EXPECT_EQ(get_numConnectedUsers(&all, &context_), 0u);
  EXPECT_TRUE(modules_.calls.empty());

  // No configuration at all, or an empty one: mail alone. Whatever the
  // configuration reader yields in this sandbox, no other service is
  // configured in it, so the report counts mail alone too.
  create_services_table();
  Dict none;
  EXPECT_EQ(get_numConnectedUsers(nullptr, &context_), 3u);
  EXPECT_EQ(get_numConnectedUsers(&none, &context_), 3u);
  EXPECT_EQ(modules_.modules_asked(), (std::vector<std::string>(2, "hubwarden_mail")));
  ASSERT_EQ(state(Value(details("{GetNumConnectedUsers = YES;}"))), nullptr);
  EXPECT_EQ(*reply_->find("numConnectedUsers"), Value(uint32_t{3}));

  // Everything configured: each list is counted entry by entry, duplicates
  // included, in the fixed order with each module's own command.
  modules_.calls.clear();
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
