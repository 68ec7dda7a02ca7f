#include "platform/linux/samba_status.h"

#include <gtest/gtest.h>

#include <string>

#include "platform/fake/fake_tasks.h"

namespace platform {
namespace {

// Captured from a scratch smbd with one SMB3 client; a second session with
// an awkward user name added by hand.
constexpr const char* kJson =
    R"({"timestamp": "2026-11-23T21:01:04.051203+0000", "version": "4.17.12-Debian", "smb_conf": "/tmp/s/smb.conf",)"
    R"( "sessions": {"99277148": {"session_id": "99277148", "server_id": {"pid": "24", "task_id": "0",)"
    R"( "vnn": "4294967295", "unique_id": "16302950271039803395"}, "uid": 0, "gid": 0, "username": "root",)"
    R"( "groupname": "root", "remote_machine": "127.0.0.1", "hostname": "ipv4:127.0.0.1:47456",)"
    R"( "session_dialect": "SMB3_11", "encryption": {"cipher": "-", "degree": "none"},)"
    R"( "signing": {"cipher": "AES-128-GMAC", "degree": "partial"}},)"
    R"( "4000000000": {"server_id": {"pid": 31}, "username": "DOM\\j\u00fcrgen o'neil", "remote_machine": "ws1"},)"
    R"( "7": "not an object"},)"
    R"( "tcons": {"531950220": {"service": "scratch share", "server_id": {"pid": "24", "task_id": "0"},)"
    R"( "tcon_id": "531950220", "session_id": "99277148", "machine": "127.0.0.1",)"
    R"( "connected_at": "2026-11-23T21:01:02.187514+00:00"}}, "open_files": {}})";

TEST(SambaStatusTest, JsonOutputInItsOwnOrderAndDamagedOutputReadsAsNothing) {
  SambaStatus status = parse_samba_status_json(kJson);
  ASSERT_TRUE(status.read);
  ASSERT_EQ(status.sessions.size(), 2u);
  const SambaSession& first = status.sessions[0];
  EXPECT_EQ(first.session_id, 99277148u);
  EXPECT_EQ(first.pid, 24u);
  EXPECT_EQ(first.user, "root");
  EXPECT_EQ(first.address, "ipv4:127.0.0.1:47456");
  EXPECT_EQ(first.protocol, "SMB3_11");
  EXPECT_EQ(first.signing, "AES-128-GMAC");
  // Without "session_id" the key stands in; a numeric pid is taken too.
  EXPECT_EQ(status.sessions[1].session_id, 4000000000u);
  EXPECT_EQ(status.sessions[1].pid, 31u);
  EXPECT_EQ(status.sessions[1].user, "DOM\\j\xc3\xbcrgen o'neil");
  ASSERT_EQ(status.shares.size(), 1u);
  EXPECT_EQ(status.shares[0].share, "scratch share");
  EXPECT_EQ(status.shares[0].session_id, 99277148u);

  // No server running: the tool still answers, with empty lists.
  SambaStatus idle = parse_samba_status_json(R"({"sessions": {}, "tcons": {}})");
  EXPECT_TRUE(idle.read);
  EXPECT_TRUE(idle.sessions.empty());

  const std::string whole = kJson;
  for (size_t cut = 0; cut < whole.size(); ++cut) {
    SambaStatus cut_short = parse_samba_status_json(std::string_view(whole).substr(0, cut));
    EXPECT_FALSE(cut_short.read) << cut;
    EXPECT_TRUE(cut_short.sessions.empty()) << cut;
  }
  for (const char* odd : {"[]", "null", "42", "\"x\"", R"({"sessions": []})",
                          R"({"sessions": {"1": {"username": 5, "server_id": {"pid": "-3"}, "session_id": 1e30}}})"}) {
    SambaStatus status_of_odd = parse_samba_status_json(odd);
    for (const SambaSession& s : status_of_odd.sessions) EXPECT_EQ(s.pid, 0u) << odd;
  }
}

TEST(SambaStatusTest, PlainTablesWithSpacesInNamesAndOlderLayouts) {
  constexpr const char* kFull =
      "\nSamba version 4.17.12-Debian\n"
      "PID     Username     Group        Machine                                   Protocol Version  Encryption  "
      "Signing\n"
      "---------------------------------------------------------------------------------------------------------\n"
      "24      root         root         127.0.0.1 (ipv4:127.0.0.1:47456)          SMB3_11           -           "
      "partial(AES-128-GMAC)\n"
      "1:77    john smith   staff        ws1 (ipv6:[::1]:50000)                    SMB2_10           -           -\n"
      "garbage\n"
      "\n"
      "Service      pid     Machine       Connected at                     Encryption   Signing     \n"
      "---------------------------------------------------------------------------------------------\n"
      "scratch share 24      127.0.0.1     Mon Nov 23 21:01:02 2026 UTC     -            -           \n"
      "backup 2024  77      ws1           Tue Nov 24 09:00:00 2026 UTC     -            -           \n"
      "\n"
      "No locked files\n";
  std::vector<SambaSession> sessions = parse_samba_sessions_text(kFull);
  ASSERT_EQ(sessions.size(), 2u);
  EXPECT_EQ(sessions[0].pid, 24u);
  EXPECT_EQ(sessions[0].address, "ipv4:127.0.0.1:47456");
  EXPECT_EQ(sessions[0].signing, "partial(AES-128-GMAC)");
  EXPECT_EQ(sessions[1].pid, 77u);
  EXPECT_EQ(sessions[1].user, "john smith");
  EXPECT_EQ(sessions[1].group, "staff");

  std::vector<SambaShareConnection> shares = parse_samba_shares_text(kFull);
  ASSERT_EQ(shares.size(), 2u);
  EXPECT_EQ(shares[0].share, "scratch share");
  EXPECT_EQ(shares[0].connected_at, "Mon Nov 23 21:01:02 2026 UTC");
  EXPECT_EQ(shares[1].share, "backup 2024");
  EXPECT_EQ(shares[1].pid, 77u);

  // Older servers print neither the protocol nor the crypto columns.
  std::vector<SambaShareConnection> old = parse_samba_shares_text(
      "Service      pid     machine       Connected at\n-------------------\n"
      "IPC$         9       host1         Wed Jan  3 10:00:00 2018\n");
  ASSERT_EQ(old.size(), 1u);
  EXPECT_EQ(old[0].connected_at, "Wed Jan 3 10:00:00 2018");
  std::vector<SambaSession> old_sessions = parse_samba_sessions_text(
      "PID     Username      Group         Machine\n-------------------\n9   alice  users  host1 (192.0.2.1)\n");
  ASSERT_EQ(old_sessions.size(), 1u);
  EXPECT_EQ(old_sessions[0].address, "192.0.2.1");
  EXPECT_TRUE(old_sessions[0].protocol.empty());

  EXPECT_TRUE(parse_samba_shares_text("Service\n---\n").empty());
}

TEST(SambaStatusTest, ReaderRunsTheToolWithoutAShellAndFallsBackToTables) {
  FakeTasks tasks;
  tasks.set_exit(kSambaStatusTool, 0, kJson);
  SambaStatus status = read_samba_status(tasks, {"-s", "/etc/x; rm -rf /"});
  EXPECT_TRUE(status.read);
  EXPECT_EQ(status.sessions.size(), 2u);
  std::optional<FakeTasks::Invocation> call = tasks.last(kSambaStatusTool);
  ASSERT_TRUE(call);
  EXPECT_EQ(call->args, (std::vector<std::string>{"smbstatus", "--json", "-s", "/etc/x; rm -rf /"}));
  EXPECT_GT(call->timeout_seconds, 0);
  EXPECT_LE(call->timeout_seconds, kSambaStatusTimeoutSeconds);

  // A Samba without --json: the session and share tables instead.
  tasks.set_handler(kSambaStatusTool, [](const FakeTasks::Invocation& run) {
    TaskResult result;
    result.launched = true;
    result.exit_status = 0;
    if (run.args[1] == "--json") {
      result.exit_status = 1;
      result.out = "Invalid option --json: unknown option\n";
    } else if (run.args[1] == "-b") {
      result.out = "PID Username Group Machine\n----\n5 bob bob pc (ipv4:10.0.0.2:1)\n";
    } else {
      result.out = "Service pid Machine Connected at\n----\nhome 5 pc Mon Nov 23 21:01:02 2026\n";
    }
    return result;
  });
  status = read_samba_status(tasks);
  ASSERT_TRUE(status.read);
  ASSERT_EQ(status.sessions.size(), 1u);
  EXPECT_EQ(status.sessions[0].user, "bob");
  ASSERT_EQ(status.shares.size(), 1u);
  EXPECT_EQ(status.shares[0].share, "home");

  TaskResult hung;
  hung.launched = true;
  hung.timed_out = true;
  hung.exit_status = 128 + 9;
  tasks.set_result(kSambaStatusTool, hung);
  EXPECT_FALSE(read_samba_status(tasks).read);
  FakeTasks missing;
  EXPECT_FALSE(read_samba_status(missing).read);
}

}  // namespace
}  // namespace platform
