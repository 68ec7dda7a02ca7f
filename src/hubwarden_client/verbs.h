// The friendly verbs: the request each one sends and how its reply is shown
// as text. Requests are built from already-checked arguments; renderers
// accept any reply and leave out what is missing, so a reply of another
// shape never crashes them. Pure functions; safe from any thread.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "plist/value.h"

namespace hubwarden_client {

// What a verb shows: text for stdout, a note for stderr, and whether the
// command failed although the daemon answered (exit status 1).
struct View {
  std::string out;
  std::string err;
  bool failed = false;
};

// Any reply, for commands without a verb of their own (render_generic).
View render_any(const plist::Dict& reply);

// status: the server description with the details a person asks first.
plist::Dict status_request();
View render_status(const plist::Dict& reply);

// settings: readSettings, and writeSettings asking for the short reply.
plist::Dict read_settings_request();
View render_settings(const plist::Dict& reply);
plist::Dict write_settings_request(plist::Dict configuration);
View render_write_settings(const plist::Dict& reply);
// The meaning of a "writeStatus" number.
std::string write_status_text(uint64_t status);

// services: getServicesInfo.
plist::Dict services_request();
View render_services(const plist::Dict& reply);

// ps: listProcesses; limit 0 asks for every process.
plist::Dict process_list_request(const std::string& sort_key, int64_t limit, bool ascending);
View render_processes(const plist::Dict& reply);

// kill: killProcesses; failed unless every process was signalled.
plist::Dict kill_request(const std::vector<int64_t>& pids);
View render_kill(const plist::Dict& reply);

// history: getHistory for one family of series over the last seconds.
enum class HistoryKind { kCpu, kNetwork, kDisk };
std::optional<HistoryKind> parse_history_kind(std::string_view name);
plist::Dict history_request(HistoryKind kind, int64_t seconds);
View render_history(const plist::Dict& reply, HistoryKind kind);

// hardware: getHardwareInfo (the load meters and volumes).
plist::Dict hardware_request();
View render_hardware(const plist::Dict& reply);

}  // namespace hubwarden_client
