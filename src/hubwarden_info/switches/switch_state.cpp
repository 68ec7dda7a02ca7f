// The SSH and file sync switches: plain service manager jobs.
#include "switches/switch_state.h"

#include "platform/registry.h"
#include "platform/service_manager.h"

namespace hubwarden {

namespace {

// SSH is asked by label while its switch acts on the job description; the
// service manager maps both to the same daemon.
constexpr const char* kSshLabel = "com.openssh.sshd";
constexpr const char* kSshJob = "/System/Library/LaunchDaemons/ssh.plist";
constexpr const char* kFileSyncJob = "/System/Library/LaunchDaemons/com.marlo.FileSyncAgent.sshd.plist";

bool job_enabled(const char* job) {
  platform::ServiceManager* manager = platform::find<platform::ServiceManager>();
  return manager != nullptr && manager->job_enabled(job);
}

bool set_job_enabled(const char* job, bool on) {
  platform::ServiceManager* manager = platform::find<platform::ServiceManager>();
  return manager != nullptr && manager->set_job_enabled(job, on) == 0;
}

}  // namespace

bool get_ssh_state() { return job_enabled(kSshLabel); }

int set_ssh_state(bool on) {
  bool was_on = get_ssh_state();
  if (was_on == on) return 0;
  if (set_job_enabled(kSshJob, on)) return 0;
  return was_on ? kSshDisableFailed : kSshEnableFailed;
}

bool get_filesyncd_state() { return job_enabled(kFileSyncJob); }

// Switching a job to the state it is already in costs the service manager
// nothing, so the file sync agent is not asked first.
int set_filesyncd_state(bool on) {
  if (set_job_enabled(kFileSyncJob, on)) return 0;
  return on ? kFileSyncEnableFailed : kFileSyncDisableFailed;
}

}  // namespace hubwarden
