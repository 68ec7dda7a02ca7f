#include "filerd/config.h"

#include <sys/stat.h>

#include <cerrno>
#include <fstream>
#include <map>
#include <sstream>

#include "plist/codec.h"
#include "plist/value.h"

namespace filerd {
namespace {

void apply_file(const std::string& path, Options* options, const LogFn& log) {
  struct stat st;
  if (::stat(path.c_str(), &st) != 0 && errno == ENOENT) return;
  std::ifstream in(path, std::ios::binary);
  if (!in || !S_ISREG(st.st_mode) || st.st_size > 1024 * 1024) {
    log("cannot read " + path + "; using the defaults");
    return;
  }
  std::ostringstream text;
  text << in.rdbuf();
  plist::Parsed parsed = plist::parse_xml(text.str());
  const plist::Dict* dict = parsed.ok() ? parsed.value.as_dict() : nullptr;
  if (!dict) {
    log(path + " is not a property list dictionary; using the defaults");
    return;
  }
  const std::map<std::string, std::string*> paths = {
      {"SambaConfig", &options->smb_conf},    {"SmbcontrolPath", &options->smbcontrol},
      {"SmbstatusPath", &options->smbstatus}, {"TestparmPath", &options->testparm},
      {"SystemctlPath", &options->systemctl},
  };
  for (const auto& [key, slot] : paths) {
    if (!dict->contains(key)) continue;
    const std::string* value = dict->find_string(key);
    // Tools run without a shell, so only absolute paths make sense.
    if (value && !value->empty() && value->front() == '/') {
      *slot = *value;
    } else {
      log(path + ": ignored \"" + key + "\": not an absolute path");
    }
  }
  if (dict->contains("SambaUnit")) {
    const std::string* unit = dict->find_string("SambaUnit");
    if (unit && !unit->empty() && unit->find('/') == std::string::npos) {
      options->samba_unit = *unit;
    } else {
      log(path + ": ignored \"SambaUnit\"");
    }
  }
  if (dict->contains("ToolTimeout")) {
    const plist::Value* number = dict->find_number("ToolTimeout");
    double seconds = number ? number->to_double().value_or(0) : 0;
    if (seconds >= 1 && seconds <= 60) {
      options->tool_timeout_seconds = seconds;
    } else {
      log(path + ": ignored \"ToolTimeout\": not 1 to 60 seconds");
    }
  }
}

}  // namespace

std::optional<Options> load_options(const std::vector<std::string>& args, const LogFn& log, std::string* error) {
  Options options;
  std::map<std::string, std::string> given;
  const std::map<std::string, std::string*> flags = {
      {"--config", &options.config_file},    {"--socket", &options.socket_path},  {"--smb-conf", &options.smb_conf},
      {"--smbcontrol", &options.smbcontrol}, {"--smbstatus", &options.smbstatus}, {"--testparm", &options.testparm},
  };
  for (size_t i = 0; i < args.size(); ++i) {
    auto flag = flags.find(args[i]);
    if (flag == flags.end()) {
      *error = "unknown argument \"" + args[i] + "\"";
      return std::nullopt;
    }
    if (i + 1 >= args.size() || args[i + 1].empty()) {
      *error = args[i] + " needs a value";
      return std::nullopt;
    }
    given[args[i]] = args[i + 1];
    ++i;
  }
  if (auto config = given.find("--config"); config != given.end()) options.config_file = config->second;
  apply_file(options.config_file, &options, log);
  for (const auto& [flag, value] : given) *flags.at(flag) = value;
  return options;
}

}  // namespace filerd
