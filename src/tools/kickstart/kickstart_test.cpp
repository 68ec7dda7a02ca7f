#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <sstream>

#include "platform/file_util.h"
#include "platform/linux/basics.h"
#include "tools/kickstart/command_line.h"
#include "tools/kickstart/remote_desktop.h"

namespace kickstart {
namespace {

// A scratch root with the VNC server's folder, a group file and a stand-in
// systemctl whose behaviour each test writes.
class KickstartTest : public ::testing::Test {
 protected:
  void SetUp() override {
    char pattern[] = "/tmp/kickstart_test.XXXXXX";
    ASSERT_NE(::mkdtemp(pattern), nullptr);
    dir_ = pattern;
    root_ = dir_ + "/root";
    ASSERT_TRUE(platform::make_directories(root_ + "/etc/tigervnc"));
    write(root_ + "/etc/group", "root:x:0:\nsudo:x:27:alice,bob\n");
    stand_in("exit 0");
  }
  void TearDown() override { std::filesystem::remove_all(dir_); }

  void write(const std::string& path, const std::string& text) {
    ASSERT_TRUE(platform::write_file_atomically(path, text));
  }
  std::string read(const std::string& path) { return platform::read_file(path).value_or("<missing>"); }

  // The stand-in records its arguments, then runs body.
  void stand_in(const std::string& body) {
    std::string path = dir_ + "/systemctl";
    write(path, "#!/bin/sh\necho \"$@\" >> " + dir_ + "/calls\n" + body + "\n");
    ::chmod(path.c_str(), 0755);
  }

  int run(std::vector<std::string> args) {
    args.insert(args.end(), {"-root", root_, "-systemctl", dir_ + "/systemctl", "-timeout", "1"});
    CommandLine line = parse_command_line(args);
    EXPECT_TRUE(line.ok()) << line.error;
    out_.str("");
    err_.str("");
    return run_actions(line.options, *tasks_, out_, err_);
  }

  std::string dir_, root_;
  std::unique_ptr<platform::Tasks> tasks_ = platform::make_process_tasks();
  std::ostringstream out_, err_;
};

TEST_F(KickstartTest, SwitchesTheUnitAndKeepsTheAdministratorsLines) {
  write(root_ + "/etc/tigervnc/vncserver-config-mandatory",
        "# site policy\n$geometry = \"1280x800\";\n  $securitytypes = \"None\";\n$PlainUsers=\"mallory\";\n");
  write(root_ + "/etc/tigervnc/vncserver.users", "# users\n:2=lisa");

  EXPECT_EQ(run({"-activate"}), 0) << err_.str();
  EXPECT_EQ(run({"-configure", "-allowAccessFor", "-specifiedUsers"}), 0) << err_.str();
  EXPECT_EQ(out_.str(), "");  // quiet unless asked
  EXPECT_EQ(read(root_ + "/etc/RemoteManagement.launchd").find("\ntigervncserver@:1.service\n") != std::string::npos,
            true);
  EXPECT_EQ(read(root_ + "/etc/tigervnc/vncserver.users"), "# users\n:2=lisa\n:1=alice\n");
  EXPECT_EQ(read(root_ + "/etc/tigervnc/vncserver-config-mandatory"),
            "# site policy\n$geometry = \"1280x800\";\n"
            "# Remote desktop access, set by hubwarden's kickstart tool: system logins (PAM) over TLS.\n"
            "$localhost = \"no\";\n$SecurityTypes = \"X509Plain,TLSPlain\";\n$PlainUsers = \"alice,bob\";\n");

  // The same access again changes nothing, so the running server is left alone.
  EXPECT_EQ(run({"-configure", "-allowAccessFor", "-specifiedUsers"}), 0);
  EXPECT_EQ(run({"-deactivate"}), 0) << err_.str();
  EXPECT_EQ(read(root_ + "/etc/RemoteManagement.launchd"), "<missing>");
  EXPECT_EQ(read(dir_ + "/calls"),
            "--quiet enable --now tigervncserver@:1.service\n"
            "--quiet try-restart tigervncserver@:1.service\n"
            "--quiet disable --now tigervncserver@:1.service\n");

  // An administrator's own display mapping wins over the default user.
  write(root_ + "/etc/tigervnc/vncserver.users", ":1=carol\n");
  EXPECT_EQ(run({"-activate", "-users", "dave"}), 0);
  EXPECT_EQ(read(root_ + "/etc/tigervnc/vncserver.users"), ":1=carol\n");
}

TEST_F(KickstartTest, FailsWithOneLineWhenSystemctlFailsWarnsOrHangs) {
  stand_in("echo 'Unit tigervncserver@:1.service not found.' >&2; exit 5");
  EXPECT_EQ(run({"-activate"}), 1);
  EXPECT_EQ(err_.str(),
            "kickstart: systemctl enable --now tigervncserver@:1.service failed with status 5: "
            "Unit tigervncserver@:1.service not found.\n");
  EXPECT_EQ(read(root_ + "/etc/RemoteManagement.launchd"), "<missing>");

  write(root_ + "/etc/RemoteManagement.launchd", "on\n");
  stand_in("echo 'Warning: unit file changed on disk' >&2");
  EXPECT_EQ(run({"-deactivate"}), 1);
  EXPECT_NE(err_.str().find("warned: Warning: unit file changed on disk"), std::string::npos) << err_.str();
  EXPECT_EQ(read(root_ + "/etc/RemoteManagement.launchd"), "on\n");  // still on, as far as anyone knows

  stand_in("sleep 60");
  EXPECT_EQ(run({"-deactivate"}), 1);
  EXPECT_EQ(err_.str(), "kickstart: systemctl disable --now tigervncserver@:1.service did not finish within 1 s\n");

  // Nobody to let in, or no server installed: refused before systemctl runs.
  write(root_ + "/etc/group", "sudo:x:27:\n");
  EXPECT_EQ(run({"-configure", "-allowAccessFor", "-specifiedUsers"}), 1);
  EXPECT_NE(err_.str().find("no users to let in"), std::string::npos);
  std::filesystem::remove_all(root_ + "/etc/tigervnc");
  EXPECT_EQ(run({"-activate", "-users", "alice"}), 1);
  EXPECT_NE(err_.str().find("is the VNC server installed?"), std::string::npos);
}

TEST(KickstartCommandLine, RefusesWhatItCannotDoSafely) {
  EXPECT_TRUE(parse_command_line({"-configure", "-allowAccessFor", "-specifiedUsers"}).ok());
  EXPECT_TRUE(parse_command_line({"-restart", "-agent"}).ok());
  EXPECT_TRUE(parse_command_line({"-help"}).ok());
  for (std::vector<std::string> bad : std::vector<std::vector<std::string>>{
           {},
           {"-activate", "-bogus"},
           {"-activate", "-deactivate"},
           {"-configure"},
           {"-configure", "-allowAccessFor"},
           {"-configure", "-allowAccessFor", "-everyone"},
           {"-activate", "-unit", "a;rm -rf /"},
           {"-activate", "-unit", "--now.service"},
           {"-activate", "-unit", "x.sh"},
           {"-activate", "-users", "alice,\"bob\""},
           {"-activate", "-users", ","},
           {"-activate", "-timeout", "0"},
           {"-activate", "-root", "relative"},
       }) {
    EXPECT_FALSE(parse_command_line(bad).ok()) << ::testing::PrintToString(bad);
  }
  EXPECT_TRUE(is_valid_unit_name("tigervncserver@:1.service"));
  EXPECT_TRUE(is_valid_unit_name("a\\x2db.service"));
}

}  // namespace
}  // namespace kickstart
