#include "hubwardend/serve/daemon_config.h"

#include <gtest/gtest.h>

#include "plist/codec.h"

namespace hubwardend::serve {
namespace {

using Family = ListenAddress::Family;

TEST(DaemonConfigTest, ListenAddressesAreNumericWithAPort) {
  struct Case {
    const char* text;
    std::optional<ListenAddress> expected;
  };
  const Case cases[] = {
      {"0.0.0.0:311", ListenAddress{Family::kIPv4, "0.0.0.0", 311}},
      {"127.0.0.1:0", ListenAddress{Family::kIPv4, "127.0.0.1", 0}},
      {"[::]:311", ListenAddress{Family::kIPv6, "::", 311}},
      {"[::1]:65535", ListenAddress{Family::kIPv6, "::1", 65535}},
      {"[::ffff:10.0.0.1]:8443", ListenAddress{Family::kIPv6, "::ffff:10.0.0.1", 8443}},
      {"127.0.0.1:65536", std::nullopt},
      {"127.0.0.1:-1", std::nullopt},
      {"127.0.0.1:+80", std::nullopt},
      {"127.0.0.1: 80", std::nullopt},
      {"127.0.0.1:000311", std::nullopt},
      {"127.0.0.1:", std::nullopt},
      {"127.0.0.1", std::nullopt},
      {":311", std::nullopt},
      {"localhost:311", std::nullopt},  // no name lookups
      {"127.1:311", std::nullopt},      // no abbreviated forms
      {"256.0.0.1:311", std::nullopt},
      {"::1:311", std::nullopt},  // IPv6 needs its brackets
      {"[::1]311", std::nullopt},
      {"[::1]:", std::nullopt},
      {"[::1", std::nullopt},
      {"[]:311", std::nullopt},
      {"[127.0.0.1]:311", std::nullopt},
      {"[fe80::1%eth0]:311", std::nullopt},
      {"", std::nullopt},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(parse_listen_address(c.text), c.expected) << c.text;
    if (c.expected) {
      EXPECT_EQ(c.expected->text(), c.text);
    }
  }
}

plist::Dict parse(const std::string& body) {
  plist::Parsed parsed =
      plist::parse_xml("<?xml version=\"1.0\"?><plist version=\"1.0\"><dict>" + body + "</dict></plist>");
  EXPECT_TRUE(parsed.ok()) << parsed.error;
  return parsed.value.as_dict() ? *parsed.value.as_dict() : plist::Dict();
}

TEST(DaemonConfigTest, AbsentKeysTakeTheDefaultsAndTheHostsOwnKeysAreKnown) {
  std::string error;
  std::vector<std::string> warnings;
  std::optional<DaemonConfig> config =
      read_daemon_config(parse("<key>jobs</key><dict/><key>serviceModules</key><dict/><key>logs</key><dict/>"
                               "<key>paths</key><dict/><key>meteredInterfaces</key><array/><key>tools</key><dict/>"
                               "<key>lisen</key><string>0.0.0.0:1</string><key>Socket</key><string>/x</string>"),
                         &error, &warnings);
  ASSERT_TRUE(config) << error;
  EXPECT_EQ(warnings, (std::vector<std::string>{"unknown host configuration key \"lisen\" ignored",
                                                "unknown host configuration key \"Socket\" ignored"}));
  EXPECT_EQ(config->listen, (std::vector<ListenAddress>{{Family::kIPv4, "0.0.0.0", 311}, {Family::kIPv6, "::", 311}}));
  EXPECT_EQ(config->socket_path, "/run/hubwarden/hubwardend.sock");
  EXPECT_EQ(config->idle_period, std::chrono::seconds(10));
  EXPECT_EQ(config->tls_certificate, "/etc/hubwarden/tls/hubwardend.crt");
  EXPECT_EQ(config->tls_key, "/etc/hubwarden/tls/hubwardend.key");
  EXPECT_EQ(config->pam_service, "hubwardend");
  EXPECT_EQ(config->max_body_bytes, 8u * 1024 * 1024);
  EXPECT_TRUE(config->metrics_need_authentication);
}

TEST(DaemonConfigTest, EveryKeyIsReadWhenUsable) {
  std::string error;
  std::vector<std::string> warnings;
  std::optional<DaemonConfig> config =
      read_daemon_config(parse("<key>listen</key><array><string>127.0.0.1:0</string><string>[::1]:8311</string></array>"
                               "<key>socket</key><string>/tmp/s/hub.sock</string>"
                               "<key>idlePeriod</key><real>0.2</real>"
                               "<key>tlsCertificate</key><string>/srv/tls/a.crt</string>"
                               "<key>tlsKey</key><string>/srv/tls/a.key</string>"
                               "<key>pamService</key><string>hubwarden-test</string>"
                               "<key>maxBodyBytes</key><integer>1024</integer>"
                               "<key>metricsNeedAuthentication</key><false/>"),
                         &error, &warnings);
  ASSERT_TRUE(config) << error;
  EXPECT_TRUE(warnings.empty());
  EXPECT_EQ(config->listen,
            (std::vector<ListenAddress>{{Family::kIPv4, "127.0.0.1", 0}, {Family::kIPv6, "::1", 8311}}));
  EXPECT_EQ(config->socket_path, "/tmp/s/hub.sock");
  EXPECT_EQ(config->idle_period, std::chrono::milliseconds(200));
  EXPECT_EQ(config->tls_certificate, "/srv/tls/a.crt");
  EXPECT_EQ(config->tls_key, "/srv/tls/a.key");
  EXPECT_EQ(config->pam_service, "hubwarden-test");
  EXPECT_EQ(config->max_body_bytes, 1024u);
  EXPECT_FALSE(config->metrics_need_authentication);
}

TEST(DaemonConfigTest, SmallerFormsOfListenAndIdlePeriod) {
  struct Case {
    const char* body;
    std::vector<ListenAddress> listen;
    std::chrono::milliseconds period;
  };
  const Case cases[] = {
      {"<key>listen</key><string>[::1]:1</string><key>idlePeriod</key><integer>3</integer>",
       {{Family::kIPv6, "::1", 1}},
       std::chrono::milliseconds(3000)},
      // A socket-only daemon; a period far below a millisecond still runs.
      {"<key>listen</key><array/><key>idlePeriod</key><real>0.0001</real>", {}, std::chrono::milliseconds(1)},
  };
  for (const Case& c : cases) {
    std::string error;
    std::vector<std::string> warnings;
    std::optional<DaemonConfig> config = read_daemon_config(parse(c.body), &error, &warnings);
    ASSERT_TRUE(config) << c.body << ": " << error;
    EXPECT_EQ(config->listen, c.listen) << c.body;
    EXPECT_EQ(config->idle_period, c.period) << c.body;
  }
}

TEST(DaemonConfigTest, UnusableValuesStopTheStartNamingTheKey) {
  struct Case {
    const char* body;
    const char* key;
  };
  const Case cases[] = {
      {"<key>listen</key><integer>311</integer>", "listen"},
      {"<key>listen</key><array><string>0.0.0.0:311</string><integer>1</integer></array>", "listen"},
      {"<key>listen</key><string>localhost:311</string>", "listen"},
      {"<key>listen</key><array><string>[::]:1</string><string>[::]:1</string></array>", "listen"},
      {"<key>socket</key><string>run/hub.sock</string>", "socket"},
      {"<key>socket</key><string></string>", "socket"},
      {"<key>socket</key><true/>", "socket"},
      {"<key>socket</key><string>/run/"
       "aaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaa"
       "aaaaaaaaaaaaaaaaaaaaaaaaaa.sock</string>",
       "socket"},
      {"<key>idlePeriod</key><integer>0</integer>", "idlePeriod"},
      {"<key>idlePeriod</key><real>-1</real>", "idlePeriod"},
      {"<key>idlePeriod</key><real>nan</real>", "idlePeriod"},
      {"<key>idlePeriod</key><integer>86401</integer>", "idlePeriod"},
      {"<key>idlePeriod</key><string>10</string>", "idlePeriod"},
      {"<key>idlePeriod</key><true/>", "idlePeriod"},
      {"<key>tlsCertificate</key><string>tls/a.crt</string>", "tlsCertificate"},
      {"<key>tlsKey</key><dict/>", "tlsKey"},
      {"<key>pamService</key><string>../shadow</string>", "pamService"},
      {"<key>pamService</key><string></string>", "pamService"},
      {"<key>pamService</key><string>..</string>", "pamService"},
      {"<key>maxBodyBytes</key><integer>0</integer>", "maxBodyBytes"},
      {"<key>maxBodyBytes</key><integer>-5</integer>", "maxBodyBytes"},
      {"<key>maxBodyBytes</key><real>1024.5</real>", "maxBodyBytes"},
      {"<key>maxBodyBytes</key><integer>18446744073709551615</integer>", "maxBodyBytes"},
      {"<key>metricsNeedAuthentication</key><string>YES</string>", "metricsNeedAuthentication"},
      {"<key>metricsNeedAuthentication</key><integer>1</integer>", "metricsNeedAuthentication"},
  };
  for (const Case& c : cases) {
    std::string error;
    std::vector<std::string> warnings;
    EXPECT_FALSE(read_daemon_config(parse(c.body), &error, &warnings)) << c.body;
    EXPECT_NE(error.find(std::string("\"") + c.key + "\""), std::string::npos) << c.body << ": " << error;
  }
}

}  // namespace
}  // namespace hubwardend::serve
