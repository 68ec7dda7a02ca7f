// Launching update jobs, queueing them, and the periodic step.
#include "swupdate/swupdate_jobs.h"

#include <errno.h>
#include <string.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "platform/log.h"
#include "platform/registry.h"
#include "platform/tasks.h"
#include "swupdate/swupdate_status.h"

namespace hubwarden {

namespace {

void mark_dirty(Dict* context) { context->set("contextDirty", true); }

std::string pid_prefix(int pid) { return "hubwarden_info: [" + std::to_string(pid) + "] "; }

}  // namespace

int launch_swupdate_command(const std::string* language, Dict* context, const Array* identifiers) {
  std::vector<std::string> argv = {"softwareupdate", "-q", identifiers ? "-i" : "-l", "-f", swupdate_status_path()};
  if (language != nullptr) {
    argv.push_back("--lang");
    argv.push_back(*language);
  }
  if (identifiers != nullptr) {
    for (const Value& identifier : *identifiers) {
      if (const std::string* text = identifier.as_string()) argv.push_back(*text);
    }
  }

  platform::Tasks* tasks = platform::find<platform::Tasks>();
  platform::DetachedLaunch launch;
  if (tasks != nullptr)
    launch = tasks->launch_detached(kSoftwareUpdateTool, argv);
  else
    launch.fork_errno = ENOSYS;
  if (launch.pid < 0) {
    platform::log_error(pid_prefix(::getpid()) + "cannot fork(" + kSoftwareUpdateTool +
                        "): " + ::strerror(launch.fork_errno));
    return -1;
  }
  // The forked process reports for itself, as it would had it logged.
  if (launch.daemon_errno != 0)
    platform::log_error(pid_prefix(launch.pid) + "cannot daemonize(" + kSoftwareUpdateTool +
                        "): " + ::strerror(launch.daemon_errno));
  if (context != nullptr) {
    context->set("swupdatePid", launch.pid);
    context->set("swupdateActive", true);
    context->remove("swupdatesArray");
    context->remove("swupdateScanRequested");
    mark_dirty(context);
  }
  return launch.pid;
}

void add_swupdate_array_to_context(Dict* context, const Array* identifiers) {
  if (context == nullptr || identifiers == nullptr) return;
  const Array* queued = context->find_array("swupdatesArray");
  if (queued == nullptr) {
    context->set("swupdatesArray", *identifiers);
    return;
  }
  // The merge is built and deliberately not stored: the install queued
  // first is the one that runs, and the console relies on that.
  Array merged = *queued;
  for (auto it = identifiers->rbegin(); it != identifiers->rend(); ++it) {
    std::erase(merged, *it);
  }
  merged.insert(merged.end(), identifiers->begin(), identifiers->end());
}

ErrorName periodic_swupdate_handler(Dict* context) {
  if (context == nullptr || !plist::is_flag_set(context->find("swupdateActive"))) return nullptr;
  int code = update_swupdate_state(context);
  if (code == kSwupdateRunning) return nullptr;
  if (code != kSwupdateFinished && code != kSwupdateGone) {
    platform::log_notice(std::string("hubwarden_info: unexpected Software Update state: ") + swupdate_state_word(code));
    return nullptr;
  }
  // Copies: a launch rewrites the context these live in.
  std::optional<std::string> language;
  if (const std::string* text = context->find_string("language")) language = *text;
  const std::string* lang = language ? &*language : nullptr;
  int pid;
  if (const Array* queued = context->find_array("swupdatesArray")) {
    Array identifiers = *queued;
    pid = launch_swupdate_command(lang, context, &identifiers);
  } else if (plist::is_flag_set(context->find("swupdateScanRequested"))) {
    pid = launch_swupdate_command(lang, context, nullptr);
  } else {
    context->remove("swupdateActive");
    context->remove("swupdatePid");
    mark_dirty(context);
    return nullptr;
  }
  return pid == -1 ? kCannotLaunchUpdateError : nullptr;
}

}  // namespace hubwarden
