#include "tools/kickstart/command_line.h"

#include <charconv>
#include <cmath>
#include <string_view>

namespace kickstart {

namespace {

bool is_ascii_alnum(char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9'); }

std::vector<std::string> split_list(const std::string& text) {
  std::vector<std::string> out;
  size_t start = 0;
  while (start <= text.size()) {
    size_t comma = text.find(',', start);
    if (comma == std::string::npos) comma = text.size();
    if (comma > start) out.push_back(text.substr(start, comma - start));
    start = comma + 1;
  }
  return out;
}

bool parse_seconds(const std::string& text, double* out) {
  double value = 0;
  auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (ec != std::errc() || end != text.data() + text.size() || !std::isfinite(value) || value <= 0 || value > 3600)
    return false;
  *out = value;
  return true;
}

}  // namespace

bool is_valid_unit_name(const std::string& name) {
  static constexpr std::string_view kTypes[] = {".service", ".socket", ".target", ".timer", ".path", ".mount"};
  if (name.empty() || name.size() > 255 || name.front() == '-') return false;
  size_t dot = name.rfind('.');
  if (dot == std::string::npos || dot == 0) return false;
  std::string_view suffix = std::string_view(name).substr(dot);
  bool known = false;
  for (std::string_view type : kTypes) known = known || suffix == type;
  if (!known) return false;
  for (size_t i = 0; i < dot; ++i) {
    char c = name[i];
    if (!is_ascii_alnum(c) && c != ':' && c != '-' && c != '_' && c != '.' && c != '\\' && c != '@') return false;
  }
  return true;
}

bool is_valid_user_name(const std::string& name) {
  if (name.empty() || name.size() > 32 || name.front() == '-') return false;
  for (size_t i = 0; i < name.size(); ++i) {
    char c = name[i];
    if (c == '$' && i + 1 == name.size() && i > 0) continue;
    if (!is_ascii_alnum(c) && c != '_' && c != '.' && c != '-') return false;
  }
  return true;
}

CommandLine parse_command_line(const std::vector<std::string>& args) {
  CommandLine result;
  Options& o = result.options;
  auto fail = [&](std::string message) {
    result.error = std::move(message);
    return result;
  };
  for (size_t i = 0; i < args.size(); ++i) {
    const std::string& arg = args[i];
    auto value = [&](std::string* out) {
      if (i + 1 >= args.size()) return false;
      *out = args[++i];
      return true;
    };
    std::string text;
    if (arg == "-help" || arg == "--help" || arg == "-h") {
      o.help = true;
    } else if (arg == "-activate") {
      o.activate = true;
    } else if (arg == "-deactivate") {
      o.deactivate = true;
    } else if (arg == "-configure") {
      o.configure = true;
    } else if (arg == "-restart") {
      o.restart = true;
      // "-agent" names what to restart; the VNC server is all there is.
      if (i + 1 < args.size() && args[i + 1] == "-agent") ++i;
    } else if (arg == "-allowAccessFor") {
      if (i + 1 >= args.size()) return fail("-allowAccessFor needs -specifiedUsers or -allUsers");
      const std::string& who = args[++i];
      if (who == "-specifiedUsers") {
        o.access = Access::kSpecifiedUsers;
      } else if (who == "-allUsers") {
        o.access = Access::kAllUsers;
      } else {
        return fail("-allowAccessFor needs -specifiedUsers or -allUsers, not \"" + who + "\"");
      }
    } else if (arg == "-users") {
      if (!value(&text)) return fail("-users needs a comma-separated list of user names");
      for (std::string& name : split_list(text)) {
        if (!is_valid_user_name(name)) return fail("not a usable user name: \"" + name + "\"");
        o.users.push_back(std::move(name));
      }
      if (o.users.empty()) return fail("-users needs at least one user name");
    } else if (arg == "-unit") {
      if (!value(&o.unit)) return fail("-unit needs a unit name");
      if (!is_valid_unit_name(o.unit)) return fail("not a usable unit name: \"" + o.unit + "\"");
    } else if (arg == "-verbose") {
      o.verbose = true;
    } else if (arg == "-quiet") {
      o.verbose = false;
    } else if (arg == "-root") {
      if (!value(&o.root) || o.root.empty() || o.root.front() != '/') return fail("-root needs an absolute directory");
    } else if (arg == "-systemctl") {
      if (!value(&o.systemctl) || o.systemctl.empty() || o.systemctl.front() != '/')
        return fail("-systemctl needs an absolute program path");
    } else if (arg == "-timeout") {
      if (!value(&text) || !parse_seconds(text, &o.timeout_seconds))
        return fail("-timeout needs a number of seconds between 0 and 3600");
    } else {
      return fail("unknown option \"" + arg + "\"");
    }
  }
  if (o.help) return result;
  if (o.activate && o.deactivate) return fail("-activate and -deactivate exclude each other");
  if (o.configure && o.access == Access::kUnchanged && o.users.empty())
    return fail("-configure needs -allowAccessFor -specifiedUsers, -allowAccessFor -allUsers or -users");
  if (!o.configure && o.access != Access::kUnchanged) return fail("-allowAccessFor goes with -configure");
  if (!o.activate && !o.deactivate && !o.configure && !o.restart)
    return fail("nothing to do: give -activate, -deactivate, -configure or -restart");
  return result;
}

std::string usage_text() {
  return "usage: kickstart ACTION... [OPTIONS]\n"
         "Switches the remote desktop (the VNC server's systemd unit) on or off.\n"
         "\n"
         "Actions:\n"
         "  -activate                 enable and start the VNC server; write /etc/RemoteManagement.launchd\n"
         "  -deactivate               stop and disable it; remove /etc/RemoteManagement.launchd\n"
         "  -configure -allowAccessFor -specifiedUsers\n"
         "                            let in only the specified users, by their system login\n"
         "  -configure -allowAccessFor -allUsers\n"
         "                            let in every user with a system login\n"
         "  -restart [-agent]         restart the VNC server if it runs\n"
         "\n"
         "Options:\n"
         "  -users NAME[,NAME...]     the specified users (default: members of the group\n"
         "                            \"admin\", or of \"sudo\" when there is no \"admin\");\n"
         "                            the first one owns the desktop session\n"
         "  -unit NAME                the VNC server unit (default " +
         std::string(kDefaultUnit) +
         ")\n"
         "  -verbose                  progress on standard output (default: none)\n"
         "  -quiet                    no progress\n"
         "  -help                     this text\n"
         "\n"
         "Test knobs:\n"
         "  -root DIR                 every file below DIR instead of /\n"
         "  -systemctl PATH           run PATH in place of /usr/bin/systemctl\n"
         "  -timeout SECONDS          time limit for each systemctl run (default 30)\n"
         "\n"
         "Exit status: 0 done, 1 failed (reason on standard error), 2 unusable command line.\n";
}

}  // namespace kickstart
