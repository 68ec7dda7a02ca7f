// The daemon's counters and their text exposition.
#include "hubwardend/serve/metrics.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <utility>

namespace hubwardend::serve {

namespace {

// This module's commands; anything else is "other", so that a client cannot
// grow the label set by inventing commands.
constexpr std::array<std::string_view, 22> kKnownCommands = {
    "getState",
    "getHardwareInfo",
    "getSystemLogPaths",
    "tailFile",
    "getHistory",
    "getSWUpdateStatus",
    "startSWUpdateScan",
    "startSWUpdateInstall",
    "ignoreUpdateIdentifiers",
    "resetIgnoredUpdateIdentifiers",
    "reboot",
    "killProcesses",
    "listProcesses",
    "readSettings",
    "writeSettings",
    "getTieredAdminSummary",
    "readServiceConfig",
    "writeServiceConfig",
    "getServicesInfo",
    "getSACLsForUser",
    "getSACLsForUserWithAuthData",
    "getContext",
};
constexpr std::string_view kOther = "other";

// Requests answered from memory take a millisecond or less; listProcesses
// takes a second by design, reverse lookups up to ten.
const std::vector<double> kRequestBounds = {0.0005, 0.001, 0.0025, 0.005, 0.01, 0.025, 0.05,
                                            0.1,    0.25,  0.5,    1,     2.5,  5,     10};
// An idle pass samples the meters and may call tools.
const std::vector<double> kIdlePassBounds = {0.005, 0.01, 0.025, 0.05, 0.1, 0.25, 0.5, 1, 2.5, 5, 10, 30, 60};

// One history series: its position's key, legend, scale and meaning.
struct Series {
  const char* key;
  const char* legend;
  int divisor;  // the legend's factor 0.01 as an exact division by 100
  const char* meaning;
};
constexpr std::array<Series, 14> kSeries = {{
    {"v1", "CPU_USAGE", 100, "average usage of all processors, percent"},
    {"v2", "NETWORK_THROUGHPUT", 1, "bytes per second in and out on all interfaces"},
    {"v3", "CPU1_USAGE", 100, "usage of the first processor, percent"},
    {"v4", "CPU2_USAGE", 100, "usage of the second processor, percent"},
    {"v5", "NETWORK_THROUGHPUT_EN0", 1, "bytes per second in and out on the first interface"},
    {"v6", "NETWORK_THROUGHPUT_EN1", 1, "bytes per second in and out on the second interface"},
    {"v7", "NETWORK_THROUGHPUT_EN2", 1, "bytes per second in and out on the third interface"},
    {"v8", "NETWORK_THROUGHPUT_EN3", 1, "bytes per second in and out on the fourth interface"},
    {"v9", "CPU3_USAGE", 100, "usage of the third processor, percent"},
    {"v10", "CPU4_USAGE", 100, "usage of the fourth processor, percent"},
    {"v15", "NETWORK_INPUT", 1, "bytes per second received on all interfaces"},
    {"v16", "NETWORK_OUTPUT", 1, "bytes per second sent on all interfaces"},
    {"v17", "BOOT_VOLUME_FREE_BYTES", 1, "free bytes on the boot volume"},
    {"v18", "BOOT_VOLUME_FREE_PERCENTAGE", 100, "free space on the boot volume, percent"},
}};

std::string_view command_label(std::string_view command) {
  for (std::string_view known : kKnownCommands) {
    if (command == known) return known;
  }
  return kOther;
}

std::string code_label(int status) { return status >= 100 && status <= 599 ? std::to_string(status) : "other"; }

std::string escape_label_value(std::string_view value) {
  std::string out;
  out.reserve(value.size());
  for (char c : value) {
    if (c == '\\') {
      out += "\\\\";
    } else if (c == '"') {
      out += "\\\"";
    } else if (c == '\n') {
      out += "\\n";
    } else {
      out += c;
    }
  }
  return out;
}

std::string format_double(double value, std::chars_format format = std::chars_format::general) {
  if (std::isnan(value)) return "NaN";
  if (std::isinf(value)) return value > 0 ? "+Inf" : "-Inf";
  char buffer[400];  // the longest fixed form of a double is 310 digits
  auto result = std::to_chars(buffer, buffer + sizeof buffer, value, format);
  return std::string(buffer, result.ptr);
}

// magnitude / divisor written exactly, for divisors 1 and 100.
std::string format_scaled(bool negative, uint64_t magnitude, int divisor) {
  std::string text = negative && magnitude != 0 ? "-" : "";
  if (divisor == 1) return text + std::to_string(magnitude);
  text += std::to_string(magnitude / 100);
  unsigned cents = static_cast<unsigned>(magnitude % 100);
  if (cents != 0) {
    text += '.';
    text += static_cast<char>('0' + cents / 10);
    if (cents % 10 != 0) text += static_cast<char>('0' + cents % 10);
  }
  return text;
}

// A sample value scaled, or nullopt when it is missing or not a number.
std::optional<std::string> scaled_value(const plist::Value* value, int divisor) {
  if (value == nullptr) return std::nullopt;
  if (const uint64_t* u = value->as_unsigned()) return format_scaled(false, *u, divisor);
  if (const int64_t* i = value->as_integer()) {
    uint64_t magnitude = *i < 0 ? uint64_t{0} - static_cast<uint64_t>(*i) : static_cast<uint64_t>(*i);
    return format_scaled(*i < 0, magnitude, divisor);
  }
  if (const double* d = value->as_real()) return format_double(*d / divisor);
  return std::nullopt;
}

void family(std::string& out, std::string_view name, std::string_view type, std::string_view help) {
  out += "# HELP ";
  out += name;
  out += ' ';
  for (char c : help) {
    if (c == '\\') {
      out += "\\\\";
    } else if (c == '\n') {
      out += "\\n";
    } else {
      out += c;
    }
  }
  out += "\n# TYPE ";
  out += name;
  out += ' ';
  out += type;
  out += '\n';
}

void sample(std::string& out, std::string_view name, std::string_view labels, std::string_view value) {
  out += name;
  if (!labels.empty()) {
    out += '{';
    out += labels;
    out += '}';
  }
  out += ' ';
  out += value;
  out += '\n';
}

std::string label(std::string_view name, std::string_view value) {
  return std::string(name) + "=\"" + escape_label_value(value) + "\"";
}

void histogram_samples(std::string& out, std::string_view name, const std::string& labels, const auto& h) {
  std::string prefix = labels.empty() ? "" : labels + ",";
  uint64_t cumulative = 0;
  for (size_t i = 0; i < h.bounds->size(); ++i) {
    cumulative += h.counts[i];
    sample(out, std::string(name) + "_bucket",
           prefix + label("le", format_double((*h.bounds)[i], std::chars_format::fixed)), std::to_string(cumulative));
  }
  sample(out, std::string(name) + "_bucket", prefix + label("le", "+Inf"), std::to_string(h.count));
  sample(out, std::string(name) + "_sum", labels, format_double(h.sum));
  sample(out, std::string(name) + "_count", labels, std::to_string(h.count));
}

std::string metric_name_of_legend(std::string_view legend) {
  std::string name = "hubwarden_";
  for (char c : legend) name += static_cast<char>(c >= 'A' && c <= 'Z' ? c - 'A' + 'a' : c);
  return name;
}

}  // namespace

void Metrics::Histogram::observe(double seconds) {
  if (!(seconds >= 0)) seconds = 0;  // a clock step or NaN counts as instant
  auto bucket = std::lower_bound(bounds->begin(), bounds->end(), seconds);
  if (bucket != bounds->end()) ++counts[static_cast<size_t>(bucket - bounds->begin())];
  ++count;
  sum += seconds;
}

Metrics::Metrics() : idle_passes_(&kIdlePassBounds) {}

void Metrics::count_request(std::string_view command, int http_status, double seconds) {
  std::string command_text(command_label(command));
  std::lock_guard<std::mutex> lock(mu_);
  ++requests_[{command_text, code_label(http_status)}];
  auto it = durations_.find(command_text);
  if (it == durations_.end()) it = durations_.emplace(command_text, Histogram(&kRequestBounds)).first;
  it->second.observe(seconds);
}

void Metrics::count_error(std::string_view kind) {
  std::lock_guard<std::mutex> lock(mu_);
  auto it = errors_.find(std::string(kind));
  if (it == errors_.end()) {
    // Kinds come from the daemon's own code, but a bound keeps a mistake
    // that puts client text there from growing the output without end.
    it = errors_.emplace(errors_.size() < kMaxErrorKinds ? std::string(kind) : std::string(kOther), 0).first;
  }
  ++it->second;
}

void Metrics::observe_idle_pass(double seconds) {
  std::lock_guard<std::mutex> lock(mu_);
  idle_passes_.observe(seconds);
}

std::string Metrics::render(const Snapshot& snapshot) const {
  std::unique_lock<std::mutex> lock(mu_);
  auto requests = requests_;
  auto durations = durations_;
  auto errors = errors_;
  Histogram idle_passes = idle_passes_;
  lock.unlock();

  std::string out;
  family(out, "hubwardend_requests_total", "counter", "Requests answered, by command and HTTP status.");
  for (const auto& [key, count] : requests) {
    sample(out, "hubwardend_requests_total", label("command", key.first) + "," + label("code", key.second),
           std::to_string(count));
  }
  family(out, "hubwardend_request_duration_seconds", "histogram",
         "Seconds from a request's arrival to its answer, by command.");
  for (const auto& [command, histogram] : durations) {
    histogram_samples(out, "hubwardend_request_duration_seconds", label("command", command), histogram);
  }
  family(out, "hubwardend_errors_total", "counter", "Errors of the daemon, by kind.");
  for (const auto& [kind, count] : errors) {
    sample(out, "hubwardend_errors_total", label("kind", kind), std::to_string(count));
  }
  family(out, "hubwardend_idle_pass_duration_seconds", "histogram", "Seconds each idle pass took.");
  histogram_samples(out, "hubwardend_idle_pass_duration_seconds", "", idle_passes);

  if (snapshot.processes) {
    family(out, "hubwarden_processes", "gauge", "Processes on the server.");
    sample(out, "hubwarden_processes", "", std::to_string(*snapshot.processes));
  }
  if (snapshot.threads) {
    family(out, "hubwarden_threads", "gauge", "Threads of all processes on the server.");
    sample(out, "hubwarden_threads", "", std::to_string(*snapshot.threads));
  }
  if (snapshot.history_sample) {
    const plist::Dict& point = *snapshot.history_sample;
    if (auto time = scaled_value(point.find("t"), 1)) {
      family(out, "hubwarden_history_sample_time_seconds", "gauge",
             "When the latest load sample below was taken, in seconds since 1970.");
      sample(out, "hubwarden_history_sample_time_seconds", "", *time);
    }
    for (const Series& series : kSeries) {
      auto value = scaled_value(point.find(series.key), series.divisor);
      if (!value) continue;
      std::string name = metric_name_of_legend(series.legend);
      family(out, name, "gauge", std::string(series.legend) + ": " + series.meaning + ".");
      sample(out, name, "", *value);
    }
  }
  return out;
}

}  // namespace hubwardend::serve
