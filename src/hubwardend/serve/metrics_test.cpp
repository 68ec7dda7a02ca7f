#include "hubwardend/serve/metrics.h"

#include <gtest/gtest.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <nlohmann/json.hpp>
#include <string>
#include <thread>
#include <vector>

namespace hubwardend::serve {
namespace {

// An exposition as Debian's Prometheus client library reads it: each sample
// under "name{label=value,...}" (labels sorted), each family's type and help
// under "# name"; null when the library refuses the text.
const char* kParser = R"(
import json, sys
from prometheus_client.parser import text_string_to_metric_families
out = {}
for f in text_string_to_metric_families(open(sys.argv[1], encoding="utf-8").read()):
    out["# " + f.name] = f.type + " " + f.documentation
    for s in f.samples:
        labels = ",".join(k + "=" + v for k, v in sorted(s.labels.items()))
        out[s.name + ("{" + labels + "}" if labels else "")] = s.value
print(json.dumps(out))
)";

nlohmann::json parse_with_prometheus_client(const std::string& exposition) {
  std::string dir = (std::filesystem::temp_directory_path() / "hubwarden-metrics-XXXXXX").string();
  if (mkdtemp(dir.data()) == nullptr) return nullptr;
  std::ofstream(dir + "/parse.py") << kParser;
  std::ofstream(dir + "/metrics.txt") << exposition;
  std::string output;
  bool ok = false;
  if (FILE* pipe = popen(("/usr/bin/python3 " + dir + "/parse.py " + dir + "/metrics.txt").c_str(), "r")) {
    char buffer[4096];
    for (size_t n; (n = fread(buffer, 1, sizeof buffer, pipe)) > 0;) output.append(buffer, n);
    ok = pclose(pipe) == 0;
  }
  std::filesystem::remove_all(dir);
  return ok ? nlohmann::json::parse(output, nullptr, false) : nullptr;
}

bool have_prometheus_client() {
  return system("/usr/bin/python3 -c 'import prometheus_client.parser' >/dev/null 2>&1") == 0;
}

TEST(MetricsTest, CountsRequestsErrorsAndIdlePassesInAParsableExposition) {
  if (!have_prometheus_client()) GTEST_SKIP() << "python3-prometheus-client is not installed (scripts/setup)";
  Metrics metrics;
  for (double seconds : {0.0004, 0.003, 20.0}) metrics.count_request("getState", 200, seconds);
  metrics.count_request("getState", 401, 0.2);
  // Commands outside the table, made-up ones included, share one label.
  metrics.count_request("getState\"} 1\nfake_metric 2", 200, 0.01);
  metrics.count_request("", 404, 0.01);
  metrics.count_request("writeSettings", 9999, 0.01);
  metrics.count_request("listProcesses", 200, -3);  // a clock step counts as instant
  metrics.count_error("tls_handshake");
  metrics.count_error("tls_handshake");
  metrics.count_error("odd \"kind\" \\ with\nnewline");
  for (int i = 0; i < 100; ++i) metrics.count_error("kind" + std::to_string(i));
  metrics.observe_idle_pass(0.3);
  metrics.observe_idle_pass(120);

  nlohmann::json p = parse_with_prometheus_client(metrics.render({}));
  ASSERT_TRUE(p.is_object());
  const std::map<std::string, double> expected = {
      {"hubwardend_requests_total{code=200,command=getState}", 3},
      {"hubwardend_requests_total{code=401,command=getState}", 1},
      {"hubwardend_requests_total{code=200,command=other}", 1},
      {"hubwardend_requests_total{code=404,command=other}", 1},
      {"hubwardend_requests_total{code=other,command=writeSettings}", 1},
      {"hubwardend_request_duration_seconds_bucket{command=getState,le=0.0005}", 1},
      {"hubwardend_request_duration_seconds_bucket{command=getState,le=0.005}", 2},
      {"hubwardend_request_duration_seconds_bucket{command=getState,le=10}", 3},
      {"hubwardend_request_duration_seconds_bucket{command=getState,le=+Inf}", 4},
      {"hubwardend_request_duration_seconds_count{command=getState}", 4},
      {"hubwardend_request_duration_seconds_sum{command=getState}", 20.2034},
      {"hubwardend_request_duration_seconds_bucket{command=listProcesses,le=0.0005}", 1},
      {"hubwardend_request_duration_seconds_sum{command=listProcesses}", 0},
      {"hubwardend_errors_total{kind=tls_handshake}", 2},
      {"hubwardend_errors_total{kind=odd \"kind\" \\ with\nnewline}", 1},
      {"hubwardend_errors_total{kind=other}", 100 - (kMaxErrorKinds - 2)},
      {"hubwardend_idle_pass_duration_seconds_bucket{le=0.5}", 1},
      {"hubwardend_idle_pass_duration_seconds_bucket{le=60}", 1},
      {"hubwardend_idle_pass_duration_seconds_count", 2},
      {"hubwardend_idle_pass_duration_seconds_sum", 120.3},
  };
  for (const auto& [key, value] : expected) {
    ASSERT_TRUE(p.contains(key)) << key;
    EXPECT_DOUBLE_EQ(p[key].get<double>(), value) << key;
  }
  EXPECT_EQ(p["# hubwardend_request_duration_seconds"].get<std::string>().rfind("histogram ", 0), 0u);
  EXPECT_FALSE(p.contains("fake_metric"));
  EXPECT_FALSE(p.contains("hubwarden_cpu_usage"));  // no load sample given
}

TEST(MetricsTest, LatestLoadSampleIsScaledAndNamedFromItsLegend) {
  if (!have_prometheus_client()) GTEST_SKIP() << "python3-prometheus-client is not installed (scripts/setup)";
  Metrics::Snapshot snapshot;
  snapshot.processes = 312;
  snapshot.threads = 1045;
  snapshot.history_sample = plist::Dict{
      {"t", uint64_t{1700000010}},
      {"v1", uint64_t{1234}},
      {"v2", uint64_t{52000}},
      {"v3", int64_t{10000}},
      {"v4", ""},  // missing in this sample
      {"v5", uint64_t{18446744073709551615u}},
      {"v6", ""},
      {"v9", uint64_t{5}},
      {"v10", 1.5},
      {"v11", uint64_t{77}},  // reserved positions carry no series
      {"v15", uint64_t{1000}},
      {"v16", uint64_t{51000}},
      {"v17", uint64_t{123456789012}},
      {"v18", uint64_t{4250}},
  };
  std::string text = Metrics().render(snapshot);
  nlohmann::json p = parse_with_prometheus_client(text);
  ASSERT_TRUE(p.is_object()) << text;
  const std::map<std::string, double> expected = {
      {"hubwarden_processes", 312},
      {"hubwarden_threads", 1045},
      {"hubwarden_history_sample_time_seconds", 1700000010},
      {"hubwarden_cpu_usage", 12.34},
      {"hubwarden_network_throughput", 52000},
      {"hubwarden_cpu1_usage", 100},
      {"hubwarden_network_throughput_en0", 18446744073709551615.0},
      {"hubwarden_cpu3_usage", 0.05},
      {"hubwarden_cpu4_usage", 0.015},
      {"hubwarden_network_input", 1000},
      {"hubwarden_network_output", 51000},
      {"hubwarden_boot_volume_free_bytes", 123456789012},
      {"hubwarden_boot_volume_free_percentage", 42.5},
  };
  size_t gauges = 0;
  for (const auto& [key, value] : p.items()) gauges += key.rfind("hubwarden_", 0) == 0;
  EXPECT_EQ(gauges, expected.size());
  for (const auto& [name, value] : expected) {
    ASSERT_TRUE(p.contains(name)) << name;
    EXPECT_DOUBLE_EQ(p[name].get<double>(), value) << name;
    EXPECT_EQ(p["# " + name].get<std::string>().rfind("gauge ", 0), 0u) << name;
  }
  EXPECT_EQ(p["# hubwarden_cpu_usage"], "gauge CPU_USAGE: average usage of all processors, percent.");
  // Scaled values are written exactly, and large counts keep every digit.
  for (const char* line : {"\nhubwarden_cpu_usage 12.34\n", "\nhubwarden_cpu3_usage 0.05\n",
                           "\nhubwarden_network_throughput_en0 18446744073709551615\n"}) {
    EXPECT_NE(text.find(line), std::string::npos) << line;
  }
}

TEST(MetricsTest, CountsFromManyThreadsAddUp) {
  Metrics metrics;
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&] {
      for (int i = 0; i < 1000; ++i) {
        metrics.count_request("getState", 200, 0.001);
        if (i % 10 == 0) metrics.count_error("bad_request");
        if (i % 100 == 0) metrics.render({});
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  std::string text = metrics.render({});
  EXPECT_NE(text.find("hubwardend_requests_total{command=\"getState\",code=\"200\"} 4000\n"), std::string::npos);
  EXPECT_NE(text.find("hubwardend_errors_total{kind=\"bad_request\"} 400\n"), std::string::npos);
}

}  // namespace
}  // namespace hubwardend::serve
