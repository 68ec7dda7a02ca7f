// Tests of what each verb sends and how its reply reads: canned replies in
// the daemon's shapes, and replies missing pieces or of the wrong shape.
#include "hubwarden_client/verbs.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>

#include "hubwarden_client/table.h"
#include "plist/codec.h"

namespace hubwarden_client {
namespace {

class VerbsTest : public ::testing::Test {
 protected:
  void SetUp() override {
    const char* tz = std::getenv("TZ");
    saved_tz_ = tz ? std::optional<std::string>(tz) : std::nullopt;
    setenv("TZ", "UTC", 1);
    tzset();
  }
  void TearDown() override {
    if (saved_tz_)
      setenv("TZ", saved_tz_->c_str(), 1);
    else
      unsetenv("TZ");
    tzset();
  }

 private:
  std::optional<std::string> saved_tz_;
};

TEST_F(VerbsTest, TablesAlignAndUnitsRead) {
  Table table({{"NAME"}, {"SIZE", Table::Align::kRight}, {"NOTE"}});
  table.add_row({"é", "1", "x"});
  table.add_row({"long name", "1000", ""});
  table.add_row({"short"});
  EXPECT_EQ(table.render(),
            "NAME       SIZE  NOTE\n"
            "é             1  x\n"
            "long name  1000\n"
            "short\n");
  EXPECT_EQ(Table({{"A"}}).render(), "A\n");

  EXPECT_EQ(format_bytes(0), "0 B");
  EXPECT_EQ(format_bytes(1023), "1023 B");
  EXPECT_EQ(format_bytes(200ull << 20), "200 MiB");
  EXPECT_EQ(format_bytes(~0ull), "16.0 EiB");
}

TEST_F(VerbsTest, StatusAsksForDetailsAndSummarises) {
  plist::Dict request = status_request();
  EXPECT_EQ(*request.find_string("command"), "getState");
  const std::string& variant = *request.find_string("variant");
  ASSERT_TRUE(variant.starts_with("withDetails+"));
  plist::Parsed details = plist::parse_xml(variant.substr(12));
  ASSERT_TRUE(details.ok()) << details.error;
  EXPECT_EQ(details.value.as_dict()->find_array("CPU Avg Times")->size(), 3u);
  EXPECT_TRUE(details.value.as_dict()->find("GetDiskUsage")->number_is_true());

  plist::Dict reply{
      {"state", "UNKNOWN"},
      {"computerInfo", plist::Dict{{"numberOfCPUs", 4},
                                   {"cpuSpeed", 2400000000u},
                                   {"memorySize", 8589934592ull},
                                   {"cpuKind", "Xeon"},
                                   {"computerModelName", "Rack Server"}}},
      {"systemVersion", "Debian 12"},
      {"computerName", "box"},
      {"hostName", ""},
      {"interfaceInfosArray", plist::Array{plist::Dict{{"name", "eth0"}, {"ipAddress", "10.0.0.2"}}}},
      {"cpuUsageBy100", 1250u},
      {"cpuHistoryBy100", plist::Array{plist::Dict{{"cpuUsageBy100", 1000}, {"interval", 1}},
                                       plist::Dict{{"cpuUsageBy100", 500}, {"interval", 5}}}},
      {"volumeInfos",
       plist::Array{plist::Dict{{"name", "root"}, {"totalBytes", 1073741824ull}, {"freeBytes", 268435456ull}}}},
      {"numConnectedUsers", 3u},
      {"networkThroughput", 2048u},
  };
  View view = render_status(reply);
  EXPECT_EQ(view.out,
            "Computer name    box\n"
            "System           Debian 12\n"
            "Model            Rack Server\n"
            "Processors       4 x Xeon, 2.40 GHz\n"
            "Memory           8.0 GiB\n"
            "CPU usage        12.5 %\n"
            "CPU average      1 min 10.0 %, 5 min 5.0 %\n"
            "Network          2.0 KiB/s\n"
            "Connected users  3\n"
            "Addresses        eth0 10.0.0.2\n"
            "\n"
            "VOLUME     SIZE     FREE    USED\n"
            "root    1.0 GiB  256 MiB  75.0 %\n");
  EXPECT_FALSE(view.failed);

  // Wrong shapes leave rows out instead of failing.
  plist::Dict odd{{"computerInfo", "x"}, {"cpuHistoryBy100", plist::Array{1, plist::Dict{}}}, {"volumeInfos", 5}};
  EXPECT_EQ(render_status(odd).out, "");
}

TEST_F(VerbsTest, SettingsReadAndWrite) {
  plist::Dict reply{{"configuration", plist::Dict{{"computerName", "box"},
                                                  {"enableSSH", true},
                                                  {"notificationRules", plist::Array{}},
                                                  {"accessControlListNames", plist::Array{"ssh", "afp"}},
                                                  {"notifications", plist::Dict{{"email", "a@b"}}}}},
                    {"readStatus", 5u}};
  View view = render_settings(reply);
  EXPECT_EQ(view.out,
            "computerName            box\n"
            "enableSSH               true\n"
            "notificationRules\n"
            "accessControlListNames  ssh, afp\n"
            "notifications.email     a@b\n");
  EXPECT_NE(view.err.find("status 5"), std::string::npos);
  EXPECT_FALSE(view.failed);

  plist::Dict write = write_settings_request(plist::Dict{{"enableSSH", false}});
  EXPECT_EQ(*write.find_string("command"), "writeSettings");
  EXPECT_FALSE(write.find("getDetails")->number_is_true());
  EXPECT_FALSE(write.find_dict("configuration")->find("enableSSH")->number_is_true());

  EXPECT_EQ(render_write_settings(plist::Dict{{"writeStatus", 0u}}).out, "settings written\n");
  View failed = render_write_settings(plist::Dict{{"writeStatus", 100026u}});
  EXPECT_TRUE(failed.failed);
  EXPECT_EQ(failed.err, "write failed: SSH could not be switched on (status 100026)\n");
  EXPECT_TRUE(render_write_settings(plist::Dict{}).failed);
  EXPECT_NE(write_status_text(13).find("13"), std::string::npos);
}

TEST_F(VerbsTest, ServicesProcessesAndKill) {
  plist::Dict services{
      {"command", "getServicesInfo"},
      {"servicesInfo",
       plist::Dict{{"DNS", "1"},
                   {"DirectoryServices",
                    plist::Dict{{"parentDirServers", plist::Array{plist::Dict{{"name", "ldap1"}, {"type", "ldap"}}}}}},
                   {"Backvault", plist::Array{"Backups"}}}}};
  EXPECT_EQ(render_services(services).out,
            "SERVICE            STATE    DETAILS\n"
            "DNS                running\n"
            "DirectoryServices  running  directory servers: ldap1 (ldap)\n"
            "Backup targets              Backups\n");
  View not_ready = render_services(plist::Dict{{"command", "getServicesInfo"}});
  EXPECT_EQ(not_ready.out, "");
  EXPECT_NE(not_ready.err, "");
  EXPECT_FALSE(not_ready.failed);

  plist::Dict ps = process_list_request("ResidentSize", 5, false);
  EXPECT_EQ(*ps.find_string("primarySortKey"), "ResidentSize");
  EXPECT_EQ(*ps.find_string("primarySortDirection"), "DESC");
  EXPECT_EQ(*ps.find("limit")->as_integer(), 5);
  EXPECT_FALSE(process_list_request("PID", 0, true).contains("limit"));
  EXPECT_EQ(*process_list_request("PID", 0, true).find_string("primarySortDirection"), "ASC");

  plist::Dict processes{{"processInfo", plist::Array{plist::Dict{{"PID", 1234u},
                                                                 {"CPUUsage", 150.26},
                                                                 {"ResidentSize", 10485760ull},
                                                                 {"VirtualSize", 1073741824ull},
                                                                 {"Threads", 12u},
                                                                 {"TotalSeconds", 3725u},
                                                                 {"Command", "hubwardend"}},
                                                     plist::Dict{{"PID", 1u}, {"Command", "init"}}}}};
  EXPECT_EQ(render_processes(processes).out,
            " PID     %CPU       RSS      VSZ  THR     TIME  COMMAND\n"
            "1234  150.3 %  10.0 MiB  1.0 GiB   12  1:02:05  hubwardend\n"
            "   1                                            init\n");

  EXPECT_EQ(*kill_request({42, 43}).find_array("pids")->at(1).as_integer(), 43);
  View kill = render_kill(
      plist::Dict{{"killedAllProcesses", false}, {"killResults", plist::Dict{{"1", "FAILURE"}, {"42", "SUCCESS"}}}});
  EXPECT_EQ(kill.out, "PID  RESULT\n  1  FAILURE\n 42  SUCCESS\n");
  EXPECT_TRUE(kill.failed);
  EXPECT_FALSE(render_kill(plist::Dict{{"killedAllProcesses", true}, {"killResults", plist::Dict{}}}).failed);
}

TEST_F(VerbsTest, HistoryAndHardware) {
  plist::Dict request = history_request(HistoryKind::kCpu, 3600);
  EXPECT_EQ(*request.find("timeScale")->as_integer(), 3600);
  EXPECT_EQ(*request.find_string("variant"), "v1,v3,v4,v9,v10");
  EXPECT_EQ(*history_request(HistoryKind::kDisk, 60).find_string("variant"), "v17,v18");
  EXPECT_EQ(parse_history_kind("network"), HistoryKind::kNetwork);
  EXPECT_EQ(parse_history_kind("memory"), std::nullopt);

  // Per-processor series that are empty everywhere get no column.
  plist::Dict reply{
      {"currentServerTime", 1795428060u},
      {"samplesArray", plist::Array{plist::Dict{{"t", 1795428000}, {"v1", 2500u}, {"v3", 5000u}, {"v4", ""}},
                                    plist::Dict{{"t", 1795428010}, {"v1", ""}, {"v3", 100u}, {"v4", ""}}}},
      {"v1Legend", "CPU_USAGE"},
      {"v1Factor", 0.01},
      {"v3Legend", "CPU1_USAGE"},
      {"v3Factor", 0.01},
  };
  EXPECT_EQ(render_history(reply, HistoryKind::kCpu).out,
            "TIME                    CPU   CPU 0\n"
            "2026-11-23 10:00:00  25.0 %  50.0 %\n"
            "2026-11-23 10:00:10       -   1.0 %\n");
  plist::Dict disk{
      {"samplesArray", plist::Array{plist::Dict{{"t", 1795428000}, {"v17", 2147483648ull}, {"v18", 2500u}}}},
      {"v17Legend", "BOOT_VOLUME_FREE_BYTES"},
      {"v17Factor", 1.0},
      {"v18Legend", "BOOT_VOLUME_FREE_PERCENTAGE"},
      {"v18Factor", 0.01}};
  EXPECT_EQ(render_history(disk, HistoryKind::kDisk).out,
            "TIME                    FREE  FREE %\n"
            "2026-11-23 10:00:00  2.0 GiB  25.0 %\n");
  View empty = render_history(plist::Dict{{"samplesArray", plist::Array{}}}, HistoryKind::kNetwork);
  EXPECT_EQ(empty.out, "TIME  TOTAL\n");
  EXPECT_NE(empty.err, "");

  plist::Dict hardware{{"volumeInfosArray", plist::Array{}},
                       {"cpuUsageBy100", 0u},
                       {"cpuUsagesBy100Array", plist::Array{plist::Dict{{"cpuUsage-0", 100u}}, plist::Dict{}}},
                       {"networkThroughputBy1K", 0u},
                       {"networkThroughput", 0u}};
  EXPECT_EQ(render_hardware(hardware).out,
            "CPU usage  0.0 %\n"
            "CPU 0      1.0 %\n"
            "Network    0 B/s\n");
}

TEST_F(VerbsTest, GenericReplies) {
  plist::Dict reply{{"command", "getSACLsForUser"},
                    {"user", "alice"},
                    {"count", 18446744073709551615ull},
                    {"when", plist::Date{1795428000}},
                    {"blob", plist::Data{1, 2, 3}},
                    {"nested", plist::Array{plist::Array{1}}},
                    {"rows", plist::Array{plist::Dict{{"name", "a"}, {"size", 1}},
                                          plist::Dict{{"name", "bb"}, {"size", 100}, {"extra", true}}}}};
  EXPECT_EQ(render_any(reply).out,
            "command  getSACLsForUser\n"
            "user     alice\n"
            "count    18446744073709551615\n"
            "when     2026-11-23 10:00:00\n"
            "blob     <3 bytes>\n"
            "nested   [[1]]\n"
            "\n"
            "rows:\n"
            "name  size  extra\n"
            "a        1\n"
            "bb     100  true\n");
}

}  // namespace
}  // namespace hubwarden_client
