// The Kerberos completeness check against real key tables listed by the
// real klist, and its cache of the listing.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "platform/fake/fake_tasks.h"
#include "platform/linux/basics.h"
#include "platform/linux/basics_test_support.h"
#include "request/operations.h"

namespace hubwarden {
namespace {

using platform::testing::ScopedService;

const std::vector<std::string> kAllTypes = {"host",        "smtp", "http", "pop",      "imap", "ftp",
                                            "filerserver", "vpn",  "XMPP", "gridfarm", "ipp"};

class KerberosCheckTest : public ::testing::Test {
 protected:
  // A key table at <root>/etc/krb5.keytab holding service/srv.example.com
  // for each of services, made by ktutil.
  bool make_keytab(const std::vector<std::string>& services) {
    root.mkdir("/etc");
    std::string keytab = root.path("/etc/krb5.keytab");
    ::unlink(keytab.c_str());
    std::string script;
    for (const std::string& service : services)
      script += "addent -password -p " + service +
                "/srv.example.com@EXAMPLE.COM -k 1 -e aes256-cts-hmac-sha1-96\n"
                "secret\n";
    script += "wkt " + keytab + "\nquit\n";
    root.write("/ktutil-input", script);
    std::string command = "ktutil < " + root.path("/ktutil-input") + " >/dev/null 2>&1";
    return std::system(command.c_str()) == 0 && ::access(keytab.c_str(), R_OK) == 0;
  }

  // The tool as the sandbox runs it: the real klist, reading the root's
  // key table instead of the machine's.
  void install_klist_wrapper() {
    root.mkdir("/usr/bin");
    root.write("/usr/bin/klist",
               "#!/bin/sh\nKRB5_KTNAME=FILE:" + root.path("/etc/krb5.keytab") + " exec /usr/bin/klist \"$@\"\n");
    ::chmod(root.path("/usr/bin/klist").c_str(), 0755);
  }

  void set_keytab_date(time_t when) {
    timeval times[2] = {{when, 0}, {when, 0}};
    ::utimes(root.path("/etc/krb5.keytab").c_str(), times);
  }

  platform::testing::ScratchRoot root;
  platform::testing::CapturedLog log;
};

TEST_F(KerberosCheckTest, RealKeyTablesListedByTheRealTool) {
  if (::access("/usr/bin/klist", X_OK) != 0 || std::system("command -v ktutil >/dev/null 2>&1") != 0)
    GTEST_SKIP() << "MIT klist and ktutil are not installed (scripts/setup installs krb5-user)";
  std::unique_ptr<platform::Tasks> tasks = platform::make_process_tasks();
  ScopedService<platform::Tasks> tasks_in{tasks.get()};
  install_klist_wrapper();

  ASSERT_TRUE(make_keytab({"host", "http", "imap"}));
  Dict context;
  EXPECT_TRUE(has_missing_kerberized_services(&context));
  const std::string* listing = context.find_string("princsListString");
  ASSERT_NE(listing, nullptr);
  EXPECT_NE(listing->find("imap/srv.example.com@EXAMPLE.COM"), std::string::npos) << *listing;
  EXPECT_NE(context.find("keytab_mod_date"), nullptr);
  EXPECT_TRUE(plist::is_flag_set(context.find("contextDirty")));

  // Every type, one of them in other letters: the search ignores case.
  std::vector<std::string> all = kAllTypes;
  all[8] = "xmpp";
  ASSERT_TRUE(make_keytab(all));
  set_keytab_date(1000);
  EXPECT_FALSE(has_missing_kerberized_services(&context));

  // Not set up for Kerberos at all.
  ASSERT_TRUE(make_keytab({"nfs"}));
  set_keytab_date(2000);
  EXPECT_FALSE(has_missing_kerberized_services(&context));
}

TEST_F(KerberosCheckTest, ListingIsCachedUntilTheKeyTableChanges) {
  platform::FakeTasks tasks;
  ScopedService<platform::Tasks> tasks_in{&tasks};
  tasks.set_exit("/usr/bin/klist", 0, "KVNO Principal\n   1 HOST/srv.example.com@EXAMPLE.COM\n");

  // No tool or no key table (or a folder in its place): no question asked.
  Dict context;
  root.mkdir("/etc");
  root.write("/etc/krb5.keytab", "x");
  EXPECT_FALSE(has_missing_kerberized_services(&context));
  install_klist_wrapper();
  ::unlink(root.path("/etc/krb5.keytab").c_str());
  root.mkdir("/etc/krb5.keytab");
  EXPECT_FALSE(has_missing_kerberized_services(&context));
  EXPECT_EQ(tasks.count("/usr/bin/klist"), 0);
  ::rmdir(root.path("/etc/krb5.keytab").c_str());

  root.write("/etc/krb5.keytab", "x");
  set_keytab_date(5000);
  EXPECT_TRUE(has_missing_kerberized_services(&context));
  EXPECT_EQ(tasks.count("/usr/bin/klist"), 1);
  EXPECT_EQ(tasks.last("/usr/bin/klist")->args, (std::vector<std::string>{"klist", "-k"}));
  context.set("contextDirty", false);
  EXPECT_TRUE(has_missing_kerberized_services(&context));
  EXPECT_EQ(tasks.count("/usr/bin/klist"), 1);
  EXPECT_FALSE(plist::is_flag_set(context.find("contextDirty")));

  // A changed table is listed again, and the new listing kept.
  tasks.set_exit("/usr/bin/klist", 0, "");
  set_keytab_date(6000);
  EXPECT_FALSE(has_missing_kerberized_services(&context));
  EXPECT_EQ(tasks.count("/usr/bin/klist"), 2);
  EXPECT_EQ(*context.find_string("princsListString"), "");
  EXPECT_EQ(context.find("keytab_mod_date")->as_date()->seconds, 6000);
}

}  // namespace
}  // namespace hubwarden
