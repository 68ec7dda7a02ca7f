// The ignore list file, read and written whole.
#include "tools/softwareupdate/ignore_list.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <system_error>

#include "plist/codec.h"
#include "tools/softwareupdate/atomic_file.h"

namespace softwareupdate {

bool IgnoreList::contains(const std::string& name) const {
  return std::find(names.begin(), names.end(), name) != names.end();
}

IgnoreList load_ignore_list(const std::string& path) {
  IgnoreList list;
  std::error_code ec;
  if (!std::filesystem::exists(path, ec)) return list;
  std::ifstream in(path, std::ios::binary);
  if (!in.is_open()) {
    list.error = "cannot read " + path;
    return list;
  }
  std::ostringstream text;
  text << in.rdbuf();
  plist::Parsed parsed = plist::parse_xml(text.str());
  const plist::Array* array = parsed.ok() ? parsed.value.as_array() : nullptr;
  if (array == nullptr) {
    list.error = path + " is not a property-list array";
    return list;
  }
  for (const plist::Value& v : *array) {
    if (const std::string* s = v.as_string()) list.names.push_back(*s);
  }
  return list;
}

void add_ignored(IgnoreList& list, const std::vector<std::string>& names) {
  for (const std::string& name : names) {
    if (!list.contains(name)) list.names.push_back(name);
  }
}

std::string save_ignore_list(const std::string& path, const IgnoreList& list) {
  std::filesystem::path parent = std::filesystem::path(path).parent_path();
  std::error_code ec;
  if (!parent.empty()) std::filesystem::create_directories(parent, ec);
  plist::Array array;
  for (const std::string& name : list.names) array.emplace_back(name);
  return replace_file_atomically(path, plist::write_xml(plist::Value(std::move(array))));
}

}  // namespace softwareupdate
