// The console's software update commands: status, scan, install, the
// ignore list and the reboot that follows an install.
#include <string>
#include <vector>

#include "platform/registry.h"
#include "platform/tasks.h"
#include "request/operations.h"
#include "swupdate/swupdate_jobs.h"
#include "swupdate/swupdate_status.h"

namespace hubwarden {

namespace {

constexpr const char* kRebootTool = "/sbin/reboot";
// Changing the ignore list only edits the tool's own files.
constexpr double kIgnoreSeconds = 120;
// A reboot tool hands the work to the service manager and returns.
constexpr double kRebootSeconds = 30;
// The reply status of a job that could not start and was queued instead.
constexpr int kQueuedAfterLaunchFailure = 8;

void mark_dirty(Dict* context) { context->set("contextDirty", true); }

const std::string* string_or_null(const Value* v) { return v ? v->as_string() : nullptr; }

// Runs the update tool synchronously with args after its name; the exit
// status, -1 when it could not run.
int run_tool(std::vector<std::string> args) {
  platform::Tasks* tasks = platform::find<platform::Tasks>();
  if (tasks == nullptr) return -1;
  args.insert(args.begin(), "softwareupdate");
  platform::TaskResult r = tasks->run(kSoftwareUpdateTool, args, {}, kIgnoreSeconds);
  return r.launched ? r.exit_status : -1;
}

}  // namespace

ErrorName get_swupdate_status(ReplySlot& reply, Dict* context) {
  reply.emplace();
  platform::Tasks* tasks = platform::find<platform::Tasks>();
  if (tasks != nullptr && tasks->has_tool(kSoftwareUpdateTool)) {
    reply->set("startSWUpdateScanVersion", 1);
    reply->set("startSWUpdateInstallVersion", 1);
    if (ErrorName error = periodic_swupdate_handler(context)) return error;
    if (std::optional<Dict> status = read_swupdate_status_dict()) reply->set("swupdateStatus", std::move(*status));
  }
  reply->set("status", 0);
  return nullptr;
}

ErrorName start_swupdate_scan(const Value* language, ReplySlot& reply, Dict* context) {
  reply.emplace();
  reply->set("status", 0);
  Dict scratch;
  if (context == nullptr) context = &scratch;
  if (plist::is_flag_set(context->find("restartRequired"))) {
    reply->set("result", "RESTART_REQUIRED");
    return nullptr;
  }
  const std::string* lang = string_or_null(language);
  if (plist::is_flag_set(context->find("swupdateActive"))) {
    context->set("swupdateScanRequested", true);
    mark_dirty(context);
    if (lang != nullptr) context->set("language", *lang);
    reply->set("result", "REQUEST_QUEUED");
    return nullptr;
  }
  if (launch_swupdate_command(lang, context, nullptr) != -1) {
    reply->set("result", "REQUEST_STARTED");
    return nullptr;
  }
  reply->set("status", kQueuedAfterLaunchFailure);
  context->set("swupdateScanRequested", true);
  mark_dirty(context);
  reply->set("result", "REQUEST_QUEUED");
  return nullptr;
}

ErrorName start_swupdate_install(const Dict& request, ReplySlot& reply, Dict* context) {
  reply.emplace();
  reply->set("status", 0);
  Dict scratch;
  if (context == nullptr) context = &scratch;
  if (plist::is_flag_set(context->find("restartRequired"))) {
    reply->set("result", "RESTART_REQUIRED");
    return nullptr;
  }
  const Array* identifiers = request.find_array("swupdatesArray");
  if (identifiers == nullptr) {
    reply->set("result", "PARAMETER_ERROR");
    return nullptr;
  }
  if (!plist::is_flag_set(context->find("swupdateActive"))) {
    if (launch_swupdate_command(string_or_null(request.find("language")), context, identifiers) != -1) {
      reply->set("result", "REQUEST_STARTED");
      return nullptr;
    }
    reply->set("status", kQueuedAfterLaunchFailure);
  }
  add_swupdate_array_to_context(context, identifiers);
  mark_dirty(context);
  reply->set("result", "REQUEST_QUEUED");
  return nullptr;
}

ErrorName ignore_swupdate_identifiers(const Dict& request, ReplySlot& reply, Dict* context) {
  const Array* identifiers = request.find_array("identifiersToIgnore");
  Array ignored = identifiers ? *identifiers : Array();
  if (!ignored.empty()) {
    std::vector<std::string> args = {"--ignore"};
    for (const Value& identifier : ignored) {
      if (const std::string* text = identifier.as_string()) args.push_back(*text);
    }
    if (run_tool(args) != 0 || update_swupdate_file() != 0) return kCannotLaunchUpdateError;
  }
  ErrorName error = get_swupdate_status(reply, context);
  reply->set("identifiersIgnored", std::move(ignored));
  return error;
}

ErrorName reset_ignored_swupdate_identifiers(ReplySlot& reply, Dict* context) {
  if (run_tool({"--reset-ignored"}) != 0 || update_swupdate_file() != 0) return kCannotLaunchUpdateError;
  return get_swupdate_status(reply, context);
}

ErrorName reboot_post_swupdate(const Dict&, ReplySlot& reply, Dict*) {
  reply.emplace();
  platform::Tasks* tasks = platform::find<platform::Tasks>();
  platform::TaskResult r;
  if (tasks != nullptr) r = tasks->run(kRebootTool, {}, {}, kRebootSeconds);
  int status = r.launched ? r.exit_status : -1;
  reply->set("status", status);
  if (status != 0)
    reply->set("rebootStatus", "CANNOT_REBOOT_ERR: " + std::to_string(status));
  else if (!r.out.empty())
    reply->set("rebootStatus", r.out);
  return nullptr;
}

}  // namespace hubwarden
