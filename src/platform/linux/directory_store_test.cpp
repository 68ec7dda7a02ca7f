// Tests of the record-store directory: name checks, damaged records,
// membership rules, prefix queries, the server list and NSS at the real root.
#include "platform/linux/directory_store.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <set>
#include <thread>

#include "platform/linux/basics_test_support.h"
#include "plist/codec.h"

namespace platform {
namespace {

const std::string kNode = "/Local/Default";
const std::string kGroups = "/var/db/hubwarden/directory/groups/";
const std::string kUsers = "/var/db/hubwarden/directory/users/";

plist::Array strings(std::initializer_list<const char*> values) {
  plist::Array a;
  for (const char* v : values) a.emplace_back(v);
  return a;
}

class DirectoryStoreTest : public ::testing::Test {
 protected:
  void put(const std::string& dir, const std::string& name, plist::Dict record) {
    sandbox.write(dir + name + ".plist", plist::write_xml(plist::Value(std::move(record))));
  }
  void user(const std::string& name, const char* guid, const char* gid = nullptr) {
    plist::Dict r{{"dsAttrTypeStandard:RecordName", strings({name.c_str()})},
                  {"dsAttrTypeStandard:GeneratedUID", strings({guid})}};
    if (gid) r.set("dsAttrTypeStandard:PrimaryGroupID", strings({gid}));
    put(kUsers, name, std::move(r));
  }
  std::string raw(const std::string& absolute) { return read_file(sandbox.path(absolute)).value_or("<missing>"); }

  testing::ScratchRoot sandbox;
  std::unique_ptr<Directory> dir = make_directory_store();
};

TEST_F(DirectoryStoreTest, RefusesNamesThatWouldLeaveTheStore) {
  sandbox.write("/var/db/hubwarden/directory/secret.plist", "<plist version=\"1.0\"><dict/></plist>");
  plist::Dict attrs{{"k", "v"}};
  for (const std::string& bad : std::vector<std::string>{"", ".", "../secret", "a/b", "..", "/", "x..y",
                                                         std::string("nul\0x", 5), "tab\tname", "del\x7f"}) {
    plist::Dict out{{"stale", 1}};
    EXPECT_EQ(dir->get_group_record(kNode, bad, &out), kDirectoryInvalidName) << bad;
    EXPECT_TRUE(out.empty());
    EXPECT_EQ(dir->set_group_record(kNode, bad, &attrs), kDirectoryInvalidName) << bad;
    EXPECT_EQ(dir->create_group_record(kNode, bad, attrs), kDirectoryInvalidName) << bad;
    EXPECT_EQ(dir->set_group_record(kNode, bad, nullptr), kDirectoryInvalidName) << bad;
    EXPECT_FALSE(dir->is_member("alice", bad));
    int32_t status = 0;
    EXPECT_FALSE(dir->find_user(kNode, bad, &status));
    EXPECT_EQ(status, kDirectoryInvalidName);
  }
  EXPECT_TRUE(sandbox.exists("/var/db/hubwarden/directory/secret.plist"));
  EXPECT_FALSE(sandbox.exists("/var/db/hubwarden/directory/groups"));
}

TEST_F(DirectoryStoreTest, CreateUpdateAndRemove) {
  plist::Dict out;
  EXPECT_EQ(dir->get_group_record(kNode, "staff", &out), kDirectoryRecordNotFound);
  EXPECT_EQ(dir->set_group_record(kNode, "staff", nullptr), kDirectoryRecordNotFound);

  // Create: strings become one-element arrays, numbers their text; the
  // record name, a GUID and a free group id are filled in.
  plist::Dict attrs{{"dsAttrTypeStandard:GroupMembership", "alice"}, {"dsAttrTypeStandard:Comment", 7}};
  ASSERT_EQ(dir->set_group_record(kNode, "staff", &attrs), kDirectoryOK);
  ASSERT_EQ(dir->get_group_record(kNode, "staff", &out), kDirectoryOK);
  EXPECT_EQ(*out.find("dsAttrTypeStandard:GroupMembership"), plist::Value(strings({"alice"})));
  EXPECT_EQ(*out.find("dsAttrTypeStandard:Comment"), plist::Value(strings({"7"})));
  EXPECT_EQ(*out.find("dsAttrTypeStandard:RecordName"), plist::Value(strings({"staff"})));
  ASSERT_EQ(attribute_values(out, "dsAttrTypeStandard:GeneratedUID").size(), 1u);
  EXPECT_EQ(attribute_values(out, "dsAttrTypeStandard:GeneratedUID")[0].size(), 36u);
  EXPECT_EQ(attribute_number(out, "dsAttrTypeStandard:PrimaryGroupID"), 1025u);

  // A second group gets another id; an update merges and keeps the rest.
  ASSERT_EQ(dir->set_group_record(kNode, "other", &attrs), kDirectoryOK);
  plist::Dict other;
  dir->get_group_record(kNode, "other", &other);
  EXPECT_EQ(attribute_number(other, "dsAttrTypeStandard:PrimaryGroupID"), 1026u);
  plist::Dict update{{"dsAttrTypeStandard:GroupMembership", strings({"bob", "carol"})},
                     {"dsAttrTypeStandard:RecordName", "renamed"}};
  ASSERT_EQ(dir->set_group_record(kNode, "staff", &update), kDirectoryOK);
  plist::Dict after;
  dir->get_group_record(kNode, "staff", &after);
  EXPECT_EQ(*after.find("dsAttrTypeStandard:GroupMembership"), plist::Value(strings({"bob", "carol"})));
  EXPECT_EQ(*after.find("dsAttrTypeStandard:Comment"), plist::Value(strings({"7"})));
  EXPECT_EQ(*after.find("dsAttrTypeStandard:GeneratedUID"), *out.find("dsAttrTypeStandard:GeneratedUID"));
  EXPECT_EQ(*after.find("dsAttrTypeStandard:RecordName"), plist::Value(strings({"staff"})));

  // Values the store cannot hold are refused without touching the record.
  std::string before = raw(kGroups + "staff.plist");
  for (plist::Value bad : {plist::Value(plist::Dict{{"a", 1}}), plist::Value(2.5), plist::Value(plist::Data{1, 2}),
                           plist::Value(plist::Array{plist::Value(plist::Array{})})}) {
    plist::Dict wrong{{"dsAttrTypeStandard:Comment", bad}};
    EXPECT_EQ(dir->set_group_record(kNode, "staff", &wrong), kDirectoryInvalidValue);
  }
  EXPECT_EQ(raw(kGroups + "staff.plist"), before);

  ASSERT_EQ(dir->set_group_record(kNode, "staff", nullptr), kDirectoryOK);
  EXPECT_EQ(dir->get_group_record(kNode, "staff", &out), kDirectoryRecordNotFound);
  EXPECT_TRUE(out.empty());
  EXPECT_EQ(dir->open_node("/LDAPv3/127.0.0.1"), kDirectoryNodeUnavailable);
  EXPECT_EQ(dir->get_group_record("/Elsewhere", "other", &out), kDirectoryNodeUnavailable);
}

TEST_F(DirectoryStoreTest, DamagedRecordReadsAsMissingSurvivesUpdatesAndYieldsToCreate) {
  const std::string damaged = "<plist version=\"1.0\"><dict><key>x</key>";
  sandbox.write(kGroups + "com.marlo.access_mail.plist", damaged);
  plist::Dict out{{"stale", 1}};
  EXPECT_EQ(dir->get_group_record(kNode, "com.marlo.access_mail", &out), kDirectoryRecordNotFound);
  EXPECT_TRUE(out.empty());

  plist::Dict attrs{{"dsAttrTypeStandard:GroupMembership", "alice"}};
  EXPECT_NE(dir->set_group_record(kNode, "com.marlo.access_mail", &attrs), kDirectoryOK);
  EXPECT_EQ(raw(kGroups + "com.marlo.access_mail.plist"), damaged);
  // The damaged group still exists for queries, with no members, so its
  // service stays closed.
  EXPECT_EQ(dir->groups_with_prefix(kNode, "com.marlo.access_", 0), std::vector<std::string>{"com.marlo.access_mail"});
  user("alice", "A-1");
  EXPECT_FALSE(dir->is_member("alice", "com.marlo.access_mail"));

  ASSERT_EQ(dir->create_group_record(kNode, "com.marlo.access_mail", attrs), kDirectoryOK);
  EXPECT_EQ(dir->get_group_record(kNode, "com.marlo.access_mail", &out), kDirectoryOK);
  EXPECT_TRUE(dir->is_member("alice", "com.marlo.access_mail"));
  EXPECT_EQ(raw(kGroups + "com.marlo.access_mail.plist.damaged"), damaged);
  // The backup is not a record.
  EXPECT_EQ(dir->groups_with_prefix(kNode, "com.marlo.access_", 0).size(), 1u);
  // Nor is what is not a regular file; a FIFO would block a plain open for ever.
  ASSERT_EQ(::mkfifo(sandbox.path(kGroups + "fifo.plist").c_str(), 0600), 0);
  ASSERT_EQ(::mkdir(sandbox.path(kGroups + "folder.plist").c_str(), 0700), 0);
  for (const char* name : {"fifo", "folder"}) {
    EXPECT_EQ(dir->get_group_record(kNode, name, &out), kDirectoryRecordNotFound) << name;
    EXPECT_FALSE(dir->is_member("alice", name));
    EXPECT_EQ(dir->set_group_record(kNode, name, &attrs), kDirectoryWriteFailed) << name;
  }
}

TEST_F(DirectoryStoreTest, EditsByOtherProgramsAreSeenThroughTheCache) {
  user("alice", "A-1");
  put(kGroups, "g", plist::Dict{{"dsAttrTypeStandard:GroupMembership", strings({"alice"})}});
  EXPECT_TRUE(dir->is_member("alice", "g"));
  // Same size, rewritten in place: only the change time tells.
  std::string path = sandbox.path(kGroups + "g.plist");
  std::string text = raw(kGroups + "g.plist");
  text.replace(text.find("alice"), 5, "alicf");
  FILE* f = std::fopen(path.c_str(), "r+");
  ASSERT_TRUE(f);
  std::fwrite(text.data(), 1, text.size(), f);
  std::fclose(f);
  EXPECT_FALSE(dir->is_member("alice", "g"));
  ::unlink(path.c_str());
  EXPECT_FALSE(dir->is_member("alice", "g"));
  plist::Dict out;
  EXPECT_EQ(dir->get_group_record(kNode, "g", &out), kDirectoryRecordNotFound);
}

TEST_F(DirectoryStoreTest, MembershipByNameGuidPrimaryIdAndNestedGroupsWithACycle) {
  user("alice", "A-1", "5000");
  user("bob", "B-1");
  put(kGroups, "by_name", plist::Dict{{"dsAttrTypeStandard:GroupMembership", strings({"alice"})}});
  put(kGroups, "by_guid", plist::Dict{{"dsAttrTypeStandard:GroupMembers", strings({"B-1"})}});
  put(kGroups, "by_gid", plist::Dict{{"dsAttrTypeStandard:PrimaryGroupID", strings({"5000"})}});
  // outer -> middle -> inner -> outer (a cycle); bob is only in inner.
  put(kGroups, "outer",
      plist::Dict{{"dsAttrTypeStandard:GeneratedUID", strings({"G-OUT"})},
                  {"dsAttrTypeStandard:NestedGroups", strings({"G-MID"})}});
  put(kGroups, "middle",
      plist::Dict{{"dsAttrTypeStandard:GeneratedUID", strings({"G-MID"})},
                  {"dsAttrTypeStandard:NestedGroups", strings({"G-IN", "G-NOWHERE"})}});
  put(kGroups, "inner",
      plist::Dict{{"dsAttrTypeStandard:GeneratedUID", strings({"G-IN"})},
                  {"dsAttrTypeStandard:GroupMembership", strings({"bob"})},
                  {"dsAttrTypeStandard:NestedGroups", strings({"G-OUT"})}});

  EXPECT_TRUE(dir->is_member("alice", "by_name"));
  EXPECT_FALSE(dir->is_member("bob", "by_name"));
  EXPECT_TRUE(dir->is_member("bob", "by_guid"));
  EXPECT_FALSE(dir->is_member("alice", "by_guid"));
  EXPECT_TRUE(dir->is_member("alice", "by_gid"));
  EXPECT_FALSE(dir->is_member("bob", "by_gid"));
  EXPECT_TRUE(dir->is_member("bob", "outer"));
  EXPECT_TRUE(dir->is_member("bob", "middle"));
  EXPECT_FALSE(dir->is_member("alice", "outer"));
  EXPECT_FALSE(dir->is_member("nobody", "by_name"));
  EXPECT_FALSE(dir->is_member("alice", "no_such_group"));

  // A nested group that takes over a GUID is followed, the old one is not.
  put(kGroups, "inner", plist::Dict{{"dsAttrTypeStandard:GeneratedUID", strings({"G-OLD"})}});
  put(kGroups, "newer",
      plist::Dict{{"dsAttrTypeStandard:GeneratedUID", strings({"G-IN"})},
                  {"dsAttrTypeStandard:GroupMembership", strings({"alice"})}});
  EXPECT_FALSE(dir->is_member("bob", "outer"));
  EXPECT_TRUE(dir->is_member("alice", "outer"));

  int32_t status = -1;
  std::optional<UserRecord> found = dir->find_user("/Search", "alice", &status);
  ASSERT_TRUE(found);
  EXPECT_EQ(status, kDirectoryOK);
  EXPECT_EQ(found->guid, "A-1");
  EXPECT_EQ(found->primary_gid, 5000u);
  EXPECT_FALSE(dir->find_user("/Search", "nobody", &status));
  EXPECT_EQ(status, kDirectoryOK);
}

TEST_F(DirectoryStoreTest, PrefixQueriesAreSortedAndLimited) {
  for (const char* name :
       {"com.marlo.admin_web", "com.marlo.admin_dns", "com.marlo.monitor_dns", "com.marlo.admin_all_services"})
    put(kGroups, name, plist::Dict{});
  sandbox.write(kGroups + "com.marlo.admin_tmp.plist.tmp.1.2", "partial");
  sandbox.write(kGroups + "com.marlo.admin_notes.txt", "x");
  EXPECT_EQ(dir->groups_with_prefix(kNode, "com.marlo.admin_", 0),
            (std::vector<std::string>{"com.marlo.admin_all_services", "com.marlo.admin_dns", "com.marlo.admin_web"}));
  EXPECT_EQ(dir->groups_with_prefix(kNode, "com.marlo.admin_", 2),
            (std::vector<std::string>{"com.marlo.admin_all_services", "com.marlo.admin_dns"}));
  EXPECT_TRUE(dir->groups_with_prefix("/Nowhere", "com.marlo.admin_", 0).empty());
}

// The daemon and a command-line run are separate processes, each with its
// own store object and cache: only the lock file keeps their writes apart.
// Within each, threads share the one store as the daemon's requests do.
TEST_F(DirectoryStoreTest, WritesFromSeveralProcessesAndThreadsAreAllKeptAndGroupIdsStayUnique) {
  plist::Dict seed{{"seed", "x"}};
  ASSERT_EQ(dir->set_group_record(kNode, "shared", &seed), kDirectoryOK);
  constexpr int kProcesses = 4, kThreads = 2, kWrites = 5, kTotal = kProcesses * kThreads * kWrites;
  std::vector<pid_t> children;
  for (int p = 0; p < kProcesses; ++p) {
    pid_t pid = ::fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
      std::unique_ptr<Directory> mine = make_directory_store();
      std::atomic<int> failures = 0;
      std::vector<std::thread> threads;
      for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
          for (int i = 0; i < kWrites; ++i) {
            std::string key = std::to_string(p) + "_" + std::to_string(t) + "_" + std::to_string(i);
            plist::Dict one{{"k" + key, "v"}};
            failures += mine->set_group_record(kNode, "shared", &one) != kDirectoryOK;
            failures += mine->create_group_record(kNode, "g" + key, plist::Dict{{"n", "1"}}) != kDirectoryOK;
          }
        });
      }
      for (std::thread& t : threads) t.join();
      ::_exit(failures);
    }
    children.push_back(pid);
  }
  for (pid_t pid : children) {
    int status = 0;
    ASSERT_EQ(::waitpid(pid, &status, 0), pid);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
  }
  plist::Dict out;
  ASSERT_EQ(dir->get_group_record(kNode, "shared", &out), kDirectoryOK);
  // Every write plus seed, record name, GUID and group id.
  EXPECT_EQ(out.size(), kTotal + 4u);
  std::set<uint32_t> gids;
  for (const std::string& name : dir->groups_with_prefix(kNode, "g", 0)) {
    ASSERT_EQ(dir->get_group_record(kNode, name, &out), kDirectoryOK);
    std::optional<uint32_t> gid = attribute_number(out, "dsAttrTypeStandard:PrimaryGroupID");
    ASSERT_TRUE(gid) << name;
    EXPECT_TRUE(gids.insert(*gid).second) << name << " shares group id " << *gid;
  }
  EXPECT_EQ(gids.size(), static_cast<size_t>(kTotal));
}

TEST_F(DirectoryStoreTest, ServersFromTheDirectoryClientConfiguration) {
  EXPECT_TRUE(dir->configured_servers().empty());
  sandbox.write("/etc/sssd/sssd.conf",
                "[sssd]\ndomains = corp, ad, files\n"
                "[domain/corp]\nid_provider = ldap\nldap_uri = ldaps://ldap1.corp:636, ldap://[::1]/\n"
                "[domain/ad]\n# comment\nid_provider = ad\nad_server = _srv_\nad_domain = ad.corp\n"
                "[domain/files]\nid_provider = files\n");
  std::vector<DirectoryServer> servers = dir->configured_servers();
  ASSERT_EQ(servers.size(), 3u);
  EXPECT_EQ(servers[0].name, "ldap1.corp");
  EXPECT_EQ(servers[0].kind, DirectoryServer::Kind::Ldap);
  EXPECT_EQ(servers[1].name, "::1");
  EXPECT_EQ(servers[2].name, "ad.corp");
  EXPECT_EQ(servers[2].kind, DirectoryServer::Kind::ActiveDirectory);
  // A directory client pointed at this machine makes its own node available.
  EXPECT_EQ(dir->open_node("/LDAPv3/127.0.0.1"), kDirectoryOK);
}

TEST(DirectoryStoreRealRootTest, SystemUsersAndGroupsCount) {
  testing::RealRoot real;
  std::unique_ptr<Directory> dir = make_directory_store();
  EXPECT_TRUE(dir->is_member("root", "root"));
  int32_t status = -1;
  std::optional<UserRecord> root = dir->find_user("/Search", "root", &status);
  ASSERT_TRUE(root);
  EXPECT_EQ(root->uid, 0u);
  EXPECT_EQ(root->primary_gid, 0u);
  plist::Dict record;
  ASSERT_EQ(dir->get_group_record("/Local/Default", "root", &record), kDirectoryOK);
  EXPECT_EQ(attribute_number(record, "dsAttrTypeStandard:PrimaryGroupID"), 0u);
  std::vector<std::string> found = dir->groups_with_prefix("/Local/Default", "roo", 0);
  EXPECT_NE(std::find(found.begin(), found.end(), "root"), found.end());
  EXPECT_FALSE(dir->find_user("/Search", "no-such-user-here", &status));
}

}  // namespace
}  // namespace platform
