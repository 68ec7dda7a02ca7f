#include "tools/kickstart/remote_desktop.h"

#include <errno.h>
#include <grp.h>
#include <string.h>
#include <unistd.h>

#include <optional>
#include <string>
#include <vector>

#include "platform/file_util.h"
#include "tools/kickstart/vnc_config.h"

namespace kickstart {

namespace {

// The first line of a tool's output, for a one-line message.
std::string first_line(const std::string& text) {
  size_t start = text.find_first_not_of(" \t\r\n");
  if (start == std::string::npos) return "";
  size_t end = text.find('\n', start);
  std::string line = text.substr(start, end == std::string::npos ? std::string::npos : end - start);
  if (line.size() > 300) line.resize(300);
  return line;
}

// The administrators on this machine: the module nests its "admin" group
// into every remote management group, so its members are the users it
// means. Debian names that group "sudo"; "admin" wins where it exists.
std::vector<std::string> administrators(const std::string& root) {
  std::vector<std::string> members;
  for (const char* group : {"admin", "sudo"}) {
    if (root == "/") {
      std::vector<char> buffer(16384);
      struct group entry, *found = nullptr;
      while (::getgrnam_r(group, &entry, buffer.data(), buffer.size(), &found) == ERANGE && buffer.size() < (1u << 24))
        buffer.resize(buffer.size() * 2);
      if (found == nullptr) continue;
      for (char** m = found->gr_mem; m != nullptr && *m != nullptr; ++m) members.emplace_back(*m);
    } else {
      std::optional<std::string> text = platform::read_file(root + "/etc/group");
      if (!text) continue;
      members = group_file_members(*text, group);
      if (members.empty() && text->find(std::string(group) + ":") == std::string::npos) continue;
    }
    break;
  }
  std::vector<std::string> usable;
  for (std::string& name : members)
    if (is_valid_user_name(name)) usable.push_back(std::move(name));
  return usable;
}

class Switch {
 public:
  Switch(const Options& options, platform::Tasks& tasks, std::ostream& out)
      : options_(options), tasks_(tasks), out_(out) {}

  // Each returns "" on success, else the reason.
  std::string configure() {
    std::vector<std::string> users = specified_users();
    if (options_.access != Access::kAllUsers && users.empty())
      return "no users to let in: the groups \"admin\" and \"sudo\" have no members; name them with -users";
    std::string error = require_config_folder();
    if (!error.empty()) return error;
    std::string path = file(kMandatoryConfig);
    platform::ReadError read_error = platform::ReadError::kNone;
    std::optional<std::string> existing = platform::read_file(path, platform::kDefaultReadLimit, &read_error);
    if (!existing && read_error != platform::ReadError::kNotFound) return "cannot read " + path;
    Access access = options_.access == Access::kAllUsers ? Access::kAllUsers : Access::kSpecifiedUsers;
    std::string updated = with_access_settings(existing.value_or(""), access, users);
    bool changed = updated != existing.value_or("");
    if (changed) {
      if (!platform::write_file_atomically(path, updated, 0644)) return "cannot write " + path;
      progress("wrote the access settings to " + path);
    }
    error = ensure_display_user(users);
    if (!error.empty()) return error;
    if (changed) return systemctl({"try-restart", options_.unit});
    return "";
  }

  std::string activate() {
    std::string error = require_config_folder();
    if (error.empty()) error = ensure_display_user(specified_users());
    if (error.empty()) error = systemctl({"enable", "--now", options_.unit});
    if (!error.empty()) return error;
    std::string marker = file(kMarkerFile);
    std::string contents =
        "# Remote desktop switched on by hubwarden's kickstart tool; its VNC server unit:\n" + options_.unit + "\n";
    if (!platform::write_file_atomically(marker, contents, 0644)) return "cannot write " + marker;
    progress("remote desktop on");
    return "";
  }

  std::string deactivate() {
    std::string error = systemctl({"disable", "--now", options_.unit});
    if (!error.empty()) return error;
    std::string marker = file(kMarkerFile);
    if (::unlink(marker.c_str()) != 0 && errno != ENOENT) return "cannot remove " + marker + ": " + ::strerror(errno);
    progress("remote desktop off");
    return "";
  }

  std::string restart() { return systemctl({"try-restart", options_.unit}); }

 private:
  std::string file(const char* path) const { return options_.root == "/" ? path : options_.root + path; }

  void progress(const std::string& line) {
    if (options_.verbose) out_ << line << "\n";
  }

  std::vector<std::string> specified_users() {
    if (!options_.users.empty()) return options_.users;
    if (!admins_) admins_ = administrators(options_.root);
    return *admins_;
  }

  // The server's package makes this folder; without it there is nothing to
  // configure or start.
  std::string require_config_folder() {
    std::string folder = file("/etc/tigervnc");
    if (access(folder.c_str(), F_OK) != 0) return folder + " is missing: is the VNC server installed?";
    return "";
  }

  // The unit's session runs as the user its display is mapped to and does
  // not start without one; an administrator's own mapping is left alone.
  std::string ensure_display_user(const std::vector<std::string>& users) {
    std::optional<std::string> display = unit_display(options_.unit);
    if (!display) return "";
    std::string path = file(kUsersFile);
    platform::ReadError read_error = platform::ReadError::kNone;
    std::optional<std::string> existing = platform::read_file(path, platform::kDefaultReadLimit, &read_error);
    if (!existing && read_error != platform::ReadError::kNotFound) return "cannot read " + path;
    if (existing && display_user(*existing, *display)) return "";
    if (users.empty())
      return "no user for display " + *display + ": add \"" + *display + "=NAME\" to " + path + " or give -users";
    if (!platform::write_file_atomically(path, with_display_user(existing.value_or(""), *display, users.front()), 0644))
      return "cannot write " + path;
    progress("display " + *display + " shows the session of " + users.front());
    return "";
  }

  std::string systemctl(std::vector<std::string> verb) {
    std::vector<std::string> args = {"systemctl", "--quiet"};
    args.insert(args.end(), verb.begin(), verb.end());
    std::string shown = "systemctl";
    for (const std::string& word : verb) shown += " " + word;
    platform::TaskResult result = tasks_.run(options_.systemctl, args, "", options_.timeout_seconds);
    if (!result.launched) return "cannot run " + options_.systemctl;
    char seconds[32];
    snprintf(seconds, sizeof seconds, "%g", options_.timeout_seconds);
    if (result.timed_out) return shown + " did not finish within " + seconds + " s";
    std::string said = first_line(result.err);
    if (result.exit_status != 0) {
      if (said.empty()) said = first_line(result.out);
      return shown + " failed with status " + std::to_string(result.exit_status) + (said.empty() ? "" : ": " + said);
    }
    if (!said.empty()) return shown + " warned: " + said;
    progress(shown);
    return "";
  }

  const Options& options_;
  platform::Tasks& tasks_;
  std::ostream& out_;
  std::optional<std::vector<std::string>> admins_;
};

}  // namespace

int run_actions(const Options& options, platform::Tasks& tasks, std::ostream& out, std::ostream& err) {
  Switch vnc(options, tasks, out);
  std::string error;
  if (error.empty() && options.configure) error = vnc.configure();
  if (error.empty() && options.deactivate) error = vnc.deactivate();
  if (error.empty() && options.activate) error = vnc.activate();
  if (error.empty() && options.restart) error = vnc.restart();
  if (error.empty()) return 0;
  err << "kickstart: " << error << "\n";
  return 1;
}

}  // namespace kickstart
