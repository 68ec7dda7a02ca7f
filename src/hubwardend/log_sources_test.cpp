// Where the system logs are: defaults, the shipped file and overrides.
#include "hubwardend/log_sources.h"

#include <gtest/gtest.h>

#include "platform/file_util.h"
#include "platform/linux/basics_test_support.h"
#include "platform/linux/job_map.h"
#include "plist/codec.h"

namespace hubwardend {
namespace {

using Strings = std::vector<std::string>;

TEST(LogSources, ShippedFileMatchesTheCompiledInDefaults) {
  std::optional<std::string> text = platform::read_file(platform::testing::shipped_host_config_path());
  ASSERT_TRUE(text) << platform::testing::shipped_host_config_path();
  plist::Parsed parsed = plist::parse_xml(*text);
  ASSERT_TRUE(parsed.ok()) << parsed.error;
  ASSERT_TRUE(parsed.value.as_dict());
  LogSources from_file;
  std::string error;
  ASSERT_TRUE(apply_log_config(*parsed.value.as_dict(), &from_file, &error)) << error;
  EXPECT_EQ(from_file, default_log_sources());
  // Every log the console names has somewhere to be found.
  for (const char* identifier : {"systemLog", "kernelLog", "softwareUpdateLog", "secureLog"})
    EXPECT_TRUE(from_file.count(identifier)) << identifier;
}

TEST(LogSources, AdministratorEntriesReplaceWholeEntriesAndBrokenFilesAreSkipped) {
  platform::testing::ScratchRoot root;
  EXPECT_EQ(load_log_sources(), default_log_sources());

  root.write(platform::kHostConfigPath,
             "<plist version=\"1.0\"><dict><key>logs</key><dict>"
             "<key>secureLog</key><dict><key>files</key><array><string>/var/log/authpriv.log</string></array>"
             "</dict>"
             "<key>kernelLog</key><dict><key>journal</key><array><string>SYSLOG_IDENTIFIER=kernel</string>"
             "<string>+</string><string>_TRANSPORT=kernel</string></array></dict>"
             "<key>auditLog</key><dict><key>files</key><array><string>/var/log/audit/audit.log</string></array>"
             "</dict></dict></dict></plist>");
  LogSources sources = load_log_sources();
  EXPECT_EQ(sources["secureLog"].files, Strings{"/var/log/authpriv.log"});
  EXPECT_FALSE(sources["secureLog"].journal) << "an entry without \"journal\" has none";
  EXPECT_TRUE(sources["kernelLog"].files.empty());
  EXPECT_EQ(sources["kernelLog"].journal, (Strings{"SYSLOG_IDENTIFIER=kernel", "+", "_TRANSPORT=kernel"}));
  EXPECT_EQ(sources["auditLog"].files, Strings{"/var/log/audit/audit.log"});
  EXPECT_EQ(sources["systemLog"], default_log_sources()["systemLog"]);

  const auto logs = [](const std::string& entry) {
    return "<plist version=\"1.0\"><dict><key>logs</key>" + entry + "</dict></plist>";
  };
  for (const std::string& broken :
       {logs("<array/>"), logs("<dict><key>secureLog</key><array/></dict>"),
        logs("<dict><key>secureLog</key><dict><key>files</key><array><string>var/log/x</string></array></dict></dict>"),
        logs("<dict><key>secureLog</key><dict><key>files</key><string>/var/log/x</string></dict></dict>"),
        logs("<dict><key>systemLog</key><dict><key>files</key><array/></dict>"
             "<key>secureLog</key><dict><key>journal</key><array><string>facility=4</string></array></dict></dict>"),
        std::string("<plist version=\"1.0\"><dict><key>logs</key><dict>")}) {
    root.write(platform::kHostConfigPath, broken);
    EXPECT_EQ(load_log_sources(), default_log_sources()) << broken;
  }
}

}  // namespace
}  // namespace hubwardend
