// The remote management switch: its marker file says whether it is on, and
// the kickstart tool switches it.
#include <string>
#include <vector>

#include "platform/file_util.h"
#include "platform/log.h"
#include "platform/paths.h"
#include "platform/registry.h"
#include "platform/tasks.h"
#include "switches/screenlink_groups.h"
#include "switches/switch_state.h"

namespace hubwarden {

namespace {

constexpr const char* kMarkerFile = "/etc/RemoteManagement.launchd";
constexpr const char* kKickstart =
    "/System/Library/CoreServices/RemoteManagement/ScreenlinkAgent.app/Contents/Resources/kickstart";
// A tool that has not answered in a minute is not coming back; the request
// that asked for the switch is waiting on it.
constexpr double kKickstartTimeLimit = 60;

// Runs the kickstart tool with options. Success is a zero exit with nothing
// on standard error: the tool reports trouble there even when it exits 0.
// Otherwise logs what (with the exit status and the error output, as the
// tool gave them) and returns false. A tool that cannot be started or is
// killed at the time limit fails the same way.
bool kickstart(const std::vector<std::string>& options, const char* what) {
  std::vector<std::string> args{"kickstart"};
  args.insert(args.end(), options.begin(), options.end());
  platform::TaskResult result;
  if (platform::Tasks* tasks = platform::find<platform::Tasks>())
    result = tasks->run(kKickstart, args, {}, kKickstartTimeLimit);
  if (result.launched && !result.timed_out && result.exit_status == 0 && result.err.empty()) return true;
  if (what != nullptr) {
    std::string line = "hubwarden_info: got status " + std::to_string(result.exit_status) + " " + what +
                       " Screenlink. error: \"" + result.err + "\"";
    platform::log_user_notice(line);
  }
  return false;
}

}  // namespace

bool get_screenlink_state() { return platform::file_exists(platform::resolve(kMarkerFile)); }

int set_screenlink_state(bool on) {
  if (on == get_screenlink_state()) return 0;
  if (!on) return kickstart({"-deactivate"}, nullptr) ? 0 : kScreenlinkDisableFailed;

  grant_admins_screenlink_rights();
  if (!kickstart({"-activate"}, "starting")) return kScreenlinkEnableFailed;
  if (!kickstart({"-configure", "-allowAccessFor", "-specifiedUsers"}, "configuring")) return kScreenlinkEnableFailed;
  return 0;
}

}  // namespace hubwarden
