#include "hubwarden_info/switches/filerctl/filer_jobs.h"

#include <errno.h>
#include <sys/stat.h>

#include <cstring>
#include <string>

#include "hubwarden_info/switches/filerctl/filer_codes.h"
#include "hubwarden_info/switches/filerctl/filer_port.h"
#include "platform/log.h"
#include "platform/paths.h"
#include "platform/registry.h"
#include "platform/service_manager.h"

namespace hubwarden {
namespace {

constexpr size_t kMaxJobPath = 1024;
constexpr const char* kSystemLibrary = "/System/Library";

int refuse_label(const char* label, int error) {
  platform::log_notice(std::string("Cannot find /System/Library/LaunchDaemons/") + (label ? label : "(null)") +
                       ".plist");
  errno = error;
  return kFilerBadArgument;
}

}  // namespace

int FilerSetServiceState(const char* label, bool enable) {
  if (!label) return refuse_label(label, EFAULT);
  if (!*label) return refuse_label(label, EINVAL);
  std::string path;
  if (label[0] == '/') {
    if (std::strlen(label) > kMaxJobPath) return refuse_label(label, ENAMETOOLONG);
    path = label;
  } else {
    path = std::string(kSystemLibrary) + "/LaunchDaemons/" + label + ".plist";
    if (path.size() > kMaxJobPath) return refuse_label(label, ENAMETOOLONG);
  }
  if (!platform::has<platform::ServiceManager>()) {
    platform::log_notice("FilerControl: fork Error " + std::to_string(ENOSYS));
    return kFilerJobToolFailed;
  }
  // This is the job launcher's "load -w" / "unload -w": the host maps the
  // job description path to the file server's unit and switches it for
  // good, not just for this boot. Like the launcher's exit status, the
  // service manager's answer does not change our result.
  platform::get<platform::ServiceManager>().set_job_enabled(path, enable);
  return 0;
}

int FilerGetServiceState(const char* label) {
  if (!label || !platform::has<platform::ServiceManager>()) return -1;
  return platform::get<platform::ServiceManager>().job_enabled(label) ? 1 : 0;
}

std::optional<plist::Dict> FilerCopyAllServicesInfo() {
  int state = FilerGetServiceState(kFilerJobLabel);
  if (state < 0) return std::nullopt;
  plist::Dict jobs;
  jobs.set(kFilerJobLabel, plist::Value(state == 1));
  return jobs;
}

bool FilerServerIsEnabled() {
  if (filer_caller_uid() != 0) {
    log_filer_not_root("FilerEnableServer");
    return false;
  }
  return FilerGetServiceState(kFilerJobLabel) == 1;
}

int FilerEnableServer() {
  if (filer_caller_uid() != 0) {
    log_filer_not_root("FilerEnableServer");
    return kFilerEnableRefused;
  }
  return FilerSetServiceState(kFilerJobLabel, true);
}

int FilerDisableServer() { return FilerSetServiceState(kFilerJobLabel, false); }

bool FileExists(const char* path) {
  if (!path) return false;
  std::string real = platform::has<platform::Paths>() ? platform::resolve(path) : std::string(path);
  struct stat st;
  return ::stat(real.c_str(), &st) == 0;
}

}  // namespace hubwarden
