#include "hubwarden_info/switches/filerctl/filer_port.h"

#include <unistd.h>

#include <atomic>
#include <string>

#include "hubwarden_info/switches/filerctl/filer_codes.h"
#include "platform/log.h"
#include "platform/paths.h"
#include "platform/registry.h"

namespace hubwarden {
namespace {

// -1 while the process's own uid is in effect.
std::atomic<int64_t> stand_in_uid{-1};

int transport_status(platform::FilerWireStatus status) {
  switch (status) {
    case platform::FilerWireStatus::kOk:
      return 0;
    case platform::FilerWireStatus::kClosed:
      return kFilerServerUnreachable;
    case platform::FilerWireStatus::kTimedOut:
      return kFilerTransportTimedOut;
    case platform::FilerWireStatus::kMalformed:
    case platform::FilerWireStatus::kTooLarge:
      return kFilerTransportBadReply;
    case platform::FilerWireStatus::kIoError:
      break;
  }
  return kFilerTransportIoError;
}

}  // namespace

int FilerPort::call(const platform::FilerMessage& request, platform::FilerMessage* reply) const {
  if (!fd_.valid()) return kFilerServerUnreachable;
  int status = transport_status(platform::send_filer_message(fd_.get(), request, limit_));
  if (status != 0) return status;
  status = transport_status(platform::receive_filer_message(fd_.get(), reply, limit_));
  if (status != 0) return status;
  return reply->id == request.id + platform::kFilerReplyOffset ? 0 : kFilerTransportBadReply;
}

FilerPort GetFilerServerPort() {
  std::string path = platform::has<platform::Paths>() ? platform::resolve(platform::kFilerSocket)
                                                      : std::string(platform::kFilerSocket);
  return FilerPort(platform::connect_filer_socket(path));
}

uid_t filer_caller_uid() {
  int64_t uid = stand_in_uid.load();
  return uid >= 0 ? static_cast<uid_t>(uid) : ::geteuid();
}

void set_filer_caller_uid_for_testing(std::optional<uid_t> uid) { stand_in_uid.store(uid ? int64_t{*uid} : -1); }

void log_filer_not_root(const char* operation) {
  std::string name(operation);
  platform::log_notice(name + " by user <" + std::to_string(filer_caller_uid()) + "> failed; " + name +
                       " only be called by root");
}

}  // namespace hubwarden
