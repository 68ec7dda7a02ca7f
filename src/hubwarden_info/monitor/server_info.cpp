// The "getState" status report.
#include "monitor/server_info.h"

#include <algorithm>
#include <cstdint>
#include <limits>
#include <string_view>

#include "access/connected_users.h"
#include "access/identity_certificates.h"
#include "access/service_config.h"
#include "access/tiered_admin.h"
#include "monitor/meters.h"
#include "plist/codec.h"
#include "request/cached_state.h"
#include "request/operations.h"

namespace hubwarden {

namespace {

constexpr std::string_view kDetailsPrefix = "withDetails+";

// The older text form has no numbers or booleans, so clients send them as
// strings there; numbers and strings are read alike. A string is true when
// it starts (after blanks, a sign and zeros) with Y, T or a digit 1-9.
bool truth_of(const Value* v) {
  if (!v) return false;
  if (v->is_number()) return v->number_is_true();
  const std::string* s = v->as_string();
  if (!s) return false;
  size_t i = s->find_first_not_of(" \t\r\n");
  if (i == std::string::npos) return false;
  if ((*s)[i] == '+' || (*s)[i] == '-') ++i;
  while (i < s->size() && (*s)[i] == '0') ++i;
  if (i >= s->size()) return false;
  char c = (*s)[i];
  return c == 'Y' || c == 'y' || c == 'T' || c == 't' || (c >= '1' && c <= '9');
}

// A number, or a string's leading integer, as a signed 32-bit integer;
// strings saturate at the 32-bit limits, anything else is 0.
int32_t int32_of(const Value& v) {
  if (v.is_number()) return v.to_int32().value_or(0);
  const std::string* s = v.as_string();
  if (!s) return 0;
  size_t i = s->find_first_not_of(" \t\r\n");
  if (i == std::string::npos) return 0;
  bool negative = false;
  if ((*s)[i] == '+' || (*s)[i] == '-') negative = (*s)[i++] == '-';
  int64_t magnitude = 0;
  for (; i < s->size() && (*s)[i] >= '0' && (*s)[i] <= '9'; ++i) {
    magnitude = magnitude * 10 + ((*s)[i] - '0');
    if (magnitude > int64_t{1} << 32) break;
  }
  int64_t value = negative ? -magnitude : magnitude;
  if (value > std::numeric_limits<int32_t>::max()) return std::numeric_limits<int32_t>::max();
  if (value < std::numeric_limits<int32_t>::min()) return std::numeric_limits<int32_t>::min();
  return static_cast<int32_t>(value);
}

// Averages of past CPU usage, one {"cpuUsageBy100", "interval"} per
// requested span in minutes, from one history query over the longest span.
// Fails with the history service's error.
//
// Every returned point counts once, as consoles have always computed these
// averages. The host's store returns one point per bucket and its buckets
// are of equal length within a stretch of the past, so a span inside one
// stretch is weighed evenly; a span that reaches back into coarser points
// weighs the recent past more than a time-weighted mean would.
ErrorName cpu_history(const Array& minutes, Dict* context, Array* out) {
  int32_t longest = 0;
  for (const Value& w : minutes) longest = std::max(longest, int32_of(w));
  ReplySlot history;
  const Value variant("v1");
  if (ErrorName error = get_history_data(&variant, Value(int64_t{longest} * 60), history, context)) return error;

  const Array* samples = history ? history->find_array("samplesArray") : nullptr;
  const Value* server_time = history ? history->find("currentServerTime") : nullptr;
  int64_t now = server_time ? int32_of(*server_time) : 0;
  for (const Value& w : minutes) {
    // 64-bit arithmetic throughout: spans and ages of any size compare
    // without overflow.
    int64_t span = int64_t{int32_of(w)} * 60;
    int64_t sum = 0;
    int64_t count = 0;
    for (const Value& s : samples ? *samples : Array()) {
      const Dict* sample = s.as_dict();
      if (!sample) continue;
      const Value* t = sample->find("t");
      __int128 age = static_cast<__int128>(now) - (t ? t->to_int64().value_or(0) : 0);
      // The boundary counts, and samples from the future always do.
      if (span < age) continue;
      const Value* usage = sample->find("v1");
      sum += usage ? int32_of(*usage) : 0;
      ++count;
    }
    int64_t average = count > 0 ? sum / count : 0;
    out->push_back(Dict{{"cpuUsageBy100", Value(static_cast<int32_t>(average))}, {"interval", w}});
  }
  return nullptr;
}

}  // namespace

StatusDetails parse_status_variant(const Value* variant) {
  StatusDetails details;
  const std::string* text = variant ? variant->as_string() : nullptr;
  if (!text || text->compare(0, kDetailsPrefix.size(), kDetailsPrefix) != 0) return details;
  std::string_view rest = std::string_view(*text).substr(kDetailsPrefix.size());
  if (rest.empty()) return details;
  plist::Parsed parsed = plist::parse_any(rest);
  const Dict* dict = parsed.ok() ? parsed.value.as_dict() : nullptr;
  if (!dict) return details;
  if (const Array* minutes = dict->find_array("CPU Avg Times")) details.cpu_average_minutes = *minutes;
  details.disk_usage = truth_of(dict->find("GetDiskUsage"));
  details.connected_users = truth_of(dict->find("GetNumConnectedUsers"));
  return details;
}

ErrorName get_server_info(ReplySlot& reply, const Value* variant, bool, Dict* context) {
  reply.reset();
  StatusDetails details = parse_status_variant(variant);

  std::optional<Dict> base;
  if (const Dict* info = context ? context->find_dict("info") : nullptr) {
    base = *info;
  } else if (!update_cached_state(context)) {
    if (const Dict* rebuilt = context ? context->find_dict("info") : nullptr) base = *rebuilt;
  }
  // Without a base every step still runs, so the meters keep their context
  // entries current; only the reply is missing.
  auto put = [&base](const char* key, Value value) {
    if (base) base->set(key, std::move(value));
  };

  ReplySlot config;
  read_service_config(nullptr, config, context);
  std::optional<Value> configuration;
  if (const Value* c = config ? config->find("configuration") : nullptr) {
    configuration = *c;
    put("serviceConfig", *c);
  }

  if (std::optional<Array> services = available_services()) put("availableServices", std::move(*services));

  ReplySlot summary;
  get_tiered_admin_summary(nullptr, summary, context);
  if (summary) put("tieredAdminSummary", std::move(*summary));

  std::optional<Value> average;
  Array per_processor;
  get_cpu_usage(&average, &per_processor, context);
  if (average) put("cpuUsageBy100", std::move(*average));

  if (!details.cpu_average_minutes.empty()) {
    Array averages;
    if (ErrorName error = cpu_history(details.cpu_average_minutes, context, &averages)) return error;
    put("cpuHistoryBy100", std::move(averages));
  }

  if (details.disk_usage) put("volumeInfos", get_volumeInfos());

  if (details.connected_users) {
    const Dict* services =
        configuration && configuration->as_dict() ? configuration->as_dict()->find_dict("services") : nullptr;
    put("numConnectedUsers", Value(static_cast<uint32_t>(get_numConnectedUsers(services, context))));
  }

  if (std::optional<Dict> traffic = get_network_traffic(context))
    if (const Value* throughput = traffic->find("total_throughput")) put("networkThroughput", *throughput);

  // Always asked; a host without the certificate module has none to list,
  // and a missing value leaves the key out rather than inventing one.
  if (std::optional<Value> certificates = get_identity_certificates())
    put("identityCertificates", std::move(*certificates));

  if (!base) return kCannotMallocErr;
  reply = std::move(*base);
  return nullptr;
}

}  // namespace hubwarden
