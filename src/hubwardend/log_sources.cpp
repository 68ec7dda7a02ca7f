// The system logs' places on this machine: defaults and host configuration.
#include "hubwardend/log_sources.h"

#include "platform/file_util.h"
#include "platform/linux/host_config.h"
#include "platform/linux/job_map.h"
#include "platform/linux/journal_log.h"
#include "platform/log.h"
#include "platform/paths.h"
#include "plist/codec.h"

namespace hubwardend {
namespace {

// Reads an array of strings that each pass valid; false otherwise.
template <typename Valid>
bool read_strings(const plist::Value& value, std::vector<std::string>* out, Valid valid) {
  const plist::Array* array = value.as_array();
  if (array == nullptr) return false;
  std::vector<std::string> strings;
  for (const plist::Value& item : *array) {
    const std::string* text = item.as_string();
    if (text == nullptr || !valid(*text)) return false;
    strings.push_back(*text);
  }
  *out = std::move(strings);
  return true;
}

bool is_log_path(const std::string& path) {
  return !path.empty() && path.front() == '/' && path.find('\0') == std::string::npos;
}

bool read_source(const plist::Value& value, LogSource* source, std::string* error) {
  const plist::Dict* dict = value.as_dict();
  if (dict == nullptr) {
    *error = "is not a dictionary";
    return false;
  }
  LogSource read;
  if (const plist::Value* files = dict->find("files")) {
    if (!read_strings(*files, &read.files, is_log_path)) {
      *error = "\"files\" does not list absolute paths";
      return false;
    }
  }
  if (const plist::Value* journal = dict->find("journal")) {
    std::vector<std::string> matches;
    if (!read_strings(*journal, &matches, [](const std::string& m) { return platform::is_valid_journal_match(m); })) {
      *error = "\"journal\" does not list journal matches (\"FIELD=value\" or \"+\")";
      return false;
    }
    read.journal = std::move(matches);
  }
  *source = std::move(read);
  return true;
}

void overlay_file(const std::string& path, LogSources* sources) {
  std::string error;
  std::optional<plist::Dict> config = platform::read_host_config(platform::host_config_file(path, platform::resolve(path)), &error);
  if (config ? apply_log_config(*config, sources, &error) : error.empty()) return;
  platform::log_error("hubwardend: ignoring the logs of " + path + ": " + error);
}

}  // namespace

LogSources default_log_sources() {
  LogSources sources;
  sources["systemLog"] = {{"/var/log/system.log", "/var/log/syslog", "/var/log/messages"}, std::vector<std::string>{}};
  sources["kernelLog"] = {{"/var/log/kernel.log", "/var/log/kern.log"}, std::vector<std::string>{"_TRANSPORT=kernel"}};
  // Facilities 4 (auth) and 10 (authpriv): what rsyslog writes to auth.log.
  sources["secureLog"] = {{"/var/log/secure.log", "/var/log/auth.log"},
                          std::vector<std::string>{"SYSLOG_FACILITY=4", "SYSLOG_FACILITY=10"}};
  sources["softwareUpdateLog"] = {
      {"/Library/Logs/Software Update.log", "/var/log/apt/history.log"},
      std::vector<std::string>{"_SYSTEMD_UNIT=apt-daily.service", "_SYSTEMD_UNIT=apt-daily-upgrade.service"}};
  return sources;
}

bool apply_log_config(const plist::Dict& config, LogSources* base, std::string* error) {
  const plist::Value* logs = config.find("logs");
  if (logs == nullptr) return true;
  const plist::Dict* dict = logs->as_dict();
  if (dict == nullptr) {
    *error = "\"logs\" is not a dictionary";
    return false;
  }
  // Work on a copy so that a bad entry halfway through leaves base as it was.
  LogSources merged = *base;
  for (const auto& [identifier, value] : *dict) {
    LogSource source;
    std::string why;
    if (identifier.empty() || !read_source(value, &source, &why)) {
      *error = "log \"" + identifier + "\" " + (why.empty() ? "has no name" : why);
      return false;
    }
    merged[identifier] = std::move(source);
  }
  *base = std::move(merged);
  return true;
}

LogSources load_log_sources() {
  LogSources sources = default_log_sources();
  overlay_file(platform::kShippedHostConfigPath, &sources);
  overlay_file(platform::kHostConfigPath, &sources);
  return sources;
}

}  // namespace hubwardend
