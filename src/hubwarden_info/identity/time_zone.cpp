// Pointing /etc/localtime at a zone file, and the change notifications.
#include "identity/time_zone.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string_view>

#include "platform/file_util.h"
#include "platform/log.h"
#include "platform/notifications.h"
#include "platform/paths.h"
#include "platform/registry.h"
#include "platform/root_fs.h"
#include "platform/unique_fd.h"

namespace hubwarden {

namespace {

constexpr char kTimezoneNamePath[] = "/etc/timezone";

std::string pid_prefix() { return "hubwarden_info: [" + std::to_string(::getpid()) + "] "; }

// Zone names are folder paths below the zone folder; one that is absolute
// or climbs out of it names no zone, whatever file it happens to reach.
bool is_zone_name(std::string_view zone) {
  if (zone.empty() || zone.front() == '/') return false;
  size_t start = 0;
  while (start <= zone.size()) {
    size_t end = zone.find('/', start);
    if (end == std::string_view::npos) end = zone.size();
    std::string_view part = zone.substr(start, end - start);
    if (part == "..") return false;
    start = end + 1;
  }
  return true;
}

bool is_regular_file(const std::string& resolved) {
  platform::UniqueFd fd(platform::open_confined(resolved, O_RDONLY | O_NONBLOCK));
  struct stat st;
  return fd.valid() && ::fstat(fd.get(), &st) == 0 && S_ISREG(st.st_mode);
}

// Debian keeps the zone's name beside the link; tools that read it should
// not name the old zone.
void update_zone_name_copy(const std::string& zone) {
  std::string resolved = platform::resolve(kTimezoneNamePath);
  if (!platform::file_exists(resolved)) return;
  if (!platform::write_file_atomically(resolved, zone + "\n")) {
    platform::log_notice(pid_prefix() + "unable to update " + resolved);
  }
}

}  // namespace

int set_time_zone(const std::string& zone) {
  const std::string zone_file = kZoneinfoPath + zone;
  const std::string localtime = platform::resolve(kLocaltimePath);

  std::string leaf;
  platform::UniqueFd etc(platform::open_parent_confined(localtime, false, &leaf));
  if (!etc.valid() || (::unlinkat(etc.get(), leaf.c_str(), 0) != 0 && errno != ENOENT)) {
    // Without the folder there is no old link to remove, but no place for
    // the new one either.
    if (etc.valid() || errno != ENOENT) {
      platform::log_notice(pid_prefix() + "unable to unlink " + localtime);
      return kLocaltimeNotRemoved;
    }
  }

  if (!is_zone_name(zone) || !is_regular_file(platform::resolve(zone_file))) {
    platform::log_notice(pid_prefix() + zone_file + " timezone file does not exist");
    return kNoZoneFile;
  }

  // The link names the file as seen from the root, so that it holds both
  // for the machine and inside a sandbox.
  if (!etc.valid() || ::symlinkat(zone_file.c_str(), etc.get(), leaf.c_str()) != 0) {
    platform::log_notice(pid_prefix() + "unable to link " + zone_file);
    return kLocaltimeNotLinked;
  }
  update_zone_name_copy(zone);
  return 0;
}

void post_distributed_notification(const std::string& name) {
  if (auto* center = platform::find<platform::DistributedNotifications>()) center->post(name);
}

void send_time_zone_notifications() {
  post_distributed_notification(kTimeZoneDidChangeNotification);
  post_distributed_notification(kClockNotification);
}

}  // namespace hubwarden
