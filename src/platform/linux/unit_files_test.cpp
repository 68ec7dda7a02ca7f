// Unit-file state and enabling links in a sandbox root.
#include "platform/linux/unit_files.h"

#include <errno.h>
#include <gtest/gtest.h>

#include "platform/linux/basics_test_support.h"

namespace platform {
namespace {

using testing::ScratchRoot;

constexpr char kSsh[] =
    "[Unit]\nDescription=OpenBSD Secure Shell server\n\n"
    "[Service]\nExecStartPre=/usr/sbin/sshd -t\nExecStart=/usr/sbin/sshd -D $SSHD_OPTS\n"
    "PIDFile=/run/sshd.pid\n\n"
    "[Install]\nWantedBy=multi-user.target\nAlias=sshd.service\n";

constexpr char kVnc[] =
    "[Service]\nExecStart=-/usr/bin/vncserver %i\n\n"
    "[Install]\nWantedBy=graphical.target\nAlias=vnc@%i.service\n";

TEST(UnitFiles, FindsAndParsesUnitsAcrossDirectoriesWithMaskingTemplatesAndAliases) {
  ScratchRoot root;
  root.write("/lib/systemd/system/ssh.service", kSsh);
  root.write("/usr/lib/systemd/system/cups.service", "[Install]\nWantedBy=printer.target\n");
  // An admin copy in /etc shadows the packaged one.
  root.write("/usr/lib/systemd/system/nginx.service", "[Install]\nWantedBy=multi-user.target\n");
  root.write("/etc/systemd/system/nginx.service", "[Service]\nExecStart=/opt/nginx/sbin/nginx\n");
  root.link("/etc/systemd/system/smbd.service", "/dev/null");
  root.write("/lib/systemd/system/smbd.service", "[Install]\nWantedBy=multi-user.target\n");
  root.write("/lib/systemd/system/vncserver@.service", kVnc);
  root.link("/etc/systemd/system/sshd.service", "/lib/systemd/system/ssh.service");
  root.write("/lib/systemd/system/systemd-journald.service", "[Service]\nExecStart=/lib/systemd/journald\n");

  std::optional<UnitFileInfo> ssh = find_unit_file("ssh.service");
  ASSERT_TRUE(ssh);
  EXPECT_EQ(ssh->path, "/lib/systemd/system/ssh.service");
  EXPECT_EQ(ssh->exec_program, "/usr/sbin/sshd");
  EXPECT_EQ(ssh->pid_file, "/run/sshd.pid");
  EXPECT_EQ(ssh->wanted_by, std::vector<std::string>{"multi-user.target"});
  EXPECT_EQ(ssh->aliases, std::vector<std::string>{"sshd.service"});
  EXPECT_TRUE(ssh->alias_of.empty());

  EXPECT_TRUE(find_unit_file("cups.service"));
  EXPECT_EQ(find_unit_file("nginx.service")->exec_program, "/opt/nginx/sbin/nginx");
  EXPECT_EQ(unit_file_state("nginx.service"), UnitFileState::kStatic);

  std::optional<UnitFileInfo> smbd = find_unit_file("smbd.service");
  ASSERT_TRUE(smbd);
  EXPECT_TRUE(smbd->masked);
  EXPECT_EQ(unit_file_state("smbd.service"), UnitFileState::kMasked);

  std::optional<UnitFileInfo> instance = find_unit_file("vncserver@:1.service");
  ASSERT_TRUE(instance);
  EXPECT_EQ(instance->path, "/lib/systemd/system/vncserver@.service");
  EXPECT_EQ(instance->exec_program, "/usr/bin/vncserver");
  EXPECT_EQ(instance->aliases, std::vector<std::string>{"vnc@:1.service"});
  EXPECT_TRUE(instance->alias_of.empty());

  std::optional<UnitFileInfo> alias = find_unit_file("sshd.service");
  ASSERT_TRUE(alias);
  EXPECT_EQ(alias->alias_of, "ssh.service");

  EXPECT_EQ(unit_file_state("systemd-journald.service"), UnitFileState::kStatic);
  // Its Alias= link alone makes ssh count as enabled.
  EXPECT_EQ(unit_file_state("ssh.service"), UnitFileState::kEnabled);
  EXPECT_EQ(unit_file_state("cups.service"), UnitFileState::kDisabled);
  EXPECT_EQ(unit_file_state("absent.service"), UnitFileState::kNotFound);
  EXPECT_EQ(unit_file_state("absent@x.service"), UnitFileState::kNotFound);
  // Continuations, resets, command prefixes and specifiers.
  root.write("/lib/systemd/system/odd.service",
             "# comment\n"
             "[Service]\n"
             "ExecStart=\n"
             "ExecStart=!!\"/usr/sbin/odd\" --flag \\\n"
             "   --more\n"
             "ExecStart=/usr/sbin/second\n"
             "[Install]\n"
             "WantedBy=a.target \\\n"
             "  b.target\n"
             "WantedBy=\n"
             "WantedBy=c.target %q.target\n"
             "Alias=odd-%n\n"
             "; trailing comment\n");
  std::optional<UnitFileInfo> odd = find_unit_file("odd.service");
  ASSERT_TRUE(odd);
  EXPECT_EQ(odd->exec_program, "/usr/sbin/odd");
  // The reset drops a and b; the unknown specifier drops its word only.
  EXPECT_EQ(odd->wanted_by, std::vector<std::string>{"c.target"});
  EXPECT_EQ(odd->aliases, std::vector<std::string>{"odd-odd.service"});
}

TEST(UnitFiles, EnableThenDisableUnitsAliasesAndInstances) {
  ScratchRoot root;
  root.write("/lib/systemd/system/ssh.service", kSsh);
  root.write("/lib/systemd/system/snmpd.service",
             "[Install]\nWantedBy=multi-user.target\nRequiredBy=network-online.target\n");

  ASSERT_EQ(enable_unit_file("ssh.service"), 0);
  // Links carry the path as seen from inside the root, so the tree stays
  // valid when the sandbox becomes a real root.
  EXPECT_EQ(root.link_target("/etc/systemd/system/multi-user.target.wants/ssh.service"),
            "/lib/systemd/system/ssh.service");
  EXPECT_EQ(root.link_target("/etc/systemd/system/sshd.service"), "/lib/systemd/system/ssh.service");
  EXPECT_EQ(unit_file_state("ssh.service"), UnitFileState::kEnabled);
  EXPECT_EQ(unit_file_state("sshd.service"), UnitFileState::kEnabled);
  // Enabling twice is harmless.
  EXPECT_EQ(enable_unit_file("ssh.service"), 0);

  ASSERT_EQ(enable_unit_file("snmpd.service"), 0);
  EXPECT_TRUE(root.exists("/etc/systemd/system/network-online.target.requires/snmpd.service"));

  // Disabling through the alias name reaches the real unit.
  ASSERT_EQ(disable_unit_file("sshd.service"), 0);
  EXPECT_FALSE(root.exists("/etc/systemd/system/multi-user.target.wants/ssh.service"));
  EXPECT_FALSE(root.exists("/etc/systemd/system/sshd.service"));
  EXPECT_EQ(unit_file_state("ssh.service"), UnitFileState::kDisabled);
  EXPECT_EQ(unit_file_state("sshd.service"), UnitFileState::kNotFound);
  // The other unit's links are left alone; no temporary links linger.
  EXPECT_EQ(unit_file_state("snmpd.service"), UnitFileState::kEnabled);
  for (const auto& entry :
       std::filesystem::directory_iterator(root.path("/etc/systemd/system/multi-user.target.wants"))) {
    EXPECT_EQ(entry.path().filename().string().rfind(".#", 0), std::string::npos) << entry.path();
  }

  ASSERT_EQ(disable_unit_file("snmpd.service"), 0);
  EXPECT_EQ(unit_file_state("snmpd.service"), UnitFileState::kDisabled);
  EXPECT_EQ(disable_unit_file("snmpd.service"), 0);
  // Template instances are enabled one by one.
  root.write("/lib/systemd/system/vncserver@.service", kVnc);

  ASSERT_EQ(enable_unit_file("vncserver@:1.service"), 0);
  EXPECT_EQ(root.link_target("/etc/systemd/system/graphical.target.wants/vncserver@:1.service"),
            "/lib/systemd/system/vncserver@.service");
  EXPECT_EQ(unit_file_state("vncserver@:1.service"), UnitFileState::kEnabled);
  EXPECT_EQ(unit_file_state("vncserver@:2.service"), UnitFileState::kDisabled);
  // The instance's link, found by name in the unit directory, is the same
  // instance rather than an alias of its template.
  root.link("/etc/systemd/system/vncserver@:3.service", "/lib/systemd/system/vncserver@.service");
  EXPECT_TRUE(find_unit_file("vncserver@:3.service")->alias_of.empty());

  ASSERT_EQ(disable_unit_file("vncserver@:1.service"), 0);
  EXPECT_EQ(unit_file_state("vncserver@:1.service"), UnitFileState::kDisabled);
  EXPECT_EQ(enable_unit_file("vncserver@.service"), EINVAL);
}

TEST(UnitFiles, RefusesWhatCannotBeEnabledKeepsForeignFilesAndStaysInTheRoot) {
  ScratchRoot root;
  root.write("/lib/systemd/system/smbd.service", "[Install]\nWantedBy=multi-user.target\n");
  root.link("/etc/systemd/system/smbd.service", "/dev/null");
  root.write("/lib/systemd/system/static.service", "[Service]\nExecStart=/bin/true\n");
  root.write("/lib/systemd/system/ssh.service", kSsh);
  // An admin's own unit file that happens to carry the alias name.
  root.write("/etc/systemd/system/sshd.service", "[Service]\nExecStart=/usr/local/sbin/sshd\n");
  // A regular file in a wants directory is not one of our links.
  root.write("/etc/systemd/system/multi-user.target.wants/static.service", "keep me");

  EXPECT_EQ(enable_unit_file("smbd.service"), EPERM);
  EXPECT_FALSE(root.exists("/etc/systemd/system/multi-user.target.wants/smbd.service"));
  EXPECT_EQ(enable_unit_file("static.service"), EINVAL);
  EXPECT_EQ(enable_unit_file("absent.service"), ENOENT);
  EXPECT_EQ(disable_unit_file("absent.service"), ENOENT);

  EXPECT_EQ(enable_unit_file("ssh.service"), EEXIST);
  EXPECT_EQ(read_file(root.path("/etc/systemd/system/sshd.service")), "[Service]\nExecStart=/usr/local/sbin/sshd\n");
  EXPECT_EQ(unit_file_state("ssh.service"), UnitFileState::kEnabled);
  EXPECT_EQ(disable_unit_file("ssh.service"), 0);
  EXPECT_TRUE(root.exists("/etc/systemd/system/sshd.service"));

  EXPECT_EQ(disable_unit_file("static.service"), 0);
  EXPECT_EQ(read_file(root.path("/etc/systemd/system/multi-user.target.wants/static.service")), "keep me");
  // Hostile names and broken links find nothing.
  root.write("/secret.service", "[Install]\nWantedBy=multi-user.target\n");
  root.link("/etc/systemd/system/loop.service", "/etc/systemd/system/loop2.service");
  root.link("/etc/systemd/system/loop2.service", "/etc/systemd/system/loop.service");
  root.link("/etc/systemd/system/dangling.service", "/nowhere/dangling.service");
  root.write("/lib/systemd/system/dangling.service", "[Install]\nWantedBy=multi-user.target\n");

  for (const char* name : {"", ".", "..", "../../../secret.service", "a/b.service", "loop.service"}) {
    EXPECT_FALSE(find_unit_file(name)) << name;
    EXPECT_EQ(enable_unit_file(name), ENOENT) << name;
  }
  // A relative link cannot climb out of the root.
  root.link("/etc/systemd/system/escape.service", "../../../../../../../secret.service");
  ASSERT_TRUE(find_unit_file("escape.service"));
  EXPECT_EQ(find_unit_file("escape.service")->path, "/secret.service");
  // A dangling admin link falls through to the packaged unit.
  ASSERT_TRUE(find_unit_file("dangling.service"));
  EXPECT_EQ(find_unit_file("dangling.service")->path, "/lib/systemd/system/dangling.service");
}

TEST(UnitFiles, SplitsInstanceNames) {
  auto split = split_unit_instance("syncthing@root.service");
  ASSERT_TRUE(split);
  EXPECT_EQ(split->template_name + " " + split->instance, "syncthing@.service root");
  for (const char* name : {"syncthing@.service", "ssh.service", "noext@x"})
    EXPECT_FALSE(split_unit_instance(name)) << name;
}

}  // namespace
}  // namespace platform
