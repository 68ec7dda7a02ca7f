// filerd_probe: speaks the file server's control exchange from the command
// line, for the end-to-end test and for measuring a round trip.
//
//   filerd_probe SOCKET stax              "state S pid P minutes M"
//   filerd_probe SOCKET sessions|shares   one line per item: id, name, address, process
//   filerd_probe SOCKET dses ID...        "status S ended N"
//   filerd_probe SOCKET sprf|ctim         "status S"
//   filerd_probe SOCKET shut MINUTES      "status S"
//   filerd_probe SOCKET smes BYTES        a message text of BYTES letters; "status S"
//   filerd_probe SOCKET bench COUNT       "stax" COUNT times, one connection each;
//                                         prints microseconds per round trip
// Exit status 0 when the exchange worked (whatever the status), 1 when not.
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "filerd/codes.h"
#include "filerd/records.h"
#include "platform/filer_wire.h"

namespace {

using platform::FilerMessage;

std::string g_socket;

bool exchange(FilerMessage request, FilerMessage* reply) {
  platform::UniqueFd fd = platform::connect_filer_socket(g_socket);
  if (!fd.valid()) {
    std::fprintf(stderr, "filerd_probe: nothing answers on %s\n", g_socket.c_str());
    return false;
  }
  if (platform::send_filer_message(fd.get(), request) != platform::FilerWireStatus::kOk ||
      platform::receive_filer_message(fd.get(), reply) != platform::FilerWireStatus::kOk ||
      reply->id != request.id + platform::kFilerReplyOffset) {
    std::fprintf(stderr, "filerd_probe: exchange failed\n");
    return false;
  }
  return true;
}

int32_t status_of(const FilerMessage& reply) { return int32_t(std::get<uint32_t>(reply.fields[0])); }

bool command(uint32_t code, const std::string& data, FilerMessage* reply) {
  FilerMessage request;
  request.id = platform::kFilerSendServerCommand;
  request.fields = {data, code, uint32_t(data.size()), uint32_t(4)};
  return exchange(std::move(request), reply);
}

bool stax(std::string* record) {
  FilerMessage request, reply;
  request.id = platform::kFilerGetServerAttribute;
  request.fields = {platform::kFilerStateAttribute, uint32_t(platform::kFilerStateRecordBytes)};
  if (!exchange(std::move(request), &reply) || status_of(reply) != 0) return false;
  *record = std::get<std::string>(reply.fields[1]);
  return record->size() >= platform::kFilerStateRecordBytes;
}

int list(uint32_t kind) {
  platform::UniqueFd fd = platform::connect_filer_socket(g_socket);
  if (!fd.valid()) return 1;
  auto call = [&](FilerMessage request, FilerMessage* reply) {
    return platform::send_filer_message(fd.get(), request) == platform::FilerWireStatus::kOk &&
           platform::receive_filer_message(fd.get(), reply) == platform::FilerWireStatus::kOk;
  };
  FilerMessage create, created;
  create.id = platform::kFilerCreateObjectIterator;
  create.fields = {kind};
  if (!call(std::move(create), &created) || status_of(created) != 0) return 1;
  uint32_t iterator = std::get<uint32_t>(created.fields[1]);
  auto attribute = [&](uint32_t code) {
    FilerMessage get, got;
    get.id = platform::kFilerGetIterAttribute;
    get.fields = {iterator, code, uint32_t(256)};
    if (!call(std::move(get), &got) || status_of(got) != 0) return std::string("?");
    return std::get<std::string>(got.fields[1]);
  };
  while (true) {
    FilerMessage probe, probed;
    probe.id = platform::kFilerGetIterAttribute;
    probe.fields = {iterator, filerd::kIterName, uint32_t(256)};
    if (!call(std::move(probe), &probed) || status_of(probed) != 0) break;
    std::printf("%s %s %s %s\n", attribute(filerd::kIterSessionId).c_str(), attribute(filerd::kIterName).c_str(),
                attribute(filerd::kIterAddress).c_str(), attribute(filerd::kIterProcess).c_str());
    FilerMessage advance, advanced;
    advance.id = platform::kFilerAdvanceIterator;
    advance.fields = {iterator};
    if (!call(std::move(advance), &advanced) || status_of(advanced) != 0) break;
  }
  FilerMessage destroy, destroyed;
  destroy.id = platform::kFilerDestroyIterator;
  destroy.fields = {iterator};
  return call(std::move(destroy), &destroyed) ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 3) {
    std::fprintf(stderr, "usage: filerd_probe SOCKET stax|sessions|shares|dses|sprf|ctim|shut|smes|bench ...\n");
    return 2;
  }
  g_socket = argv[1];
  std::string what = argv[2];
  std::vector<std::string> rest(argv + 3, argv + argc);
  FilerMessage reply;
  if (what == "stax") {
    std::string record;
    if (!stax(&record)) return 1;
    std::printf("state %u pid %u minutes %u\n", *filerd::word_at(record, 4), *filerd::word_at(record, 8),
                *filerd::word_at(record, 12));
    return 0;
  }
  if (what == "sessions") return list(filerd::kIterSessions);
  if (what == "shares") return list(filerd::kIterShares);
  if (what == "dses") {
    std::vector<uint32_t> ids;
    for (const std::string& id : rest) ids.push_back(uint32_t(std::strtoul(id.c_str(), nullptr, 10)));
    if (!command(platform::kFilerDisconnectCommand, filerd::make_disconnect_record(0, ids, ""), &reply)) return 1;
    std::string data = std::get<std::string>(reply.fields[1]);
    std::printf("status %d ended %u\n", status_of(reply), filerd::word_at(data, 0).value_or(0));
    return 0;
  }
  std::string data;
  uint32_t code = 0;
  if (what == "sprf") {
    code = platform::kFilerRecycleCommand;
    data = std::string(1, '\0');
  } else if (what == "ctim") {
    code = platform::kFilerCancelTimerCommand;
    data = filerd::make_word_record(0);
  } else if (what == "shut" && rest.size() == 1) {
    code = platform::kFilerShutdownCommand;
    data = filerd::make_shutdown_record(uint32_t(std::strtoul(rest[0].c_str(), nullptr, 10)), "");
  } else if (what == "smes" && rest.size() == 1) {
    code = platform::kFilerMessageCommand;
    data = filerd::make_message_record({1}, std::string(std::strtoul(rest[0].c_str(), nullptr, 10), 'm'));
  } else if (what == "bench" && rest.size() == 1) {
    long count = std::max(1L, std::strtol(rest[0].c_str(), nullptr, 10));
    std::string record;
    auto start = std::chrono::steady_clock::now();
    for (long i = 0; i < count; ++i)
      if (!stax(&record)) return 1;
    double micros = std::chrono::duration<double, std::micro>(std::chrono::steady_clock::now() - start).count();
    std::printf("stax round trip (connect, request, reply): %.1f us over %ld\n", micros / count, count);
    return 0;
  } else {
    std::fprintf(stderr, "filerd_probe: unknown request %s\n", what.c_str());
    return 2;
  }
  if (!command(code, data, &reply)) return 1;
  std::printf("status %d\n", status_of(reply));
  return 0;
}
