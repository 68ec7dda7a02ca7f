// Parsed by hand: the grammar (modes as flags, names anywhere) is small
// and fixed by the module that runs us.
#include "tools/softwareupdate/command_line.h"

#include <optional>

namespace softwareupdate {
namespace {

struct Parser {
  explicit Parser(const std::vector<std::string>& a) : args(a) {}

  const std::vector<std::string>& args;
  size_t next = 0;
  CommandLine result;
  std::optional<Mode> mode;

  bool fail(std::string message) {
    if (result.error.empty()) result.error = std::move(message);
    return false;
  }

  bool set_mode(Mode m, const std::string& word) {
    if (mode && *mode != m) return fail("conflicting options: " + word);
    mode = m;
    return true;
  }

  // The value of an option: "--opt=value" or the next word.
  bool take_value(const std::string& word, std::optional<std::string> inline_value, std::string* out) {
    if (inline_value) {
      *out = *inline_value;
    } else if (next < args.size()) {
      *out = args[next++];
    } else {
      return fail("missing value for " + word);
    }
    return true;
  }

  bool option(const std::string& word) {
    std::string name = word;
    std::optional<std::string> inline_value;
    if (word.starts_with("--")) {
      size_t eq = word.find('=');
      if (eq != std::string::npos) {
        name = word.substr(0, eq);
        inline_value = word.substr(eq + 1);
      }
    }
    Options& o = result.options;
    auto no_value = [&]() { return !inline_value || fail(name + " takes no value"); };
    if (name == "-q" || name == "--quiet") return no_value() && (o.quiet = true);
    if (name == "-l" || name == "--list") return no_value() && set_mode(Mode::kScan, name);
    if (name == "-i" || name == "--install") return no_value() && set_mode(Mode::kInstall, name);
    if (name == "--ignore") return no_value() && set_mode(Mode::kIgnore, name);
    if (name == "--reset-ignored") return no_value() && set_mode(Mode::kResetIgnored, name);
    if (name == "-h" || name == "--help") return no_value() && set_mode(Mode::kHelp, name);
    if (name == "-f" || name == "--status-file") return take_value(name, inline_value, &o.status_file);
    if (name == "--lang") return take_value(name, inline_value, &o.language);
    if (name == "--ignore-file") return take_value(name, inline_value, &o.ignore_file);
    if (name == "--reboot-required-file") return take_value(name, inline_value, &o.reboot_required_file);
    if (name == "-o" || name == "--apt-option") {
      std::string kv;
      if (!take_value(name, inline_value, &kv)) return false;
      size_t eq = kv.find('=');
      if (eq == 0 || eq == std::string::npos) return fail(name + " needs KEY=VALUE");
      o.apt_options.push_back(kv);
      return true;
    }
    return fail("unknown option " + word);
  }

  CommandLine run() {
    bool names_only = false;
    while (next < args.size()) {
      const std::string& word = args[next++];
      if (!names_only && word == "--") {
        names_only = true;
      } else if (!names_only && word.size() > 1 && word.front() == '-') {
        if (!option(word)) return result;
      } else {
        result.options.names.push_back(word);
      }
    }
    Options& o = result.options;
    o.mode = mode.value_or(Mode::kHelp);
    bool has_names = !o.names.empty();
    switch (o.mode) {
      case Mode::kInstall:
      case Mode::kIgnore:
        if (!has_names) fail("no package names given");
        break;
      case Mode::kScan:
      case Mode::kResetIgnored:
        if (has_names) fail("unexpected argument " + o.names.front());
        break;
      case Mode::kHelp:
        if (!mode && (has_names || o.quiet || !o.status_file.empty()))
          fail("one of -l, -i, --ignore, --reset-ignored is needed");
        break;
    }
    return result;
  }
};

}  // namespace

CommandLine parse_command_line(const std::vector<std::string>& args) { return Parser(args).run(); }

std::string usage_text() {
  return R"(usage: softwareupdate [-q] -l [-f FILE] [--lang L]
       softwareupdate [-q] -i NAME... [-f FILE] [--lang L]
       softwareupdate --ignore NAME...
       softwareupdate --reset-ignored

Scans for and installs package updates through apt.

  -l, --list             refresh the package lists and list the upgradable packages
  -i, --install NAME...  upgrade exactly the named packages
  --ignore NAME...       add the packages to the ignore list (scans mark them "ignored")
  --reset-ignored        empty the ignore list
  -f FILE                write progress and results to FILE, a property list replaced atomically
  -q, --quiet            print no progress on standard output
  --lang L               accepted for compatibility; messages are always in English
  -h, --help             this text

Knobs for tests and administrators:
  -o KEY=VALUE           pass "-o KEY=VALUE" to every apt tool (repeatable), e.g. to point apt at
                         another root with Dir=, Dir::State::status=, Dir::Etc::sourcelist=
  --ignore-file FILE     the ignore list (default /var/lib/hubwarden/swupdate-ignored.plist)
  --reboot-required-file FILE
                         the marker whose presence after an install means a restart is needed
                         (default /run/reboot-required)

Package names must be valid Debian package names; anything else is refused before apt runs.
Exit status: 0 on success, 1 when apt or the status file failed, 2 for a bad command line.
)";
}

}  // namespace softwareupdate
