// Command line and configuration file of the monitor.
#include "sentryd/config.h"

#include <errno.h>
#include <sys/stat.h>

#include <fstream>
#include <sstream>

#include "plist/codec.h"
#include "sentryd/mail_message.h"

namespace sentryd {
namespace {

// The relay goes into a URL: no blanks, controls or characters that would
// change what the URL names.
bool is_usable_relay(const std::string& relay) {
  if (relay.empty() || relay.size() > 255) return false;
  for (unsigned char u : relay) {
    if (u <= 0x20 || u >= 0x7f || u == '@' || u == '?' || u == '#' || u == '\\') return false;
  }
  return true;
}

}  // namespace

std::optional<Options> parse_command_line(const std::vector<std::string>& args, std::string* error) {
  Options options;
  for (size_t i = 0; i < args.size(); ++i) {
    const std::string& arg = args[i];
    if (arg == "--foreground") {
      options.foreground = true;
      continue;
    }
    std::string* target = arg == "--root"     ? &options.root
                          : arg == "--rules"  ? &options.rules_dir
                          : arg == "--socket" ? &options.socket_path
                          : arg == "--config" ? &options.config_file
                                              : nullptr;
    if (!target) {
      *error = "unknown argument \"" + arg + "\"";
      return std::nullopt;
    }
    if (i + 1 == args.size() || args[i + 1].empty()) {
      *error = arg + " needs a value";
      return std::nullopt;
    }
    *target = args[++i];
  }
  while (options.root.size() > 1 && options.root.back() == '/') options.root.pop_back();
  if (options.root == "/") options.root.clear();
  for (std::string* path : {&options.rules_dir, &options.socket_path, &options.config_file, &options.sendmail}) {
    if (!path->empty() && path->front() == '/') *path = options.root + *path;
  }
  return options;
}

Config load_config(const std::string& path, const std::string& host_name, const LogFn& log) {
  Config config;
  config.from = "sentryd@" + host_name;
  struct stat st;
  if (::stat(path.c_str(), &st) != 0 && errno == ENOENT) return config;
  std::ifstream in(path, std::ios::binary);
  if (!in || !S_ISREG(st.st_mode) || st.st_size > 1024 * 1024) {
    log("cannot read " + path + "; using the defaults");
    return config;
  }
  std::ostringstream text;
  text << in.rdbuf();
  plist::Parsed parsed = plist::parse_xml(text.str());
  const plist::Dict* dict = parsed.ok() ? parsed.value.as_dict() : nullptr;
  if (!dict) {
    log(path + " is not a property list dictionary; using the defaults");
    return config;
  }
  if (const std::string* relay = dict->find_string("smtpRelay"); relay && !relay->empty()) {
    if (is_usable_relay(*relay)) {
      config.smtp_relay = *relay;
    } else {
      log(path + ": ignored unusable \"smtpRelay\"; mail goes through sendmail");
    }
  }
  if (const std::string* from = dict->find_string("from"); from && !from->empty()) {
    if (is_usable_address(*from)) {
      config.from = *from;
    } else {
      log(path + ": ignored unusable \"from\" address");
    }
  }
  return config;
}

}  // namespace sentryd
