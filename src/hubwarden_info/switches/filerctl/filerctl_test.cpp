#include <errno.h>
#include <gtest/gtest.h>
#include <sys/socket.h>

#include <atomic>
#include <cstring>
#include <optional>
#include <string>
#include <vector>

#include "hubwarden_info/switches/filerctl/filer_codes.h"
#include "hubwarden_info/switches/filerctl/filer_commands.h"
#include "hubwarden_info/switches/filerctl/filer_jobs.h"
#include "hubwarden_info/switches/filerctl/filer_port.h"
#include "hubwarden_info/switches/filerctl/filer_rpc.h"
#include "hubwarden_info/switches/filerctl/filer_test_server.h"
#include "platform/fake/fake_service_manager.h"
#include "platform/linux/basics_test_support.h"
#include "platform/sleeper.h"

namespace hubwarden {
namespace {

using platform::FilerMessage;
using namespace std::chrono_literals;
constexpr const char* kJobPath = "/System/Library/LaunchDaemons/com.marlo.FilerServer.plist";

FilerMessage reply(int32_t id, std::vector<platform::FilerField> fields) {
  FilerMessage m;
  m.id = id;
  m.fields = std::move(fields);
  return m;
}

using ScriptedServer = testing::ScriptedFilerServer;

class RecordingSleeper : public platform::Sleeper {
 public:
  void sleep_for(double seconds) override { slept.push_back(seconds); }
  std::vector<double> slept;
};

class FilerCtlTest : public ::testing::Test {
 protected:
  ~FilerCtlTest() override { set_filer_caller_uid_for_testing(std::nullopt); }

  platform::testing::CapturedLog log_;
  platform::FakeServiceManager services_;
  platform::testing::ScopedService<platform::ServiceManager> services_slot_{&services_};
  RecordingSleeper sleeper_;
  platform::testing::ScopedService<platform::Sleeper> sleeper_slot_{&sleeper_};
};

TEST_F(FilerCtlTest, RemoteProceduresFollowTheWrapperRules) {
  services_.set_job(kFilerJobLabel, true);
  std::atomic<int> notified{0};
  ScriptedServer server([&](FilerMessage& request) -> std::optional<FilerMessage> {
    switch (request.id) {
      case platform::kFilerGetServerAttribute:
        return reply(100, {0u, std::string(30, '\x02')});
      case platform::kFilerCreateObjectIterator:
        return reply(103, {0u, 7u});
      case platform::kFilerGetIterAttribute:
        return reply(104, {uint32_t(-5), std::string("ignored")});
      case platform::kFilerAdvanceIterator:
        return reply(101, {0u});  // the wrong id
      case platform::kFilerRegisterNotifyPort:
        notified = static_cast<int>(::write(request.descriptor.get(), "e", 1));
        return reply(107, {0u});
      default:
        return std::nullopt;
    }
  });

  char record[platform::kFilerStateRecordBytes + 8];
  std::memset(record, 'u', sizeof record);
  uint32_t length = 0;
  std::optional<FilerPort> port(GetFilerServerPort());
  ASSERT_TRUE(*port);
  EXPECT_EQ(
      SCGetServerAttribute(*port, platform::kFilerStateAttribute, &length, record, platform::kFilerStateRecordBytes),
      kFilerTruncated);
  EXPECT_EQ(length, platform::kFilerStateRecordBytes);
  EXPECT_EQ(std::string(record, sizeof record), std::string(24, '\x02') + std::string(8, 'u'));
  EXPECT_EQ(SCGetServerAttribute(*port, platform::kFilerStateAttribute, nullptr, record, 24), kFilerBadArgument);

  uint32_t iterator = 0;
  EXPECT_EQ(SCCreateObjectIter(*port, 1, &iterator), 0);
  EXPECT_EQ(iterator, 7u);
  length = 99;
  // The server's own failure reaches a caller that is not root as it is...
  set_filer_caller_uid_for_testing(1000);
  EXPECT_EQ(SCGetIterAttribute(*port, iterator, 1, &length, record, 24), -5);
  EXPECT_EQ(length, 0u);
  // ...and root as -10010 once the job is off.
  set_filer_caller_uid_for_testing(0);
  services_.set_job(kFilerJobLabel, false);
  EXPECT_EQ(SCGetIterAttribute(*port, iterator, 1, &length, record, 24), kFilerJobNotEnabled);
  services_.set_job(kFilerJobLabel, true);
  EXPECT_EQ(SCAdvanceIterator(*port, iterator), kFilerTransportBadReply);
  port.reset();  // the server serves one connection at a time

  // The notification port: the server gets its own copy to send on.
  int pair[2];
  ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair), 0);
  platform::UniqueFd ours(pair[0]), theirs(pair[1]);
  FilerPort second = GetFilerServerPort();
  EXPECT_EQ(SCRegisterNotiferPort(second, platform::kFilerEventsCode, "12345678", 8, theirs.get()), 0);
  EXPECT_EQ(notified, 1);
  char event = 0;
  EXPECT_EQ(::read(ours.get(), &event, 1), 1);
  EXPECT_EQ(SCRegisterNotiferPort(second, platform::kFilerEventsCode, "", 0, -1), kFilerTransportNoRight);
  second = FilerPort();

  // A server that hangs up is gone.
  FilerPort third = GetFilerServerPort();
  EXPECT_EQ(SCDestroyIterator(third, iterator), kFilerServerUnreachable);
  EXPECT_EQ(SCDestroyIterator(third, iterator), kFilerServerUnreachable);

  // One that never answers is given up on at the limit.
  int silent[2];
  ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, silent), 0);
  platform::UniqueFd far_end(silent[1]);
  FilerPort hanging(platform::UniqueFd(silent[0]), 100ms);
  EXPECT_EQ(SCGetServerAttribute(hanging, platform::kFilerStateAttribute, &length, record, 24),
            kFilerTransportTimedOut);
}

TEST_F(FilerCtlTest, CommandsSendTheirRecordsByteForByte) {
  services_.set_job(kFilerJobLabel, true);
  set_filer_caller_uid_for_testing(0);
  ScriptedServer server([](FilerMessage& request) {
    uint32_t capacity = std::get<uint32_t>(request.fields[3]);
    return std::optional(reply(102, {0u, std::string("\1\0\0\0", capacity)}));
  });

  const uint32_t ids[] = {0x11, 0x2233};
  uint32_t answer = 0;
  EXPECT_EQ(FilerDisconnectSessions(5, ids, 2, "bye", &answer), 0);
  EXPECT_EQ(answer, 1u);
  EXPECT_EQ(FilerDisconnectVolUsers(1, 2, "v", &answer), 0);
  EXPECT_EQ(FilerSendMessage(ids, 1, "hi"), 0);
  EXPECT_EQ(FilerStopAndDisableServer(300, nullptr, &answer), 0);
  EXPECT_EQ(FilerCancelTimerTask(9), 0);
  EXPECT_TRUE(sleeper_.slept.empty());

  auto words = [](std::vector<uint32_t> values, std::string text) {
    std::string bytes(reinterpret_cast<const char*>(values.data()), values.size() * 4);
    return bytes + text + std::string(1, '\0');
  };
  struct Expected {
    uint32_t code;
    std::string record;
    uint32_t reply_capacity;
  };
  std::vector<Expected> expected = {
      {platform::kFilerDisconnectCommand, words({5, 2, 0x11, 0x2233}, "bye"), 4},
      {platform::kFilerDisconnectCommand, words({1, 2}, "v"), 4},
      {platform::kFilerMessageCommand, words({1, 0x11}, "hi"), 0},
      {platform::kFilerShutdownCommand, words({300}, ""), 4},
      {platform::kFilerCancelTimerCommand, words({9}, "").substr(0, 4), 0},
  };
  EXPECT_EQ(expected[0].record.size(), 20u);
  server.stop();
  ASSERT_EQ(server.requests().size(), expected.size());
  for (size_t i = 0; i < expected.size(); ++i) {
    const FilerMessage& sent = server.requests()[i];
    EXPECT_EQ(sent.id, platform::kFilerSendServerCommand);
    EXPECT_EQ(sent.fields,
              (std::vector<platform::FilerField>{expected[i].record, expected[i].code,
                                                 uint32_t(expected[i].record.size()), expected[i].reply_capacity}))
        << i;
  }

  // Callers that are not root are refused before anything is sent, in the
  // words each operation has always used (stopping speaks of disabling).
  set_filer_caller_uid_for_testing(501);
  EXPECT_EQ(FilerSendMessage(ids, 2, ""), kFilerBadArgument);
  EXPECT_EQ(log_.lines().size(), 0u);
  EXPECT_EQ(FilerSendMessage(ids, 2, "hi"), kFilerBadArgument);
  EXPECT_EQ(FilerStopAndDisableServer(0, "x", &answer), kFilerBadArgument);
  EXPECT_EQ(FilerCancelTimerTask(1), kFilerBadArgument);
  EXPECT_EQ(FilerEnableServer(), kFilerEnableRefused);
  EXPECT_FALSE(FilerServerIsEnabled());
  EXPECT_EQ(log_.lines(), (std::vector<std::string>{
                              "FilerSendMessage by user <501> failed; FilerSendMessage only be called by root",
                              "FilerDisableServer by user <501> failed; FilerDisableServer only be called by root",
                              "FilerCancelTimerTask by user <501> failed; FilerCancelTimerTask only be called by root",
                              "FilerEnableServer by user <501> failed; FilerEnableServer only be called by root",
                              "FilerEnableServer by user <501> failed; FilerEnableServer only be called by root",
                          }));
  EXPECT_TRUE(services_.set_calls().empty());
}

TEST_F(FilerCtlTest, JobControlAndRecoveryWhenTheServerIsGone) {
  platform::testing::ScratchRoot root;  // no server listens under it
  set_filer_caller_uid_for_testing(0);
  services_.set_job(kFilerJobLabel, true);
  services_.set_job(kJobPath, true);
  using Call = platform::FakeServiceManager::SetCall;

  // Cancelling a timer of a server that is gone starts it again, after a
  // pause; stopping it disables the job.
  EXPECT_EQ(FilerCancelTimerTask(3), 0);
  EXPECT_EQ(sleeper_.slept, std::vector<double>{0.5});
  uint32_t answer = 0;
  EXPECT_EQ(FilerStopAndDisableServer(0, "bye", &answer), 0);
  EXPECT_EQ(services_.set_calls(), (std::vector<Call>{{kJobPath, true}, {kJobPath, false}}));
  // The service manager's refusal is not ours to report.
  services_.fail_job(kJobPath, 1);
  EXPECT_EQ(FilerEnableServer(), 0);
  EXPECT_EQ(FilerDisableServer(), 0);

  // With the job off, root hears that instead of the server being gone.
  services_.set_job(kFilerJobLabel, false);
  uint32_t length = 0;
  char buffer[4];
  EXPECT_EQ(SCGetServerAttribute(GetFilerServerPort(), platform::kFilerStateAttribute, &length, buffer, 4),
            kFilerJobNotEnabled);
  set_filer_caller_uid_for_testing(77);
  EXPECT_EQ(SCGetServerAttribute(GetFilerServerPort(), platform::kFilerStateAttribute, &length, buffer, 4),
            kFilerServerUnreachable);
  set_filer_caller_uid_for_testing(0);

  EXPECT_EQ(FilerGetServiceState(nullptr), -1);
  EXPECT_EQ(FilerGetServiceState(kFilerJobLabel), 0);
  EXPECT_FALSE(FilerServerIsEnabled());
  EXPECT_EQ(*FilerCopyAllServicesInfo()->find(kFilerJobLabel)->as_bool(), false);

  // Labels: null, empty and too long are refused with their errno; a path
  // is taken as it is.
  services_.fail_job(kJobPath, 0);
  log_.clear();
  errno = 0;
  EXPECT_EQ(FilerSetServiceState(nullptr, true), kFilerBadArgument);
  EXPECT_EQ(errno, EFAULT);
  EXPECT_EQ(FilerSetServiceState("", true), kFilerBadArgument);
  EXPECT_EQ(errno, EINVAL);
  std::string long_label(1000, 'a');
  EXPECT_EQ(FilerSetServiceState(long_label.c_str(), true), kFilerBadArgument);
  EXPECT_EQ(errno, ENAMETOOLONG);
  EXPECT_EQ(FilerSetServiceState(("/" + std::string(1024, 'b')).c_str(), true), kFilerBadArgument);
  EXPECT_EQ(log_.lines().size(), 4u);
  EXPECT_EQ(log_.lines()[0], "Cannot find /System/Library/LaunchDaemons/(null).plist");
  EXPECT_EQ(log_.lines()[1], "Cannot find /System/Library/LaunchDaemons/.plist");
  size_t before = services_.set_calls().size();
  EXPECT_EQ(FilerSetServiceState("/etc/jobs/x.plist", false), 0);
  EXPECT_EQ(services_.set_calls().size(), before + 1);
  EXPECT_EQ(services_.set_calls().back(), (Call{"/etc/jobs/x.plist", false}));

  // Without a service manager the job cannot be switched at all.
  platform::testing::ScopedService<platform::ServiceManager> none(nullptr);
  EXPECT_EQ(FilerEnableServer(), kFilerJobToolFailed);
  EXPECT_TRUE(log_.contains("FilerControl: fork Error " + std::to_string(ENOSYS)));
  EXPECT_FALSE(FilerCopyAllServicesInfo());
}

}  // namespace
}  // namespace hubwarden
