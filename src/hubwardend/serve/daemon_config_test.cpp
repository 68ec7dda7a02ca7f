#include "hubwardend/serve/daemon_config.h"

#include <gtest/gtest.h>

#include <functional>

#include "plist/codec.h"

namespace hubwardend::serve {
namespace {

using Family = ListenAddress::Family;

TEST(DaemonConfigTest, ListenAddressesAreNumericWithAPort) {
  const std::pair<const char*, std::optional<ListenAddress>> cases[] = {
      {"127.0.0.1:0", ListenAddress{Family::kIPv4, "127.0.0.1", 0}},
      {"[::1]:65535", ListenAddress{Family::kIPv6, "::1", 65535}},
      {"[::ffff:10.0.0.1]:8443", ListenAddress{Family::kIPv6, "::ffff:10.0.0.1", 8443}},
      {"127.0.0.1:65536", std::nullopt},
      {"127.0.0.1:+80", std::nullopt},
      {"127.0.0.1:000311", std::nullopt},
      {"127.0.0.1:", std::nullopt},
      {"127.0.0.1", std::nullopt},
      {"localhost:311", std::nullopt},
      {"127.1:311", std::nullopt},
      {"::1:311", std::nullopt},
      {"[::1]311", std::nullopt},
      {"[::1", std::nullopt},
      {"[]:311", std::nullopt},
      {"[127.0.0.1]:311", std::nullopt},
      {"[fe80::1%eth0]:311", std::nullopt},
  };
  for (const auto& [text, expected] : cases) {
    EXPECT_EQ(parse_listen_address(text), expected) << text;
    if (expected) {
      EXPECT_EQ(expected->text(), text);
    }
  }
}

plist::Dict parse(const std::string& body) {
  plist::Parsed parsed =
      plist::parse_xml("<?xml version=\"1.0\"?><plist version=\"1.0\"><dict>" + body + "</dict></plist>");
  EXPECT_TRUE(parsed.ok()) << parsed.error;
  return parsed.value.as_dict() ? *parsed.value.as_dict() : plist::Dict();
}

TEST(DaemonConfigTest, UsableValuesAreReadAndOnlyForeignKeysWarn) {
  DaemonConfig defaults;
  EXPECT_EQ(defaults.listen, (std::vector<ListenAddress>{{Family::kIPv4, "0.0.0.0", 311}, {Family::kIPv6, "::", 311}}));
  EXPECT_EQ(defaults.idle_period, std::chrono::seconds(10));
  EXPECT_EQ(defaults.max_body_bytes, 8u * 1024 * 1024);

  struct Case {
    std::string body;
    std::function<void(DaemonConfig*)> expect;
    std::vector<std::string> warnings;
  };
  const Case cases[] = {
      {"<key>jobs</key><dict/><key>serviceModules</key><dict/><key>logs</key><dict/><key>paths</key><dict/>"
       "<key>meteredInterfaces</key><array/><key>tools</key><dict/><key>lisen</key><string>0.0.0.0:1</string>",
       [](DaemonConfig*) {},
       {"unknown host configuration key \"lisen\" ignored"}},
      {"<key>listen</key><array><string>127.0.0.1:0</string><string>[::1]:8311</string></array>"
       "<key>socket</key><string>/tmp/s/hub.sock</string><key>idlePeriod</key><real>0.2</real>"
       "<key>tlsCertificate</key><string>/srv/a.crt</string><key>tlsKey</key><string>/srv/a.key</string>"
       "<key>pamService</key><string>hubwarden-test</string><key>maxBodyBytes</key><integer>1024</integer>"
       "<key>metricsNeedAuthentication</key><false/>",
       [](DaemonConfig* c) {
         c->listen = {{Family::kIPv4, "127.0.0.1", 0}, {Family::kIPv6, "::1", 8311}};
         c->socket_path = "/tmp/s/hub.sock";
         c->idle_period = std::chrono::milliseconds(200);
         c->tls_certificate = "/srv/a.crt";
         c->tls_key = "/srv/a.key";
         c->pam_service = "hubwarden-test";
         c->max_body_bytes = 1024;
         c->metrics_need_authentication = false;
       },
       {}},
      {"<key>listen</key><string>[::1]:1</string><key>idlePeriod</key><integer>3</integer>",
       [](DaemonConfig* c) {
         c->listen = {{Family::kIPv6, "::1", 1}};
         c->idle_period = std::chrono::seconds(3);
       },
       {}},
      // A socket-only daemon; a period far below a millisecond still runs.
      {"<key>listen</key><array/><key>idlePeriod</key><real>0.0001</real>",
       [](DaemonConfig* c) {
         c->listen.clear();
         c->idle_period = std::chrono::milliseconds(1);
       },
       {}},
  };
  for (const Case& c : cases) {
    std::string error;
    std::vector<std::string> warnings;
    std::optional<DaemonConfig> config = read_daemon_config(parse(c.body), &error, &warnings);
    ASSERT_TRUE(config) << c.body << ": " << error;
    DaemonConfig expected;
    c.expect(&expected);
    EXPECT_EQ(*config, expected) << c.body;
    EXPECT_EQ(warnings, c.warnings) << c.body;
  }
}

TEST(DaemonConfigTest, UnusableValuesStopTheStartNamingTheKey) {
  const std::pair<const char*, const char*> cases[] = {
      {"<key>listen</key><integer>311</integer>", "listen"},
      {"<key>listen</key><array><string>0.0.0.0:311</string><integer>1</integer></array>", "listen"},
      {"<key>listen</key><string>localhost:311</string>", "listen"},
      {"<key>listen</key><array><string>[::]:1</string><string>[::]:1</string></array>", "listen"},
      {"<key>socket</key><string>run/hub.sock</string>", "socket"},
      {"<key>socket</key><true/>", "socket"},
      {"<key>socket</key><string>/run/aaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaa"
       "aaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaa.sock</string>",
       "socket"},
      {"<key>idlePeriod</key><integer>0</integer>", "idlePeriod"},
      {"<key>idlePeriod</key><real>nan</real>", "idlePeriod"},
      {"<key>idlePeriod</key><integer>86401</integer>", "idlePeriod"},
      {"<key>idlePeriod</key><string>10</string>", "idlePeriod"},
      {"<key>idlePeriod</key><true/>", "idlePeriod"},
      {"<key>tlsCertificate</key><string>tls/a.crt</string>", "tlsCertificate"},
      {"<key>tlsKey</key><dict/>", "tlsKey"},
      {"<key>pamService</key><string>../shadow</string>", "pamService"},
      {"<key>pamService</key><string>..</string>", "pamService"},
      {"<key>maxBodyBytes</key><integer>-5</integer>", "maxBodyBytes"},
      {"<key>maxBodyBytes</key><real>1024.5</real>", "maxBodyBytes"},
      {"<key>maxBodyBytes</key><integer>18446744073709551615</integer>", "maxBodyBytes"},
      {"<key>metricsNeedAuthentication</key><string>YES</string>", "metricsNeedAuthentication"},
  };
  for (const auto& [body, key] : cases) {
    std::string error;
    std::vector<std::string> warnings;
    EXPECT_FALSE(read_daemon_config(parse(body), &error, &warnings)) << body;
    EXPECT_NE(error.find(std::string("\"") + key + "\""), std::string::npos) << body << ": " << error;
  }
}

}  // namespace
}  // namespace hubwardend::serve
