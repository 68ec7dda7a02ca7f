// What the daemon tells a Prometheus server that scrapes GET /metrics: the
// latest load sample of the history service (each of its series scaled to
// the unit its legend names), the server's process and thread counts, and
// the daemon's own request counts, error counts and latencies, and idle
// pass durations, in the text exposition format (version 0.0.4).
//
// Label sets are bounded whatever clients send: a command outside this
// module's command table is counted as "other", as is any error kind beyond
// the first kMaxErrorKinds and any HTTP status outside 100..599.
//
// Thread-safety: every method may be called from any thread; counting takes
// a short lock, rendering copies the counters under it.
#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "plist/value.h"

namespace hubwardend::serve {

inline constexpr const char* kMetricsContentType = "text/plain; version=0.0.4; charset=utf-8";
inline constexpr size_t kMaxErrorKinds = 32;

class Metrics {
 public:
  // What render adds from outside the daemon's own counters.
  struct Snapshot {
    // The latest point of the history service: "t" (seconds since 1970) and
    // "v1".."v18", each an unsigned number or "" when the value is missing.
    // Missing values, and a missing sample, are left out of the output.
    std::optional<plist::Dict> history_sample;
    std::optional<uint64_t> processes;  // processes on the server
    std::optional<uint64_t> threads;    // threads of all of them
  };

  Metrics();
  Metrics(const Metrics&) = delete;
  Metrics& operator=(const Metrics&) = delete;

  // One answered request: the request's command ("" or unknown: "other"),
  // the HTTP status sent and the seconds from arrival to answer.
  void count_request(std::string_view command, int http_status, double seconds);
  // One error of the given kind ("tls_handshake", "bad_request", ...).
  void count_error(std::string_view kind);
  // One idle pass that took seconds.
  void observe_idle_pass(double seconds);

  // The whole exposition: the counters so far and snapshot's values.
  std::string render(const Snapshot& snapshot) const;

 private:
  struct Histogram {
    explicit Histogram(const std::vector<double>* bounds) : bounds(bounds), counts(bounds->size(), 0) {}
    void observe(double seconds);
    const std::vector<double>* bounds;  // upper bounds, ascending; +Inf implied
    std::vector<uint64_t> counts;       // per bucket, not cumulative
    uint64_t count = 0;
    double sum = 0;
  };

  mutable std::mutex mu_;
  std::map<std::pair<std::string, std::string>, uint64_t> requests_;  // (command, code)
  std::map<std::string, Histogram> durations_;                        // by command
  std::map<std::string, uint64_t> errors_;                            // by kind
  Histogram idle_passes_;
};

}  // namespace hubwardend::serve
