// The host's tools table: shipped defaults and the configuration files.
#include "platform/linux/tool_map.h"

#include "platform/linux/host_config.h"
#include "platform/linux/job_map.h"
#include "platform/log.h"
#include "platform/paths.h"
#include "platform/registry.h"

namespace platform {

namespace {

bool is_absolute(const std::string& path) { return !path.empty() && path.front() == '/'; }

// Reads an array of strings whose first element is an absolute program.
bool read_command(const plist::Value& value, std::vector<std::string>* command) {
  const plist::Array* array = value.as_array();
  if (array == nullptr) return false;
  std::vector<std::string> out;
  for (const plist::Value& item : *array) {
    const std::string* text = item.as_string();
    if (text == nullptr) return false;
    out.push_back(*text);
  }
  if (!out.empty() && !is_absolute(out.front())) return false;
  *command = std::move(out);
  return true;
}

void overlay_file(const Paths* paths, const char* path, ToolMap* map) {
  std::string under_root = paths ? paths->resolve(path) : std::string(path);
  std::string error;
  std::optional<plist::Dict> config = read_host_config(host_config_file(path, under_root), &error);
  if (!config && error.empty()) return;
  if (config && apply_tool_config(*config, map, &error)) return;
  log_error(std::string("hubwardend: ignoring the tools of ") + path + ": " + error);
}

}  // namespace

std::vector<std::string> ToolMap::command_for(const std::string& path) const {
  auto it = tools.find(path);
  if (it == tools.end()) return {path};
  return it->second;
}

ToolMap default_tool_map() {
  ToolMap map;
  map.tools = {
      {"/usr/sbin/softwareupdate", {"/usr/libexec/hubwarden/softwareupdate"}},
      {"/sbin/reboot", {"/usr/bin/systemctl", "reboot"}},
      {"/System/Library/CoreServices/RemoteManagement/ScreenlinkAgent.app/Contents/Resources/kickstart",
       {"/usr/libexec/hubwarden/kickstart"}},
  };
  return map;
}

bool apply_tool_config(const plist::Dict& config, ToolMap* base, std::string* error) {
  const plist::Value* tools = config.find("tools");
  if (tools == nullptr) return true;
  const plist::Dict* dict = tools->as_dict();
  if (dict == nullptr) {
    *error = "\"tools\" is not a dictionary";
    return false;
  }
  ToolMap merged = *base;
  for (const auto& [tool, value] : *dict) {
    std::vector<std::string> command;
    if (!is_absolute(tool) || !read_command(value, &command)) {
      *error = "tool \"" + tool + "\" is not mapped to an absolute program and its arguments";
      return false;
    }
    if (command.empty())
      merged.tools.erase(tool);
    else
      merged.tools[tool] = std::move(command);
  }
  *base = std::move(merged);
  return true;
}

ToolMap load_tool_map() {
  const Paths* paths = find<Paths>();
  bool real_root = paths == nullptr || paths->is_real_root();
  ToolMap map = real_root ? default_tool_map() : ToolMap();
  overlay_file(paths, kShippedHostConfigPath, &map);
  overlay_file(paths, kHostConfigPath, &map);
  return map;
}

}  // namespace platform
