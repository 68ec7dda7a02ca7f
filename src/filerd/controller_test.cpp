#include "filerd/controller.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>

#include "filerd/codes.h"
#include "filerd/records.h"
#include "platform/fake/fake_tasks.h"

namespace filerd {
namespace {

using platform::FilerMessage;

class FakeSamba : public Samba {
 public:
  uint32_t running_pid() override { return pid; }
  platform::SambaStatus status() override { return snapshot; }
  bool reload() override { return ++reloads, tools_work; }
  bool end_process(uint32_t process) override {
    ended.push_back(process);
    return tools_work;
  }
  bool stop() override {
    ++stops;
    pid = 0;
    return tools_work;
  }

  uint32_t pid = 77;
  platform::SambaStatus snapshot;
  std::atomic<int> reloads{0}, stops{0};
  std::vector<uint32_t> ended;
  bool tools_work = true;
};

FilerMessage request(int32_t id, std::vector<platform::FilerField> fields) {
  FilerMessage message;
  message.id = id;
  message.fields = std::move(fields);
  return message;
}

FilerMessage command(uint32_t code, const std::string& data) {
  return request(platform::kFilerSendServerCommand, {data, code, uint32_t(data.size()), uint32_t(4)});
}

int32_t status_of(const FilerMessage& reply) { return int32_t(std::get<uint32_t>(reply.fields[0])); }
std::string data_of(const FilerMessage& reply) { return std::get<std::string>(reply.fields[1]); }

platform::SambaSession session(uint32_t id, uint32_t pid, std::string user, std::string machine = {}) {
  platform::SambaSession entry;
  entry.session_id = id;
  entry.pid = pid;
  entry.user = std::move(user);
  entry.machine = std::move(machine);
  return entry;
}

class ControllerTest : public ::testing::Test {
 protected:
  FilerMessage handle(FilerMessage message) { return controller.handle(message, iterators); }

  FakeSamba samba;
  std::vector<std::string> logs;
  Controller controller{samba, [this](const std::string& line) { logs.push_back(line); },
                        std::chrono::milliseconds(20)};
  IteratorTable iterators;
};

TEST_F(ControllerTest, StateRecordAndCommands) {
  FilerMessage reply =
      handle(request(platform::kFilerGetServerAttribute, {platform::kFilerStateAttribute, uint32_t(8)}));
  EXPECT_EQ(reply.id, 100);
  ASSERT_EQ(status_of(reply), kStatusOk);
  // The whole record even to a small buffer: the client reports truncation.
  EXPECT_EQ(word_at(data_of(reply), 4), platform::kFilerRunning);
  EXPECT_EQ(
      status_of(handle(request(platform::kFilerGetServerAttribute, {platform::filer_code("xxxx"), uint32_t(24)}))),
      kStatusBadArgument);

  EXPECT_EQ(status_of(handle(command(platform::kFilerRecycleCommand, std::string(1, '\0')))), kStatusOk);
  EXPECT_EQ(samba.reloads, 1);
  EXPECT_EQ(
      status_of(handle(command(platform::kFilerMessageCommand, make_message_record({1}, std::string(1 << 20, 'x'))))),
      kStatusNotSupported);
  EXPECT_EQ(status_of(handle(command(platform::kFilerMessageCommand, "\1\0\0\0no nul"))), kStatusBadArgument);
  EXPECT_EQ(status_of(handle(command(platform::filer_code("zzzz"), ""))), kStatusBadArgument);
  samba.tools_work = false;
  EXPECT_EQ(status_of(handle(command(platform::kFilerRecycleCommand, std::string(1, '\0')))), kStatusToolFailed);
}

TEST_F(ControllerTest, DisconnectEndsTheServingProcessesOfKnownSessionsOnly) {
  samba.snapshot.read = true;
  samba.snapshot.sessions = {session(5, 500, "ann"), session(6, 500, "ann"), session(7, 700, "bob")};
  FilerMessage reply = handle(command(platform::kFilerDisconnectCommand, make_disconnect_record(0, {5, 6, 99}, "")));
  EXPECT_EQ(status_of(reply), kStatusOk);
  EXPECT_EQ(samba.ended, (std::vector<uint32_t>{500}));
  EXPECT_EQ(word_at(data_of(reply), 0), 1u);
  // A count that lies about the length is refused before anything is ended.
  std::string lying = make_disconnect_record(0, {7}, "");
  lying[4] = 9;
  EXPECT_EQ(status_of(handle(command(platform::kFilerDisconnectCommand, lying))), kStatusBadArgument);
  EXPECT_EQ(samba.ended.size(), 1u);
  samba.snapshot.read = false;
  EXPECT_EQ(status_of(handle(command(platform::kFilerDisconnectCommand, make_disconnect_record(0, {7}, "")))),
            kStatusToolFailed);
}

TEST_F(ControllerTest, ScheduledStopIsShownCancelledAndRun) {
  EXPECT_EQ(status_of(handle(command(platform::kFilerShutdownCommand, make_shutdown_record(10, "later")))), kStatusOk);
  ASSERT_TRUE(controller.scheduled_stop());
  FilerMessage state =
      handle(request(platform::kFilerGetServerAttribute, {platform::kFilerStateAttribute, uint32_t(24)}));
  EXPECT_EQ(word_at(data_of(state), 12), 10u);
  EXPECT_EQ(status_of(handle(command(platform::kFilerCancelTimerCommand, make_word_record(0)))), kStatusOk);
  EXPECT_FALSE(controller.scheduled_stop());
  EXPECT_EQ(samba.stops, 0);

  // A listener hears the stop.
  int fds[2];
  ASSERT_EQ(::pipe(fds), 0);
  FilerMessage reg = request(platform::kFilerRegisterNotifyPort,
                             {make_word_record(1) + make_word_record(2), platform::kFilerEventsCode, uint32_t(8)});
  reg.descriptor.reset(fds[1]);
  EXPECT_EQ(status_of(handle(std::move(reg))), kStatusOk);
  EXPECT_EQ(status_of(handle(command(platform::kFilerShutdownCommand, make_shutdown_record(0, "")))), kStatusOk);
  EXPECT_EQ(samba.stops, 1);
  char event[16];
  ASSERT_EQ(::read(fds[0], event, sizeof event), 16);
  std::string record(event, 16);
  EXPECT_EQ(word_at(record, 0), platform::filer_code("stop"));
  EXPECT_EQ(word_at(record, 4), 1u);
  EXPECT_EQ(word_at(record, 8), 2u);
  ::close(fds[0]);
  // The reader went away: the next event drops the listener, no SIGPIPE.
  EXPECT_EQ(status_of(handle(command(platform::kFilerShutdownCommand, make_shutdown_record(0, "")))), kStatusOk);
  EXPECT_EQ(controller.listener_count(), 0u);
}

TEST_F(ControllerTest, IteratorsWalkASnapshotAndAreBounded) {
  samba.snapshot.read = true;
  samba.snapshot.sessions = {session(5, 500, "ann", "10.0.0.5")};
  FilerMessage created = handle(request(platform::kFilerCreateObjectIterator, {kIterSessions}));
  ASSERT_EQ(status_of(created), kStatusOk);
  uint32_t id = std::get<uint32_t>(created.fields[1]);
  samba.snapshot.sessions.clear();  // the iterator keeps what it saw
  auto get = [&](uint32_t code) { return handle(request(platform::kFilerGetIterAttribute, {id, code, 64u})); };
  EXPECT_EQ(data_of(get(kIterUser)), "ann");
  EXPECT_EQ(data_of(get(kIterSessionId)), "5");
  EXPECT_EQ(status_of(get(kIterSince)), kStatusBadArgument);  // a share attribute
  EXPECT_EQ(status_of(handle(request(platform::kFilerAdvanceIterator, {id}))), kStatusEndOfList);
  EXPECT_EQ(status_of(get(kIterUser)), kStatusEndOfList);
  EXPECT_EQ(status_of(handle(request(platform::kFilerDestroyIterator, {id}))), kStatusOk);
  EXPECT_EQ(status_of(handle(request(platform::kFilerDestroyIterator, {id}))), kStatusBadArgument);
  EXPECT_EQ(status_of(handle(request(platform::kFilerCreateObjectIterator, {platform::filer_code("junk")}))),
            kStatusBadArgument);

  for (size_t i = 0; i < IteratorTable::kMaxIterators; ++i)
    ASSERT_EQ(status_of(handle(request(platform::kFilerCreateObjectIterator, {kIterShares}))), kStatusOk);
  EXPECT_EQ(status_of(handle(request(platform::kFilerCreateObjectIterator, {kIterShares}))), kStatusTooMany);
}

TEST(SambaTools, ToolsRunWithArgumentVectorsAndFailuresAreReported) {
  platform::FakeTasks tasks;
  Options options;
  options.smb_conf = "/etc/x/smb.conf";
  tasks.set_exit(options.testparm, 0, "/var/run/x\n");
  tasks.set_exit(options.smbcontrol, 0);
  std::vector<std::string> logs;
  SambaTools samba(tasks, options, [&](const std::string& line) { logs.push_back(line); });
  EXPECT_EQ(samba.pid_directory(), "/var/run/x");
  EXPECT_TRUE(samba.end_process(4321));
  std::optional<platform::FakeTasks::Invocation> run = tasks.last(options.smbcontrol);
  ASSERT_TRUE(run);
  EXPECT_EQ(run->args, (std::vector<std::string>{"smbcontrol", "-s", "/etc/x/smb.conf", "4321", "shutdown"}));
  EXPECT_GT(run->timeout_seconds, 0);
  EXPECT_FALSE(samba.end_process(0));  // never "all processes"

  platform::TaskResult hung;
  hung.timed_out = true;
  hung.exit_status = 128 + 9;
  tasks.set_result(options.smbcontrol, hung);
  EXPECT_FALSE(samba.reload());
  ASSERT_FALSE(logs.empty());
  EXPECT_NE(logs.back().find("timed out"), std::string::npos);
}

}  // namespace
}  // namespace filerd
