// Clock, time server and time zone getters, and setting the clock.
#include "identity/time_settings.h"

#include <unistd.h>

#include <cmath>
#include <ctime>
#include <limits>
#include <string_view>

#include "identity/ntp_conf.h"
#include "identity/time_zone.h"
#include "platform/clock.h"
#include "platform/file_util.h"
#include "platform/log.h"
#include "platform/paths.h"
#include "platform/registry.h"
#include "platform/root_fs.h"
#include "platform/service_manager.h"
#include "platform/unique_fd.h"
#include "plist/text_util.h"

namespace hubwarden {

namespace {

constexpr const char* kTimesyncdConfPath = "/etc/systemd/timesyncd.conf";
constexpr const char* kTimezonePath = "/etc/timezone";
// The server name is read into a 512-byte buffer, terminator included.
constexpr size_t kMaxServerName = 511;

using text::for_each_line;
using text::trim;

std::string_view server_name_in(std::string_view s) { return text::first_word(s).substr(0, kMaxServerName); }

// The word after the first "server" keyword of an NTP configuration.
std::optional<std::string> ntp_conf_server(std::string_view conf) {
  std::optional<std::string> found;
  for_each_line(conf, [&](std::string_view line) {
    line = trim(line);
    constexpr std::string_view kKeyword = "server";
    if (line.substr(0, kKeyword.size()) != kKeyword) return false;
    if (line.size() > kKeyword.size() && !text::is_blank(line[kKeyword.size()])) return false;  // "servers", ...
    std::string_view name = server_name_in(line.substr(kKeyword.size()));
    if (!name.empty()) found = std::string(name);
    return true;
  });
  return found;
}

// The first name of the NTP= setting of systemd's time-sync configuration.
std::optional<std::string> timesyncd_server(std::string_view conf) {
  std::optional<std::string> found;
  for_each_line(conf, [&](std::string_view line) {
    line = trim(line);
    constexpr std::string_view kKey = "NTP=";
    if (line.substr(0, kKey.size()) != kKey) return false;
    std::string_view name = server_name_in(line.substr(kKey.size()));
    if (!name.empty()) found = std::string(name);
    return true;
  });
  return found;
}

// The zone a /etc/localtime link points at: the part of its target below
// "zoneinfo/", without the "posix/" variant directory.
std::string zone_of_link_target(std::string_view target) {
  constexpr std::string_view kZoneinfo = "zoneinfo/";
  size_t at = target.find(kZoneinfo);
  if (at == std::string_view::npos) return "";
  std::string_view zone = target.substr(at + kZoneinfo.size());
  constexpr std::string_view kPosix = "posix/";
  if (zone.substr(0, kPosix.size()) == kPosix) zone.remove_prefix(kPosix.size());
  return std::string(zone);
}

}  // namespace

plist::Value get_time() {
  double now = platform::has<platform::Clock>() ? platform::get<platform::Clock>().now()
                                                : static_cast<double>(std::time(nullptr));
  if (!(now > 0)) return plist::Value(uint64_t{0});  // also NaN
  if (now >= 18446744073709551615.0) return plist::Value(std::numeric_limits<uint64_t>::max());
  return plist::Value(static_cast<uint64_t>(std::floor(now)));
}

int set_time(uint64_t seconds) {
  int result =
      platform::has<platform::Clock>() ? platform::get<platform::Clock>().set_time(static_cast<double>(seconds)) : -1;
  if (result != 0) {
    platform::log_notice("hubwarden_info: [" + std::to_string(::getpid()) + "] settimeofday failed with " +
                         std::to_string(result));
    return kSetTimeFailed;
  }
  post_distributed_notification(kClockNotification);
  return 0;
}

bool get_ntp_sync_state() {
  return platform::has<platform::ServiceManager>() && platform::get<platform::ServiceManager>().job_enabled(kNtpJob);
}

bool get_ntp_server_state() { return get_ntp_sync_state(); }

std::optional<std::string> get_ntp_server_name() {
  if (std::optional<std::string> text = platform::read_file(platform::resolve(kNtpConfPath))) {
    if (std::optional<std::string> name = ntp_conf_server(*text)) return name;
  }
  if (std::optional<std::string> text = platform::read_file(platform::resolve(kTimesyncdConfPath))) {
    return timesyncd_server(*text);
  }
  return std::nullopt;
}

std::string get_time_zone_name() {
  // The link is what the C library reads and what a zone change rewrites;
  // /etc/timezone is only a copy that can lag behind it.
  // The folder is opened inside the sandbox root, so a linked /etc cannot
  // hand us the machine's own zone.
  char target[4096];
  ssize_t n = -1;
  std::string leaf;
  platform::UniqueFd etc(platform::open_parent_confined(platform::resolve(kLocaltimePath), false, &leaf));
  if (etc.valid()) n = ::readlinkat(etc.get(), leaf.c_str(), target, sizeof(target) - 1);
  if (n > 0) {
    std::string zone = zone_of_link_target(std::string_view(target, static_cast<size_t>(n)));
    if (!zone.empty()) return zone;
  }
  if (std::optional<std::string> text = platform::read_file(platform::resolve(kTimezonePath))) {
    std::string_view line(*text);
    line = trim(line.substr(0, line.find('\n')));
    return std::string(line);
  }
  return "";
}

}  // namespace hubwarden
