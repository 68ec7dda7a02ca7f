#include "hubwarden_info/switches/filerctl/filer_commands.h"

#include <chrono>
#include <thread>

#include "hubwarden_info/switches/filerctl/filer_codes.h"
#include "hubwarden_info/switches/filerctl/filer_jobs.h"
#include "hubwarden_info/switches/filerctl/filer_port.h"
#include "hubwarden_info/switches/filerctl/filer_record.h"
#include "hubwarden_info/switches/filerctl/filer_rpc.h"
#include "platform/registry.h"
#include "platform/sleeper.h"

namespace hubwarden {
namespace {

constexpr uint32_t kCommandReplyBytes = 4;

bool refused(const char* operation) {
  if (filer_caller_uid() == 0) return false;
  log_filer_not_root(operation);
  return true;
}

int send_command(uint32_t code, const FilerRecord& record, uint32_t* reply, uint32_t reply_capacity) {
  FilerPort port = GetFilerServerPort();
  uint32_t reply_length = 0;
  return SCSendServerCommand(port, code, record.data(), record.size(), &reply_length, reply, reply_capacity);
}

void pause_before_restart() {
  if (platform::has<platform::Sleeper>()) {
    platform::get<platform::Sleeper>().sleep_for(0.5);
  } else {
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
  }
}

}  // namespace

int FilerDisconnectSessions(uint32_t word, const uint32_t* ids, uint32_t count, const char* text, uint32_t* reply) {
  if (refused("FilerDisconnectSessions")) return kFilerBadArgument;
  if (!ids && count > 0) return kFilerBadArgument;
  FilerRecord record;
  record.word(word).word(count);
  for (uint32_t i = 0; i < count; ++i) record.word(ids[i]);
  record.text(text);
  return send_command(platform::kFilerDisconnectCommand, record, reply, kCommandReplyBytes);
}

int FilerDisconnectVolUsers(uint32_t first, uint32_t second, const char* text, uint32_t* reply) {
  if (refused("FilerDisconnectVolUsers")) return kFilerBadArgument;
  FilerRecord record;
  record.word(first).word(second).text(text);
  return send_command(platform::kFilerDisconnectCommand, record, reply, kCommandReplyBytes);
}

int FilerSendMessage(const uint32_t* ids, uint32_t count, const char* text) {
  if (!text || !*text) return kFilerBadArgument;
  if (refused("FilerSendMessage")) return kFilerBadArgument;
  if (!ids && count > 0) return kFilerBadArgument;
  FilerRecord record;
  record.word(count);
  for (uint32_t i = 0; i < count; ++i) record.word(ids[i]);
  record.text(text);
  return send_command(platform::kFilerMessageCommand, record, nullptr, 0);
}

int FilerStopAndDisableServer(uint32_t word, const char* text, uint32_t* reply) {
  if (refused("FilerDisableServer")) return kFilerBadArgument;
  FilerRecord record;
  record.word(word).text(text);
  int status = send_command(platform::kFilerShutdownCommand, record, reply, kCommandReplyBytes);
  if (status == kFilerServerUnreachable) return FilerSetServiceState(kFilerJobLabel, false);
  return status;
}

int FilerCancelTimerTask(uint32_t word) {
  if (refused("FilerCancelTimerTask")) return kFilerBadArgument;
  FilerRecord record;
  record.word(word);
  int status = send_command(platform::kFilerCancelTimerCommand, record, nullptr, 0);
  if (status != kFilerServerUnreachable) return status;
  // A server that is gone has no timer to cancel; what the caller wanted
  // kept is the server itself, so start it again once it has let go.
  pause_before_restart();
  return FilerSetServiceState(kFilerJobLabel, true);
}

int FilerRegisterForEvents(uint32_t first, uint32_t second, int notify_port) {
  if (refused("FilerRegisterForEvents")) return kFilerBadArgument;
  FilerRecord record;
  record.word(first).word(second);
  FilerPort port = GetFilerServerPort();
  return SCRegisterNotiferPort(port, platform::kFilerEventsCode, record.data(), record.size(), notify_port);
}

}  // namespace hubwarden
