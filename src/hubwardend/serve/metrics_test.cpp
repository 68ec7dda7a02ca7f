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

// Every sample of an exposition as Debian's Prometheus client library reads
// it: sample name and labels to value, and family name to help text.
struct Parsed {
  std::map<std::string, double> values;  // "name{label=value,...}" in label order
  std::map<std::string, std::string> help;
  std::map<std::string, std::string> type;
  bool ok = false;
};

const char* kParser = R"(
import json, sys
from prometheus_client.parser import text_string_to_metric_families
samples, families = [], []
for family in text_string_to_metric_families(open(sys.argv[1], encoding="utf-8").read()):
    families.append([family.name, family.type, family.documentation])
    for s in family.samples:
        samples.append([s.name, sorted(s.labels.items()), s.value])
print(json.dumps({"samples": samples, "families": families}))
)";

Parsed parse_with_prometheus_client(const std::string& exposition) {
  Parsed parsed;
  std::string dir = (std::filesystem::temp_directory_path() / "hubwarden-metrics-XXXXXX").string();
  if (mkdtemp(dir.data()) == nullptr) return parsed;
  std::ofstream(dir + "/parse.py") << kParser;
  std::ofstream(dir + "/metrics.txt") << exposition;
  std::string output;
  if (FILE* pipe = popen(("/usr/bin/python3 " + dir + "/parse.py " + dir + "/metrics.txt").c_str(), "r")) {
    char buffer[4096];
    size_t n;
    while ((n = fread(buffer, 1, sizeof buffer, pipe)) > 0) output.append(buffer, n);
    parsed.ok = pclose(pipe) == 0;
  }
  std::filesystem::remove_all(dir);
  if (!parsed.ok) return parsed;
  nlohmann::json json = nlohmann::json::parse(output, nullptr, false);
  if (json.is_discarded()) {
    parsed.ok = false;
    return parsed;
  }
  for (const auto& s : json["samples"]) {
    std::string key = s[0].get<std::string>();
    if (!s[1].empty()) {
      key += '{';
      for (size_t i = 0; i < s[1].size(); ++i) {
        if (i > 0) key += ',';
        key += s[1][i][0].get<std::string>() + "=" + s[1][i][1].get<std::string>();
      }
      key += '}';
    }
    parsed.values[key] = s[2].get<double>();
  }
  for (const auto& f : json["families"]) {
    parsed.type[f[0].get<std::string>()] = f[1].get<std::string>();
    parsed.help[f[0].get<std::string>()] = f[2].get<std::string>();
  }
  return parsed;
}

bool have_prometheus_client() {
  return system("/usr/bin/python3 -c 'import prometheus_client.parser' >/dev/null 2>&1") == 0;
}

TEST(MetricsTest, CountsRequestsErrorsAndIdlePassesInAParsableExposition) {
  if (!have_prometheus_client()) GTEST_SKIP() << "python3-prometheus-client is not installed (scripts/setup)";
  Metrics metrics;
  metrics.count_request("getState", 200, 0.0004);
  metrics.count_request("getState", 200, 0.003);
  metrics.count_request("getState", 200, 20);
  metrics.count_request("getState", 401, 0.2);
  // Commands outside the table, including made-up ones, share one label.
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

  Parsed p = parse_with_prometheus_client(metrics.render({}));
  ASSERT_TRUE(p.ok);
  EXPECT_EQ(p.values["hubwardend_requests_total{code=200,command=getState}"], 2 + 1);
  EXPECT_EQ(p.values["hubwardend_requests_total{code=401,command=getState}"], 1);
  EXPECT_EQ(p.values["hubwardend_requests_total{code=200,command=other}"], 1);
  EXPECT_EQ(p.values["hubwardend_requests_total{code=404,command=other}"], 1);
  EXPECT_EQ(p.values["hubwardend_requests_total{code=other,command=writeSettings}"], 1);
  EXPECT_EQ(p.values.count("fake_metric"), 0u);

  EXPECT_EQ(p.type["hubwardend_request_duration_seconds"], "histogram");
  EXPECT_EQ(p.values["hubwardend_request_duration_seconds_bucket{command=getState,le=0.0005}"], 1);
  EXPECT_EQ(p.values["hubwardend_request_duration_seconds_bucket{command=getState,le=0.005}"], 2);
  EXPECT_EQ(p.values["hubwardend_request_duration_seconds_bucket{command=getState,le=0.25}"], 3);
  EXPECT_EQ(p.values["hubwardend_request_duration_seconds_bucket{command=getState,le=10}"], 3);
  EXPECT_EQ(p.values["hubwardend_request_duration_seconds_bucket{command=getState,le=+Inf}"], 4);
  EXPECT_EQ(p.values["hubwardend_request_duration_seconds_count{command=getState}"], 4);
  EXPECT_NEAR(p.values["hubwardend_request_duration_seconds_sum{command=getState}"], 20.2034, 1e-9);
  EXPECT_EQ(p.values["hubwardend_request_duration_seconds_bucket{command=listProcesses,le=0.0005}"], 1);
  EXPECT_EQ(p.values["hubwardend_request_duration_seconds_sum{command=listProcesses}"], 0);

  EXPECT_EQ(p.values["hubwardend_errors_total{kind=tls_handshake}"], 2);
  EXPECT_EQ(p.values["hubwardend_errors_total{kind=odd \"kind\" \\ with\nnewline}"], 1);
  size_t error_series = 0;
  double errors_counted = 0;
  for (const auto& [key, value] : p.values) {
    if (key.rfind("hubwardend_errors_total{", 0) == 0) {
      ++error_series;
      errors_counted += value;
    }
  }
  EXPECT_EQ(error_series, kMaxErrorKinds + 1);  // the first kinds and "other"
  EXPECT_EQ(errors_counted, 103);

  EXPECT_EQ(p.values["hubwardend_idle_pass_duration_seconds_bucket{le=0.5}"], 1);
  EXPECT_EQ(p.values["hubwardend_idle_pass_duration_seconds_bucket{le=60}"], 1);
  EXPECT_EQ(p.values["hubwardend_idle_pass_duration_seconds_count"], 2);
  EXPECT_EQ(p.values["hubwardend_idle_pass_duration_seconds_sum"], 120.3);
  // No load sample given: no load series.
  EXPECT_EQ(p.values.count("hubwarden_cpu_usage"), 0u);
}

TEST(MetricsTest, LatestLoadSampleIsScaledAndNamedFromItsLegend) {
  if (!have_prometheus_client()) GTEST_SKIP() << "python3-prometheus-client is not installed (scripts/setup)";
  Metrics metrics;
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
  std::string text = metrics.render(snapshot);
  Parsed p = parse_with_prometheus_client(text);
  ASSERT_TRUE(p.ok) << text;

  EXPECT_EQ(p.values["hubwarden_processes"], 312);
  EXPECT_EQ(p.values["hubwarden_threads"], 1045);
  EXPECT_EQ(p.values["hubwarden_history_sample_time_seconds"], 1700000010);
  const std::map<std::string, double> expected = {
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
  for (const auto& [name, value] : expected) {
    ASSERT_EQ(p.values.count(name), 1u) << name;
    EXPECT_DOUBLE_EQ(p.values[name], value) << name;
    EXPECT_EQ(p.type[name], "gauge") << name;
  }
  for (const char* absent : {"hubwarden_cpu2_usage", "hubwarden_network_throughput_en1",
                             "hubwarden_network_throughput_en2", "hubwarden_network_throughput_en3"}) {
    EXPECT_EQ(p.values.count(absent), 0u) << absent;
  }
  EXPECT_EQ(p.help["hubwarden_cpu_usage"].rfind("CPU_USAGE: ", 0), 0u) << p.help["hubwarden_cpu_usage"];
  EXPECT_EQ(p.help["hubwarden_boot_volume_free_percentage"].rfind("BOOT_VOLUME_FREE_PERCENTAGE: ", 0), 0u);
  // Scaled values are written exactly, and large counts keep every digit.
  EXPECT_NE(text.find("\nhubwarden_cpu_usage 12.34\n"), std::string::npos);
  EXPECT_NE(text.find("\nhubwarden_cpu3_usage 0.05\n"), std::string::npos);
  EXPECT_NE(text.find("\nhubwarden_network_throughput_en0 18446744073709551615\n"), std::string::npos);
}

TEST(MetricsTest, CountsFromManyThreadsAddUp) {
  Metrics metrics;
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&] {
      for (int i = 0; i < 1000; ++i) {
        metrics.count_request(i % 2 ? "getState" : "readSettings", 200, 0.001);
        if (i % 10 == 0) metrics.count_error("bad_request");
        if (i % 100 == 0) metrics.observe_idle_pass(0.01);
      }
    });
  }
  std::thread reader([&] {
    for (int i = 0; i < 50; ++i) metrics.render({});
  });
  for (std::thread& thread : threads) thread.join();
  reader.join();
  std::string text = metrics.render({});
  EXPECT_NE(text.find("hubwardend_requests_total{command=\"getState\",code=\"200\"} 2000\n"), std::string::npos);
  EXPECT_NE(text.find("hubwardend_request_duration_seconds_count{command=\"readSettings\"} 2000\n"), std::string::npos);
  EXPECT_NE(text.find("hubwardend_errors_total{kind=\"bad_request\"} 400\n"), std::string::npos);
  EXPECT_NE(text.find("hubwardend_idle_pass_duration_seconds_count 40\n"), std::string::npos);
}

}  // namespace
}  // namespace hubwardend::serve
