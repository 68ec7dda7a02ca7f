// The file server's control exchange: one state query ("stax", a 24-byte
// record) round trip over the Unix control socket, against a server thread
// in this process answering as the file server's daemon would.
#include <benchmark/benchmark.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <cstring>
#include <filesystem>
#include <string>
#include <thread>

#include "bench_root.h"
#include "hubwarden_info/switches/filerctl/filer_codes.h"
#include "hubwarden_info/switches/filerctl/filer_port.h"
#include "hubwarden_info/switches/filerctl/filer_rpc.h"
#include "platform/filer_wire.h"
#include "platform/paths.h"
#include "platform/unique_fd.h"

namespace {

// Answers every request on each connection with a running state record
// until the listener is shut down.
class StateServer {
 public:
  explicit StateServer(const std::string& path) {
    listener_.reset(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
    ::bind(listener_.get(), reinterpret_cast<sockaddr*>(&address), sizeof address);
    ::listen(listener_.get(), 4);
    thread_ = std::thread([this] { serve(); });
  }
  ~StateServer() {
    ::shutdown(listener_.get(), SHUT_RDWR);
    thread_.join();
  }

 private:
  void serve() {
    std::string record(hubwarden::kFilerStateRecordBytes, '\0');
    record[4] = static_cast<char>(hubwarden::kFilerRunning);
    for (;;) {
      platform::UniqueFd client(::accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC));
      if (!client.valid()) return;
      platform::FilerMessage request;
      while (platform::receive_filer_message(client.get(), &request) == platform::FilerWireStatus::kOk) {
        platform::FilerMessage reply;
        reply.id = request.id + platform::kFilerReplyOffset;
        reply.fields = {0u, record};
        if (platform::send_filer_message(client.get(), reply) != platform::FilerWireStatus::kOk) break;
      }
    }
  }

  platform::UniqueFd listener_;
  std::thread thread_;
};

void BM_StateRoundTrip(benchmark::State& state) {
  bench::BenchRoot root;
  std::filesystem::create_directories(root.dir() + "/run/hubwarden");
  StateServer server(platform::resolve(platform::kFilerSocket));
  hubwarden::FilerPort port = hubwarden::GetFilerServerPort();
  if (!port) {
    state.SkipWithError("no control socket");
    return;
  }
  char record[hubwarden::kFilerStateRecordBytes];
  for (auto _ : state) {
    uint32_t length = 0;
    int status = hubwarden::SCGetServerAttribute(port, hubwarden::kFilerStateAttribute, &length, record, sizeof record);
    if (status != 0 || record[4] != 2) state.SkipWithError("bad reply");
    benchmark::DoNotOptimize(record);
  }
  port = hubwarden::FilerPort();
}
BENCHMARK(BM_StateRoundTrip);

}  // namespace

BENCHMARK_MAIN();
