#include <gtest/gtest.h>
#include <unistd.h>

#include "platform/linux/basics.h"
#include "platform/linux/basics_test_support.h"
#include "platform/linux/text_files.h"

namespace platform {
namespace {

using testing::ScratchRoot;

TEST(ShellAssignmentsTest, QuotingCommentsAndJunk) {
  auto vars = linux_text::parse_shell_assignments(
      "# comment\n"
      "NAME=\"Debian GNU/Linux\"\n"
      "  ID=debian   # trailing comment\n"
      "PRETTY='It'\\''s \"mine\"'\n"
      "ESC=\"a \\\"b\\\" \\$c \\\\d \\n\"\n"
      "BARE=one\\ two\n"
      "OPEN=\"never closed\n"
      "AFTER=ok\n"
      "not an assignment\n"
      "9BAD=x\n"
      "=nothing\n"
      "EMPTY=\n"
      "export EXPORTED=yes");
  std::vector<std::pair<std::string, std::string>> expected = {{"NAME", "Debian GNU/Linux"},
                                                               {"ID", "debian"},
                                                               {"PRETTY", "It's \"mine\""},
                                                               {"ESC", "a \"b\" $c \\d \\n"},
                                                               {"BARE", "one two"},
                                                               {"OPEN", "never closed"},
                                                               {"AFTER", "ok"},
                                                               {"EMPTY", ""},
                                                               {"EXPORTED", "yes"}};
  EXPECT_EQ(vars, expected);
  EXPECT_EQ(linux_text::shell_variable("A=1\nA=2\n", "A"), "2");
  EXPECT_FALSE(linux_text::shell_variable("AB=1\n", "A"));
}

TEST(LinuxHostInfoTest, SystemVersionFromOsReleaseAndTheServerRecord) {
  ScratchRoot root;
  auto host = make_linux_host_info();
  EXPECT_FALSE(host->system_version());

  root.write("/etc/os-release", "NAME=\"Debian GNU/Linux\"\nVERSION=\"12 (bookworm)\"\nVERSION_ID=\"12\"\n");
  plist::Dict expected{{"ProductName", "Debian GNU/Linux"}, {"ProductVersion", "12"}};
  std::optional<plist::Dict> record = host->system_version();
  ASSERT_TRUE(record);
  EXPECT_EQ(*record, expected);
  EXPECT_EQ(record->at_index(0).first, "ProductName");

  root.write("/etc/os-release", "BUILD_ID=2024.05.01\nNAME='Arch Linux'\nVERSION='rolling release'\n");
  expected = {
      {"ProductName", "Arch Linux"}, {"ProductVersion", "rolling release"}, {"ProductBuildVersion", "2024.05.01"}};
  EXPECT_EQ(host->system_version(), expected);

  root.write("/etc/os-release", "ID=nameless\n");
  EXPECT_FALSE(host->system_version());

  // The server record only when installed and well formed.
  EXPECT_FALSE(host->server_version());

  root.write("/usr/share/hubwardend/ServerVersion.plist", "<plist><dict><key>ProductName");
  EXPECT_FALSE(host->server_version());
  root.write("/usr/share/hubwardend/ServerVersion.plist",
             "<?xml version=\"1.0\"?><plist version=\"1.0\"><array/></plist>");
  EXPECT_FALSE(host->server_version());

  root.write("/usr/share/hubwardend/ServerVersion.plist",
             "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\"><dict>"
             "<key>Other</key><string>x</string>"
             "<key>ProductVersion</key><string>3.2 Server</string>"
             "<key>ProductName</key><string>Hubwarden Server</string>"
             "<key>ProductBuildVersion</key><string>3B12</string>"
             "</dict></plist>\n");
  record = host->server_version();
  ASSERT_TRUE(record);
  expected = {{"ProductName", "Hubwarden Server"}, {"ProductVersion", "3.2 Server"}, {"ProductBuildVersion", "3B12"}};
  EXPECT_EQ(*record, expected);
  EXPECT_FALSE(record->contains("Other"));
}

TEST(LinuxHostInfoTest, LiveKernelAndHostName) {
  auto host = make_linux_host_info();
  EXPECT_EQ(host->kernel_type(), "Linux");
  EXPECT_FALSE(host->kernel_release().value_or("").empty());
  char name[256] = {};
  ASSERT_EQ(::gethostname(name, sizeof name - 1), 0);
  EXPECT_EQ(host->host_name(), std::string(name));
}

TEST(LinuxSysconfigTest, NamesFromMachineInfoAndHostname) {
  ScratchRoot root;
  auto config = make_linux_sysconfig();
  EXPECT_TRUE(config->open("test"));
  // A sandbox without the files has no names, not the real machine's.
  EXPECT_FALSE(config->computer_name());
  EXPECT_FALSE(config->local_host_name());

  root.write("/etc/hostname", "# set by the installer\n\n  mail.example.org  \nignored\n");
  EXPECT_EQ(config->computer_name(), "mail.example.org");
  EXPECT_EQ(config->local_host_name(), "mail");

  root.write("/etc/machine-info", "CHASSIS=server\nPRETTY_HOSTNAME=\"Mail Server \\\"B\\\"\"\n");
  EXPECT_EQ(config->computer_name(), "Mail Server \"B\"");
  root.write("/etc/machine-info", "PRETTY_HOSTNAME=\n");
  EXPECT_EQ(config->computer_name(), "mail.example.org");

  root.write("/etc/hostname", ".leading-dot\n");
  EXPECT_FALSE(config->local_host_name());

  ScratchRoot missing;
  std::filesystem::remove_all(missing.path("/"));
  EXPECT_FALSE(config->open("test"));
}

TEST(SyslogLogTest, WritesOddLinesWithoutTrouble) {
  auto log = make_syslog_log();
  log->write(Priority::Debug, "hubwarden_info: test line with %s %n format characters");
  log->write(Priority::Error, std::string_view("embedded\0nul", 12));
  log->write(Priority::Notice, "");
}

}  // namespace
}  // namespace platform
