// The status file and the job state read from it.
#include "swupdate/swupdate_status.h"

#include <signal.h>
#include <unistd.h>

#include <climits>
#include <string>

#include "platform/file_util.h"
#include "platform/log.h"
#include "platform/paths.h"
#include "platform/registry.h"
#include "platform/signals.h"
#include "platform/tasks.h"
#include "plist/codec.h"

namespace hubwarden {

namespace {

// A scan refreshes the package lists from the network first.
constexpr double kScanSeconds = 600;
// The tool writes a few kilobytes per update; anything this large is not
// its work.
constexpr size_t kMaxStatusBytes = 16u << 20;

void mark_dirty(Dict* context) { context->set("contextDirty", true); }

// A whole number read from the status file, or nullopt for anything else
// (booleans, strings, fractions, values beyond 64 bits).
std::optional<int64_t> whole_number(const Value* v) {
  if (v == nullptr) return std::nullopt;
  if (const int64_t* i = v->as_integer()) return *i;
  if (const uint64_t* u = v->as_unsigned()) {
    if (*u > static_cast<uint64_t>(INT64_MAX)) return std::nullopt;
    return static_cast<int64_t>(*u);
  }
  if (const double* d = v->as_real()) {
    if (!(*d >= -9.2e18 && *d <= 9.2e18) || *d != static_cast<double>(static_cast<int64_t>(*d))) return std::nullopt;
    return static_cast<int64_t>(*d);
  }
  return std::nullopt;
}

bool is_numeric(const Value* v) {
  return v != nullptr && (v->as_integer() != nullptr || v->as_unsigned() != nullptr || v->as_real() != nullptr);
}

// Every result entry that carries a phase reports "DONE".
bool every_result_done(const Array& results) {
  for (const Value& entry : results) {
    const Dict* result = entry.as_dict();
    const std::string* phase = result ? result->find_string("phase") : nullptr;
    if (phase != nullptr && *phase != "DONE") return false;
  }
  return true;
}

}  // namespace

std::string swupdate_status_path() { return platform::resolve(kSoftwareUpdateStatusPath); }

std::optional<Dict> read_swupdate_status_dict() {
  std::optional<std::string> text = platform::read_file(swupdate_status_path(), kMaxStatusBytes);
  if (!text) return std::nullopt;
  plist::Parsed parsed = plist::parse_any(*text);
  if (!parsed.ok()) return std::nullopt;
  Dict* dict = parsed.value.as_dict();
  if (dict == nullptr) return std::nullopt;
  return std::move(*dict);
}

void delete_swupdate_status_dict(Dict* context) {
  ::unlink(swupdate_status_path().c_str());
  if (context == nullptr) return;
  context->remove("swupdatePid");
  mark_dirty(context);
}

bool swupdate_process_alive(const Value& pid) {
  std::optional<int64_t> number = whole_number(&pid);
  // 0 and negative numbers name process groups, 1 is init; none of them,
  // nor this process, is ever a job of ours.
  if (!number || *number <= 1 || *number > INT_MAX || *number == ::getpid()) return false;
  platform::ProcessSignals* signals = platform::find<platform::ProcessSignals>();
  return signals != nullptr && signals->send(static_cast<pid_t>(*number), 0) == 0;
}

int update_swupdate_state(Dict* context) {
  Dict scratch;
  if (context == nullptr) context = &scratch;
  std::optional<Dict> status = read_swupdate_status_dict();
  if (!status) {
    if (!context->contains("swupdatePid")) return kSwupdateFinished;
    context->remove("swupdatePid");
    mark_dirty(context);
    return kSwupdateGone;
  }
  if (plist::is_flag_set(status->find("restartRequired"))) {
    context->set("restartRequired", true);
    mark_dirty(context);
  }
  const std::string* phase_text = status->find_string("phase");
  std::string phase = phase_text ? *phase_text : std::string();
  if (phase == "DONE" || phase == "UPTODATE") {
    context->remove("swupdatePid");
    mark_dirty(context);
    return kSwupdateFinished;
  }
  if (!is_numeric(context->find("swupdatePid"))) {
    context->remove("swupdatePid");
    mark_dirty(context);
    return kSwupdateGone;
  }
  const Value* file_pid = status->find("pid");
  if (!is_numeric(file_pid)) {
    delete_swupdate_status_dict(context);
    return kSwupdateCrashed;
  }
  if (!(*file_pid == *context->find("swupdatePid"))) {
    context->set("swupdatePid", *file_pid);
    mark_dirty(context);
  }
  if (swupdate_process_alive(*file_pid)) return kSwupdateRunning;

  const Array* results = status->find_array("phaseResultsArray");
  if (phase != "INSTALLING" || results == nullptr || !every_result_done(*results)) return kSwupdateCrashed;

  // The tool can die after every install has finished while its file still
  // says "INSTALLING"; a fresh scan rewrites the file with the truth.
  platform::log_notice("hubwarden_info: [" + std::to_string(::getpid()) +
                       "] unexpected Software Update state: crashed, working around #3162214");
  delete_swupdate_status_dict(context);
  context->set("swupdateScanRequested", true);
  mark_dirty(context);
  return kSwupdateFinished;
}

int update_swupdate_file() {
  platform::Tasks* tasks = platform::find<platform::Tasks>();
  if (tasks == nullptr) return -1;
  platform::TaskResult r =
      tasks->run(kSoftwareUpdateTool, {"softwareupdate", "-q", "-l", "-f", swupdate_status_path()}, {}, kScanSeconds);
  return r.launched ? r.exit_status : -1;
}

const char* swupdate_state_word(int code) {
  switch (code) {
    case kSwupdateMismatch:
      return "mismatch";
    case kSwupdateCrashed:
      return "crashed";
    default:
      return "unknown";
  }
}

}  // namespace hubwarden
