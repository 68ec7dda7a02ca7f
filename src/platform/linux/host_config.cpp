// One host configuration file, read and checked.
#include "platform/linux/host_config.h"

#include "platform/file_util.h"
#include "plist/codec.h"

namespace platform {

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
