// One host configuration file, read and checked.
#include "platform/linux/host_config.h"

#include <mutex>

#include "platform/file_util.h"
#include "platform/linux/job_map.h"
#include "plist/codec.h"

namespace platform {
namespace {

std::mutex override_mu;
std::string& override_path() {
  static std::string path;  // guarded by override_mu
  return path;
}

}  // namespace

void set_host_config_override(std::string real_path) {
  std::lock_guard<std::mutex> lock(override_mu);
  override_path() = std::move(real_path);
}

std::string host_config_file(std::string_view logical_path, std::string under_root) {
  if (logical_path != kHostConfigPath) return under_root;
  std::lock_guard<std::mutex> lock(override_mu);
  return override_path().empty() ? under_root : override_path();
}

std::optional<plist::Dict> read_host_config(const std::string& path, std::string* error) {
  error->clear();
  std::optional<std::string> text = read_file(path);
  if (!text) return std::nullopt;
  plist::Parsed parsed = plist::parse_xml(*text);
  if (!parsed.ok()) {
    *error = parsed.error;
    return std::nullopt;
  }
  const plist::Dict* dict = parsed.value.as_dict();
  if (dict == nullptr) {
    *error = "root is not a dictionary";
    return std::nullopt;
  }
  return *dict;
}

}  // namespace platform
