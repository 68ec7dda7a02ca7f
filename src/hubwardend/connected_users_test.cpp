// Connected users: the readers' rules and what the service modules answer.
#include "hubwardend/connected_users.h"

#include <gtest/gtest.h>

#include <atomic>

#include "hubwardend/service_modules.h"
#include "platform/fake/fake_service_manager.h"
#include "platform/fake/fake_tasks.h"
#include "platform/registry.h"

namespace hubwardend {
namespace {

platform::ProcessFacts process(uint32_t pid, uint32_t ppid, const char* command, uint32_t uid,
                               platform::ProcessState state = platform::ProcessState::Sleeping) {
  platform::ProcessFacts facts;
  facts.pid = pid;
  facts.ppid = ppid;
  facts.command = command;
  facts.uid = uid;
  facts.state = state;
  return facts;
}

// Only logged-in clients count: not the listener, not vsftpd's privileged
// helper, not a client still at the login prompt, not a dead session, not
// another program running as the same user.
TEST(ConnectedUsers, FtpSessionsAndDovecotRowsAreToldFromTheRest) {
  std::vector<platform::ProcessFacts> table = {
      process(100, 1, "vsftpd", 0),                                        // listener
      process(200, 100, "vsftpd", 0), process(201, 200, "vsftpd", 1000),   // alice logged in
      process(300, 100, "vsftpd", 0), process(301, 300, "vsftpd", 65534),  // at the prompt
      process(400, 100, "vsftpd", 0), process(401, 400, "vsftpd", 1000),   // alice again
      process(500, 100, "vsftpd", 0), process(501, 500, "vsftpd", 2000, platform::ProcessState::Zombie),
      process(600, 100, "vsftpd", 0), process(601, 600, "vsftpd", 4242),  // not in passwd
      process(700, 1, "bash", 1000),  process(800, 1, "proftpd", 107),
  };
  auto name_of = [](uint32_t uid) -> std::string {
    switch (uid) {
      case 1000:
        return "alice";
      case 2000:
        return "bob";
      case 65534:
        return "nobody";
      case 107:
        return "proftpd";
      default:
        return "";
    }
  };
  EXPECT_EQ(ftp_session_users(table, "vsftpd", name_of), (std::vector<std::string>{"alice", "alice", "4242"}));
  EXPECT_TRUE(ftp_session_users(table, "proftpd", name_of).empty());

  EXPECT_EQ(parse_doveadm_who("username                     proto pid    ip\n"
                              "alice                        imap  1234   192.0.2.1\n"
                              "bob@example.com              pop3  99     (none)\r\n"
                              "alice                        imap  1240   192.0.2.7\n"
                              "\n garbage line\nweird  imap  notapid  x\n"
                              "carol lmtp 7"),
            (std::vector<std::string>{"alice", "bob@example.com", "alice", "carol"}));
  EXPECT_TRUE(parse_doveadm_who("").empty());
}

class CountingReader : public ConnectedUsersReader {
 public:
  std::vector<std::string> users() override {
    ++reads;
    return names;
  }
  std::vector<std::string> names;
  std::atomic<int> reads{0};
};

std::optional<plist::Dict> ask(ServiceModule& module, const char* command) {
  return module.handle(plist::Dict{{"command", command}}, "root");
}

size_t listed(const std::optional<plist::Dict>& reply, const char* key) {
  const plist::Array* list = reply ? reply->find_array(key) : nullptr;
  return list ? list->size() : SIZE_MAX;
}

TEST(ConnectedUsers, ModulesAnswerWhileTheirUnitRunsAndShareOneReading) {
  auto units = std::make_shared<platform::FakeServiceManager>();
  units->set_unit("smbd.service", "active");
  auto reader = std::make_shared<CountingReader>();
  reader->names = {"alice", "DOM\\bob smith", "alice"};
  auto samba = std::make_shared<CachedUsersReader>(reader, std::chrono::hours(1));
  UnitServiceModule smb("hubwarden_smb", "smbd.service", units,
                        connected_users_answer_for("hubwarden_smb", "smbd.service", units, samba));
  UnitServiceModule filer("hubwarden_filer", "hubwarden-filerd.service", units,
                          connected_users_answer_for("hubwarden_filer", "hubwarden-filerd.service", units, samba));

  std::optional<plist::Dict> reply = ask(smb, "getConnectedUsers");
  ASSERT_EQ(listed(reply, "usersArray"), 3u);
  EXPECT_EQ(*(*reply->find_array("usersArray"))[1].as_string(), "DOM\\bob smith");
  EXPECT_EQ(reply->size(), 1u);
  // The filer's unit is down: an empty list, and Samba is not asked for it.
  EXPECT_EQ(listed(ask(filer, "getConnectedUsers"), "usersArray"), 0u);
  units->set_unit("hubwarden-filerd.service", "reloading");
  EXPECT_EQ(listed(ask(filer, "getConnectedUsers"), "usersArray"), 3u);
  EXPECT_EQ(reader->reads, 1);
  EXPECT_FALSE(ask(smb, "getConnections"));

  // Streaming answers an empty list of connections; services not counted
  // keep answering only getState.
  units->set_unit("icecast2.service", "active");
  UnitServiceModule stream("hubwarden_mediastream", "icecast2.service", units,
                           connected_users_answer_for("hubwarden_mediastream", "icecast2.service", units, samba));
  EXPECT_EQ(listed(ask(stream, "getConnections"), "connectionsArray"), 0u);
  EXPECT_FALSE(ask(stream, "getConnectedUsers"));
  EXPECT_FALSE(connected_users_answer_for("hubwarden_web", "nginx.service", units, samba));

  // Mail asks Dovecot only while Dovecot runs, and a failing doveadm
  // gives an empty list rather than no reply.
  platform::FakeTasks tasks;
  platform::testing::ScopedService<platform::Tasks> scoped_tasks(&tasks);
  tasks.set_exit(kDoveadmTool, 0, "username proto pid ip\nalice imap 12 192.0.2.1\n");
  units->set_unit("postfix.service", "active");
  UnitServiceModule mail("hubwarden_mail", "postfix.service", units,
                         connected_users_answer_for("hubwarden_mail", "postfix.service", units, samba));
  EXPECT_EQ(listed(ask(mail, "getConnectedUsers"), "usersArray"), 0u);
  EXPECT_EQ(tasks.count(kDoveadmTool), 0);
  units->set_unit(kDovecotUnit, "active");
  auto dovecot = make_dovecot_users_reader(units);
  EXPECT_EQ(dovecot->users(), (std::vector<std::string>{"alice"}));
  EXPECT_EQ(tasks.last(kDoveadmTool)->args, (std::vector<std::string>{"doveadm", "who", "-1"}));
  tasks.set_exit(kDoveadmTool, 75, "", "Error: connect(/run/dovecot/anvil) failed");
  EXPECT_TRUE(dovecot->users().empty());
}

}  // namespace
}  // namespace hubwardend
