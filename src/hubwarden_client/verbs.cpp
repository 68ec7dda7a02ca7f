#include "hubwarden_client/verbs.h"

#include <algorithm>
#include <cstdio>

#include "hubwarden_client/table.h"
#include "plist/codec.h"

namespace hubwarden_client {

namespace {

using Align = Table::Align;

std::optional<double> number_at(const plist::Dict& d, std::string_view key) {
  const plist::Value* v = d.find(key);
  return v && !v->as_bool() ? v->to_double() : std::nullopt;
}

std::optional<uint64_t> unsigned_at(const plist::Dict& d, std::string_view key) {
  const plist::Value* v = d.find(key);
  return v && !v->as_bool() ? v->to_uint64() : std::nullopt;
}

std::string string_at(const plist::Dict& d, std::string_view key) {
  const std::string* s = d.find_string(key);
  return s ? *s : "";
}

// "KEY  value" lines; empty values are left out.
class Facts {
 public:
  void add(std::string label, std::string value) {
    if (!value.empty()) table_.add_row({std::move(label), std::move(value)});
  }
  std::string render() const { return table_.rows() ? table_.render(false) : ""; }

 private:
  Table table_{{{"", Align::kLeft}, {"", Align::kLeft}}};
};

std::string format_hertz(double hz) {
  char buf[32];
  if (hz >= 1e9)
    std::snprintf(buf, sizeof buf, "%.2f GHz", hz / 1e9);
  else
    std::snprintf(buf, sizeof buf, "%.0f MHz", hz / 1e6);
  return buf;
}

std::string volume_table(const plist::Array& volumes) {
  Table table({{"VOLUME"}, {"SIZE", Align::kRight}, {"FREE", Align::kRight}, {"USED", Align::kRight}});
  for (const plist::Value& item : volumes) {
    const plist::Dict* v = item.as_dict();
    if (!v) continue;
    uint64_t total = unsigned_at(*v, "totalBytes").value_or(0);
    uint64_t free = unsigned_at(*v, "freeBytes").value_or(0);
    std::string used =
        total ? format_percent(100.0 * static_cast<double>(total - std::min(free, total)) / static_cast<double>(total))
              : "-";
    table.add_row({string_at(*v, "name"), format_bytes(total), format_bytes(free), used});
  }
  return table.render();
}

// The per-processor entries {"cpuUsage-N": usage} as "CPU N" lines.
void add_processor_usages(Facts& facts, const plist::Array* usages) {
  if (!usages) return;
  for (const plist::Value& item : *usages) {
    const plist::Dict* d = item.as_dict();
    if (!d || d->size() != 1) continue;
    const auto& [key, value] = d->at_index(0);
    std::string_view name = key;
    if (!name.starts_with("cpuUsage-")) continue;
    std::optional<double> usage = value.to_double();
    if (usage) facts.add("CPU " + std::string(name.substr(9)), format_by100(*usage));
  }
}

}  // namespace

View render_any(const plist::Dict& reply) { return View{render_generic(reply), "", false}; }

// ---- status ----

plist::Dict status_request() {
  plist::Dict details{
      {"CPU Avg Times", plist::Array{1, 5, 15}}, {"GetDiskUsage", true}, {"GetNumConnectedUsers", true}};
  return plist::Dict{{"command", "getState"}, {"variant", "withDetails+" + plist::write_xml(plist::Value(details))}};
}

View render_status(const plist::Dict& reply) {
  Facts facts;
  facts.add("Computer name", string_at(reply, "computerName"));
  facts.add("Host name", string_at(reply, "hostName"));
  facts.add("Local name", string_at(reply, "localcastName"));
  facts.add("System", string_at(reply, "systemVersion"));
  facts.add("Server version", string_at(reply, "version"));
  facts.add("Kernel", string_at(reply, "kernelVersion"));
  if (const plist::Dict* computer = reply.find_dict("computerInfo")) {
    facts.add("Model", string_at(*computer, "computerModelName"));
    std::string processors;
    if (auto count = number_at(*computer, "numberOfCPUs")) processors = format_value(*computer->find("numberOfCPUs"));
    std::string kind = string_at(*computer, "cpuKind");
    if (!kind.empty()) processors += (processors.empty() ? "" : " x ") + kind;
    if (auto hz = number_at(*computer, "cpuSpeed"); hz && *hz > 0)
      processors += (processors.empty() ? "" : ", ") + format_hertz(*hz);
    facts.add("Processors", processors);
    if (auto memory = unsigned_at(*computer, "memorySize")) facts.add("Memory", format_bytes(*memory));
  }
  facts.add("Serial number", string_at(reply, "hwSerialNumber"));
  facts.add("Boot volume", string_at(reply, "bootVolume"));
  facts.add("Boot time", string_at(reply, "bootTime"));
  if (auto usage = number_at(reply, "cpuUsageBy100")) facts.add("CPU usage", format_by100(*usage));
  if (const plist::Array* history = reply.find_array("cpuHistoryBy100")) {
    std::string averages;
    for (const plist::Value& item : *history) {
      const plist::Dict* d = item.as_dict();
      if (!d) continue;
      auto usage = number_at(*d, "cpuUsageBy100");
      const plist::Value* interval = d->find("interval");
      if (!usage || !interval) continue;
      if (!averages.empty()) averages += ", ";
      averages += format_value(*interval) + " min " + format_by100(*usage);
    }
    facts.add("CPU average", averages);
  }
  if (auto rate = unsigned_at(reply, "networkThroughput")) facts.add("Network", format_bytes(*rate) + "/s");
  if (const plist::Value* users = reply.find("numConnectedUsers")) facts.add("Connected users", format_value(*users));
  if (const plist::Array* interfaces = reply.find_array("interfaceInfosArray")) {
    std::string list;
    for (const plist::Value& item : *interfaces) {
      const plist::Dict* d = item.as_dict();
      if (!d) continue;
      std::string entry = string_at(*d, "name");
      std::string address = string_at(*d, "ipAddress");
      if (!address.empty()) entry += (entry.empty() ? "" : " ") + address;
      if (entry.empty()) continue;
      if (!list.empty()) list += ", ";
      list += entry;
    }
    facts.add("Addresses", list);
  }
  View view;
  view.out = facts.render();
  if (const plist::Array* volumes = reply.find_array("volumeInfos"); volumes && !volumes->empty())
    view.out += (view.out.empty() ? "" : "\n") + volume_table(*volumes);
  return view;
}

// ---- settings ----

plist::Dict read_settings_request() { return plist::Dict{{"command", "readSettings"}}; }

View render_settings(const plist::Dict& reply) {
  View view;
  if (const plist::Dict* configuration = reply.find_dict("configuration")) view.out = render_generic(*configuration);
  if (auto status = unsigned_at(reply, "readStatus"); status && *status != 0)
    view.err = "access lists could not all be read (status " + std::to_string(*status) + ")\n";
  return view;
}

plist::Dict write_settings_request(plist::Dict configuration) {
  // The short reply: the status is all the client shows.
  return plist::Dict{{"command", "writeSettings"}, {"configuration", std::move(configuration)}, {"getDetails", false}};
}

std::string write_status_text(uint64_t status) {
  switch (status) {
    case 0:
      return "settings written";
    case 1:
      return "the SNMP service could not be switched";
    case 100010:
      return "invalid computer name";
    case 100011:
      return "the local host name could not be written";
    case 100012:
      return "the computer name could not be written";
    case 100020:
      return "the old time zone link could not be removed";
    case 100021:
      return "no zone file for that time zone";
    case 100022:
      return "the time zone link could not be made";
    case 100023:
      return "no city given, or the clock could not be set";
    case 100024:
      return "the name was written but the change was not confirmed in time";
    case 100026:
      return "SSH could not be switched on";
    case 100027:
      return "SSH could not be switched off";
    case 100029:
      return "remote desktop management could not be switched on";
    case 100030:
      return "remote desktop management could not be switched off";
    case 100031:
      return "the file sync agent could not be switched on";
    case 100032:
      return "the file sync agent could not be switched off";
    default:
      return "an access list could not be written (directory status " + std::to_string(status) + ")";
  }
}

View render_write_settings(const plist::Dict& reply) {
  View view;
  std::optional<uint64_t> status = unsigned_at(reply, "writeStatus");
  if (!status) {
    view.err = "the reply has no write status\n";
    view.failed = true;
  } else if (*status == 0) {
    view.out = write_status_text(0) + "\n";
  } else {
    view.err = "write failed: " + write_status_text(*status) + " (status " + std::to_string(*status) + ")\n";
    view.failed = true;
  }
  return view;
}

// ---- services ----

plist::Dict services_request() { return plist::Dict{{"command", "getServicesInfo"}}; }

View render_services(const plist::Dict& reply) {
  View view;
  const plist::Dict* services = reply.find_dict("servicesInfo");
  if (!services) {
    view.err = "the daemon has not finished starting its services yet\n";
    return view;
  }
  Table table({{"SERVICE"}, {"STATE"}, {"DETAILS"}});
  for (const auto& [name, value] : *services) {
    if (name == "Backvault") {
      std::string targets;
      if (const plist::Array* list = value.as_array())
        for (const plist::Value& item : *list) targets += (targets.empty() ? "" : ", ") + format_value(item);
      table.add_row({"Backup targets", "", targets});
    } else if (const plist::Dict* details = value.as_dict()) {
      std::string servers;
      if (const plist::Array* list = details->find_array("parentDirServers"))
        for (const plist::Value& item : *list)
          if (const plist::Dict* server = item.as_dict())
            servers +=
                (servers.empty() ? "" : ", ") + string_at(*server, "name") + " (" + string_at(*server, "type") + ")";
      table.add_row({name, "running", servers.empty() ? "" : "directory servers: " + servers});
    } else {
      table.add_row({name, "running", ""});
    }
  }
  if (table.rows() == 0)
    view.out = "no services running\n";
  else
    view.out = table.render();
  return view;
}

// ---- processes ----

plist::Dict process_list_request(const std::string& sort_key, int64_t limit, bool ascending) {
  plist::Dict request{
      {"command", "listProcesses"},
      {"fieldsToReturn",
       plist::Array{"PID", "CPUUsage", "ResidentSize", "VirtualSize", "Threads", "TotalSeconds", "Command"}},
      {"primarySortKey", sort_key},
      {"primarySortDirection", ascending ? "ASC" : "DESC"},
  };
  if (limit > 0) request.set("limit", limit);
  return request;
}

View render_processes(const plist::Dict& reply) {
  Table table({{"PID", Align::kRight},
               {"%CPU", Align::kRight},
               {"RSS", Align::kRight},
               {"VSZ", Align::kRight},
               {"THR", Align::kRight},
               {"TIME", Align::kRight},
               {"COMMAND"}});
  if (const plist::Array* processes = reply.find_array("processInfo")) {
    for (const plist::Value& item : *processes) {
      const plist::Dict* p = item.as_dict();
      if (!p) continue;
      auto text = [&](std::string_view key, auto format) -> std::string {
        const plist::Value* v = p->find(key);
        return v ? format(*v) : "";
      };
      table.add_row({
          text("PID", format_value),
          text("CPUUsage", [](const plist::Value& v) { return format_percent(v.to_double().value_or(0)); }),
          text("ResidentSize", [](const plist::Value& v) { return format_bytes(v.to_uint64().value_or(0)); }),
          text("VirtualSize", [](const plist::Value& v) { return format_bytes(v.to_uint64().value_or(0)); }),
          text("Threads", format_value),
          text("TotalSeconds", [](const plist::Value& v) { return format_cpu_time(v.to_uint64().value_or(0)); }),
          text("Command", format_value),
      });
    }
  }
  return View{table.render(), "", false};
}

plist::Dict kill_request(const std::vector<int64_t>& pids) {
  plist::Array list(pids.begin(), pids.end());
  plist::Dict request;
  request.set("command", "killProcesses");
  request.set("pids", std::move(list));
  return request;
}

View render_kill(const plist::Dict& reply) {
  View view;
  Table table({{"PID", Align::kRight}, {"RESULT"}});
  if (const plist::Dict* results = reply.find_dict("killResults"))
    for (const auto& [pid, result] : *results) table.add_row({pid, format_value(result)});
  view.out = table.render();
  const plist::Value* all = reply.find("killedAllProcesses");
  if (!all || !all->number_is_true()) {
    view.failed = true;
    view.err = "not every process could be signalled\n";
  }
  return view;
}

// ---- history ----

namespace {

struct Series {
  int number;  // the sample key is "v<number>"
  std::string_view header;
};

const std::vector<Series>& series_of(HistoryKind kind) {
  static const std::vector<Series> kCpu = {{1, "CPU"}, {3, "CPU 0"}, {4, "CPU 1"}, {9, "CPU 2"}, {10, "CPU 3"}};
  static const std::vector<Series> kNetwork = {{2, "TOTAL"}, {15, "IN"}, {16, "OUT"}, {5, "EN0"},
                                               {6, "EN1"},   {7, "EN2"}, {8, "EN3"}};
  static const std::vector<Series> kDisk = {{17, "FREE"}, {18, "FREE %"}};
  switch (kind) {
    case HistoryKind::kCpu:
      return kCpu;
    case HistoryKind::kNetwork:
      return kNetwork;
    case HistoryKind::kDisk:
      break;
  }
  return kDisk;
}

}  // namespace

std::optional<HistoryKind> parse_history_kind(std::string_view name) {
  if (name == "cpu") return HistoryKind::kCpu;
  if (name == "network") return HistoryKind::kNetwork;
  if (name == "disk") return HistoryKind::kDisk;
  return std::nullopt;
}

plist::Dict history_request(HistoryKind kind, int64_t seconds) {
  std::string keys;
  for (const Series& s : series_of(kind)) keys += (keys.empty() ? "v" : ",v") + std::to_string(s.number);
  return plist::Dict{{"command", "getHistory"}, {"timeScale", seconds}, {"variant", keys}};
}

View render_history(const plist::Dict& reply, HistoryKind kind) {
  const plist::Array* samples = reply.find_array("samplesArray");
  std::vector<const plist::Dict*> rows;
  if (samples)
    for (const plist::Value& item : *samples)
      if (const plist::Dict* d = item.as_dict()) rows.push_back(d);

  // A series shows when it has a value somewhere (a one-processor machine
  // has no per-processor columns); the first always does.
  std::vector<const Series*> shown;
  for (const Series& s : series_of(kind)) {
    std::string key = "v" + std::to_string(s.number);
    bool any = &s == &series_of(kind).front();
    for (const plist::Dict* row : rows) any = any || number_at(*row, key).has_value();
    if (any) shown.push_back(&s);
  }

  std::vector<Table::Column> columns{{"TIME"}};
  for (const Series* s : shown) columns.push_back({std::string(s->header), Align::kRight});
  Table table(columns);
  for (const plist::Dict* row : rows) {
    std::vector<std::string> cells{number_at(*row, "t") ? format_local_time(*number_at(*row, "t")) : "?"};
    for (const Series* s : shown) {
      std::string n = std::to_string(s->number);
      std::optional<double> value = number_at(*row, "v" + n);
      double factor = number_at(reply, "v" + n + "Factor").value_or(1.0);
      std::string legend = string_at(reply, "v" + n + "Legend");
      if (!value) {
        cells.push_back("-");
      } else if (legend.ends_with("_USAGE") || legend.ends_with("_PERCENTAGE") || kind == HistoryKind::kCpu) {
        cells.push_back(format_percent(*value * factor));
      } else if (kind == HistoryKind::kNetwork) {
        cells.push_back(format_bytes(static_cast<uint64_t>(std::max(0.0, *value * factor))) + "/s");
      } else {
        cells.push_back(format_bytes(static_cast<uint64_t>(std::max(0.0, *value * factor))));
      }
    }
    table.add_row(std::move(cells));
  }
  View view;
  view.out = table.render();
  if (rows.empty()) view.err = "no samples in that span yet\n";
  return view;
}

// ---- hardware ----

plist::Dict hardware_request() { return plist::Dict{{"command", "getHardwareInfo"}}; }

View render_hardware(const plist::Dict& reply) {
  Facts facts;
  if (auto usage = number_at(reply, "cpuUsageBy100")) facts.add("CPU usage", format_by100(*usage));
  add_processor_usages(facts, reply.find_array("cpuUsagesBy100Array"));
  if (auto rate = unsigned_at(reply, "networkThroughput")) facts.add("Network", format_bytes(*rate) + "/s");
  View view;
  view.out = facts.render();
  if (const plist::Array* volumes = reply.find_array("volumeInfosArray"); volumes && !volumes->empty())
    view.out += (view.out.empty() ? "" : "\n") + volume_table(*volumes);
  return view;
}

}  // namespace hubwarden_client
