// Reading the SSH, remote desktop and file sync switches from the service
// manager.
#include "switches/switch_state.h"

#include "platform/registry.h"
#include "platform/service_manager.h"

namespace hubwarden {

namespace {

// SSH is asked by label while its switch acts on the job description; the
// service manager maps both to the same daemon.
constexpr const char* kSshJob = "com.openssh.sshd";
constexpr const char* kScreenlinkJob = "com.marlo.screenlink";
constexpr const char* kFileSyncJob = "/System/Library/LaunchDaemons/com.marlo.FileSyncAgent.sshd.plist";

bool job_enabled(const char* job) {
  return platform::has<platform::ServiceManager>() && platform::get<platform::ServiceManager>().job_enabled(job);
}

}  // namespace

bool get_ssh_state() { return job_enabled(kSshJob); }

bool get_screenlink_state() { return job_enabled(kScreenlinkJob); }

bool get_filesyncd_state() { return job_enabled(kFileSyncJob); }

}  // namespace hubwarden
