#include "hubwarden_info/switches/filerctl/filer_rpc.h"

#include <fcntl.h>

#include <cstring>
#include <string>
#include <utility>

#include "hubwarden_info/switches/filerctl/filer_codes.h"
#include "hubwarden_info/switches/filerctl/filer_jobs.h"

namespace hubwarden {
namespace {

using platform::FilerField;
using platform::FilerMessage;

FilerMessage request(int32_t id, std::vector<FilerField> fields) {
  FilerMessage message;
  message.id = id;
  message.fields = std::move(fields);
  return message;
}

std::string bytes_of(const void* data, uint32_t length) {
  return data ? std::string(static_cast<const char*>(data), length) : std::string();
}

// A failure as the caller sees it: root is told when the server's job is
// off, whatever went wrong on the way.
int failed(int status, uint32_t* length) {
  if (length) *length = 0;
  if (filer_caller_uid() == 0 && FilerGetServiceState(kFilerJobLabel) != 1) return kFilerJobNotEnabled;
  return status;
}

int32_t return_code(const FilerMessage& reply) { return static_cast<int32_t>(std::get<uint32_t>(reply.fields[0])); }

// Sends a request whose reply is a return code and nothing else.
int call_for_status(const FilerPort& port, FilerMessage message) {
  FilerMessage reply;
  int status = port.call(message, &reply);
  if (status == 0) status = return_code(reply);
  return status == 0 ? 0 : failed(status, nullptr);
}

// Sends a request whose reply is a return code and data, and copies the
// data out under the truncation rule.
int call_for_data(const FilerPort& port, FilerMessage message, uint32_t* length, void* buffer, uint32_t capacity) {
  if (!length || (!buffer && capacity > 0)) return kFilerBadArgument;
  *length = capacity;
  FilerMessage reply;
  int status = port.call(message, &reply);
  if (status == 0) status = return_code(reply);
  if (status != 0) return failed(status, length);
  const std::string& data = std::get<std::string>(reply.fields[1]);
  uint32_t copied = data.size() > capacity ? capacity : static_cast<uint32_t>(data.size());
  if (copied > 0) std::memcpy(buffer, data.data(), copied);
  *length = copied;
  return data.size() > capacity ? kFilerTruncated : 0;
}

}  // namespace

int SCGetServerAttribute(const FilerPort& port, uint32_t code, uint32_t* length, void* buffer, uint32_t capacity) {
  return call_for_data(port, request(platform::kFilerGetServerAttribute, {code, capacity}), length, buffer, capacity);
}

int SCSendServerCommand(const FilerPort& port, uint32_t code, const void* data, uint32_t length, uint32_t* reply_length,
                        void* reply, uint32_t reply_capacity) {
  if (!data && length > 0) return failed(kFilerBadArgument, reply_length);
  return call_for_data(
      port, request(platform::kFilerSendServerCommand, {bytes_of(data, length), code, length, reply_capacity}),
      reply_length, reply, reply_capacity);
}

int SCCreateObjectIter(const FilerPort& port, uint32_t kind, uint32_t* iterator) {
  if (!iterator) return kFilerBadArgument;
  FilerMessage reply;
  int status = port.call(request(platform::kFilerCreateObjectIterator, {kind}), &reply);
  if (status == 0) status = return_code(reply);
  if (status != 0) return failed(status, nullptr);
  *iterator = std::get<uint32_t>(reply.fields[1]);
  return 0;
}

int SCGetIterAttribute(const FilerPort& port, uint32_t iterator, uint32_t code, uint32_t* length, void* buffer,
                       uint32_t capacity) {
  return call_for_data(port, request(platform::kFilerGetIterAttribute, {iterator, code, capacity}), length, buffer,
                       capacity);
}

int SCAdvanceIterator(const FilerPort& port, uint32_t iterator) {
  return call_for_status(port, request(platform::kFilerAdvanceIterator, {iterator}));
}

int SCDestroyIterator(const FilerPort& port, uint32_t iterator) {
  return call_for_status(port, request(platform::kFilerDestroyIterator, {iterator}));
}

int SCRegisterNotiferPort(const FilerPort& port, uint32_t code, const void* data, uint32_t length, int notify_port) {
  if (!data && length > 0) return failed(kFilerBadArgument, nullptr);
  // The server gets a right of its own to send on; the caller keeps theirs.
  platform::UniqueFd right(notify_port >= 0 ? ::fcntl(notify_port, F_DUPFD_CLOEXEC, 0) : -1);
  if (!right.valid()) return failed(kFilerTransportNoRight, nullptr);
  FilerMessage message = request(platform::kFilerRegisterNotifyPort, {bytes_of(data, length), code, length});
  message.descriptor = std::move(right);
  return call_for_status(port, std::move(message));
}

}  // namespace hubwarden
