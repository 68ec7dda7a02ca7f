// Rewriting the time daemon's configuration, switching its job, and the
// one-shot synchronisation tool.
#include "identity/ntp_conf.h"

#include <fcntl.h>
#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string_view>

#include "platform/file_util.h"
#include "platform/host_services.h"
#include "platform/log.h"
#include "platform/paths.h"
#include "platform/registry.h"
#include "platform/root_fs.h"
#include "platform/service_manager.h"
#include "platform/tasks.h"
#include "platform/unique_fd.h"
#include "request/globals.h"

namespace hubwarden {

namespace {

constexpr std::string_view kLocal = "Local";
// This server's own clock as the only reference, so that it keeps serving
// time to its clients when it has no upstream server.
constexpr std::string_view kLocalClockConf =
    "server 127.127.1.1 minpoll 5 maxpoll 7 prefer\nfudge 127.127.1.1 refid LCL\n";
static_assert(kLocalClockConf.size() == 74);

constexpr std::string_view kServerPrefix = "server ";
// A time server that does not answer makes the tool give up well within
// this; the limit only guards against a tool that hangs.
constexpr double kNtpdateTimeLimit = 180;
// What a shell reports for a program it could not start.
constexpr int kNotLaunched = 127;

bool is_local(std::string_view name) {
  return name.size() == kLocal.size() && ::strncasecmp(name.data(), kLocal.data(), kLocal.size()) == 0;
}

bool starts_with(std::string_view text, std::string_view prefix) { return text.substr(0, prefix.size()) == prefix; }

// The offset just past the line end at text[end] (CR, LF, or CR LF as one).
size_t past_line_end(std::string_view text, size_t end) {
  if (text[end] == '\r' && end + 1 < text.size() && text[end + 1] == '\n') return end + 2;
  return end + 1;
}

// The old text with its first server line (and a restrict or fudge line
// that belongs to it) replaced by new_line. Only the very first line is
// looked at: a configuration that starts otherwise gets the new server in
// front, and its own server lines stay where they are.
std::string rewritten(std::string_view old, const std::string& new_line) {
  if (!starts_with(old, kServerPrefix)) return new_line + std::string(old);
  size_t first_end = old.find_first_of("\r\n");
  if (first_end == std::string_view::npos) return new_line;
  std::string_view rest = old.substr(past_line_end(old, first_end));
  if (!starts_with(rest, "restrict") && !starts_with(rest, "fudge")) return new_line + std::string(rest);
  size_t second_end = rest.find_first_of("\r\n");
  if (second_end == std::string_view::npos) return new_line;
  return new_line + std::string(rest.substr(past_line_end(rest, second_end)));
}

// The permission bits of the file at resolved, so that a rewrite keeps
// them; 0644 when it cannot be told.
unsigned mode_of(const std::string& resolved) {
  platform::UniqueFd fd(platform::open_confined(resolved, O_RDONLY | O_NONBLOCK));
  struct stat st;
  if (fd.valid() && ::fstat(fd.get(), &st) == 0) return st.st_mode & 07777;
  return 0644;
}

void remove_confined(const std::string& resolved) {
  std::string leaf;
  platform::UniqueFd dir(platform::open_parent_confined(resolved, false, &leaf));
  if (dir.valid()) ::unlinkat(dir.get(), leaf.c_str(), 0);
}

}  // namespace

int set_ntp_conf_file(const std::string& path, const std::optional<std::string>& server_name) {
  std::string name = server_name.value_or(std::string(kLocal));
  if (name.find_first_of(std::string_view("\r\n\0", 3)) != std::string::npos) {
    platform::log_error("hubwarden_info: set_ntp_conf_file: refusing a server name that holds a line break or NUL");
    return 1;
  }
  const bool local = is_local(name);
  const std::string resolved = platform::resolve(path);
  if (local) remove_confined(resolved);

  platform::ReadError error = platform::ReadError::kNone;
  std::optional<std::string> old = platform::read_file(resolved, platform::kDefaultReadLimit, &error);
  if (error == platform::ReadError::kNotFound) {
    // A file we create names the server alone, without a line end.
    std::string fresh = local ? std::string(kLocalClockConf) : std::string(kServerPrefix) + name;
    return platform::write_file_atomically(resolved, fresh) ? 0 : 1;
  }
  // An empty file is refused like an unreadable one: there is no text to
  // place the server line in.
  if (!old || old->empty()) {
    platform::log_error("hubwarden_info: set_ntp_conf_file: couldn't read file " + path + ". returning 0 anyway.\n");
    return 0;
  }
  std::string text = rewritten(*old, std::string(kServerPrefix) + name + "\n");
  if (!platform::write_file_atomically(resolved, text, mode_of(resolved))) {
    platform::log_error("hubwarden_info: set_ntp_conf_file: couldn't write file " + path);
  }
  return 0;
}

int set_ntp_state(bool sync, bool serve, const std::optional<std::string>& server_name) {
  // Serving time without following anyone means serving this server's own
  // clock.
  std::optional<std::string> configured =
      (!sync && serve) ? std::optional<std::string>(std::string(kLocal)) : server_name;
  int result = set_ntp_conf_file(kNtpConfPath, configured);
  if (auto* services = platform::find<platform::ServiceManager>()) {
    services->set_job_enabled(kNtpJob, sync || serve);
  }
  return result;
}

int do_sync_with_ntp_server(const std::string& server_name) {
  if (server_name.empty() || server_name.front() == '-') {
    platform::log_error("hubwarden_info: do_sync_with_ntp_server: refusing the server name \"" + server_name + "\"");
    return 1;
  }
  int status = kNotLaunched;
  if (auto* tasks = platform::find<platform::Tasks>()) {
    platform::TaskResult result = tasks->run(kNtpdatePath, {"ntpdate", "-ub", server_name}, {}, kNtpdateTimeLimit);
    if (result.launched) status = result.exit_status;
  }
  if (status != 0) platform::log_error(std::string(kNtpdatePath) + " returned error " + std::to_string(status));
  return status;
}

int sync_with_ntp_server(const std::string& server_name) {
  if (gRunningUnderHubwardend.load()) {
    if (auto* queue = platform::find<platform::BackgroundQueue>()) {
      queue->dispatch([name = server_name] { do_sync_with_ntp_server(name); });
      return 0;
    }
  }
  return do_sync_with_ntp_server(server_name);
}

}  // namespace hubwarden
