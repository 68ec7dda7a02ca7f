// Nesting "admin" in the screenlink groups.
#include "switches/screenlink_groups.h"

#include <uuid/uuid.h>

#include <algorithm>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "platform/directory.h"
#include "platform/log.h"
#include "platform/registry.h"
#include "plist/value.h"

namespace hubwarden {

namespace {

constexpr std::string_view kAdminGroup = "admin";

// The string values of key: an array's strings, or a lone string.
std::vector<std::string> values_of(const plist::Dict& record, std::string_view key) {
  std::vector<std::string> values;
  const plist::Value* value = record.find(key);
  if (value == nullptr) return values;
  if (const std::string* one = value->as_string()) {
    values.push_back(*one);
  } else if (const plist::Array* many = value->as_array()) {
    for (const plist::Value& v : *many) {
      if (const std::string* s = v.as_string()) values.push_back(*s);
    }
  }
  return values;
}

plist::Array strings(const std::vector<std::string>& values) {
  plist::Array array;
  for (const std::string& v : values) array.emplace_back(v);
  return array;
}

std::string error_text(int32_t status) {
  const char* what = "directory failure";
  switch (status) {
    case platform::kDirectoryRecordNotFound:
      what = "record not found";
      break;
    case platform::kDirectoryInvalidName:
      what = "invalid record name";
      break;
    case platform::kDirectoryWriteFailed:
      what = "write failed";
      break;
    case platform::kDirectoryNodeUnavailable:
      what = "node unavailable";
      break;
    default:
      break;
  }
  return std::string(what) + " (" + std::to_string(status) + ")";
}

std::string new_uuid() {
  uuid_t raw;
  uuid_generate(raw);
  char text[37];
  uuid_unparse_upper(raw, text);
  return text;
}

// The GUID of "admin", made and stored when the group has none; nullopt
// when there is none and none could be stored.
std::optional<std::string> admin_guid(platform::Directory& directory, const std::string& node) {
  plist::Dict admin;
  if (directory.get_group_record(node, std::string(kAdminGroup), &admin) == platform::kDirectoryOK) {
    std::vector<std::string> guids = values_of(admin, platform::kGeneratedUID);
    if (!guids.empty() && !guids.front().empty()) return guids.front();
  }
  std::string guid = new_uuid();
  plist::Dict update;
  update.set(platform::kGeneratedUID, plist::Array{plist::Value(guid)});
  if (directory.set_group_record(node, std::string(kAdminGroup), &update) != platform::kDirectoryOK)
    return std::nullopt;
  return guid;
}

void log_group_failure(std::string_view what, std::string_view group, int32_t status) {
  std::string line = "hubwarden_info: couldn't ";
  line += what;
  line += " screenlink group \"";
  line += group;
  line += "\". Got error ";
  line += error_text(status);
  platform::log_error(line);
}

}  // namespace

void grant_admins_screenlink_rights() {
  platform::Directory* directory = platform::find<platform::Directory>();
  std::string node = directory != nullptr ? directory->default_local_node_path() : "";
  if (directory == nullptr || directory->open_node(node) != platform::kDirectoryOK) {
    // Logged the way a C library prints a null string for %s: the error's
    // description has always been left out of this line, and log readers
    // match it as it stands.
    platform::log_user_error("hubwarden_info: couldn't open local node. Got error (null)");
    return;
  }
  std::optional<std::string> guid = admin_guid(*directory, node);
  if (!guid) return;

  for (const char* name : kScreenlinkGroups) {
    const std::string group = name;
    // Drawn for every group, needed or not: an id is only ever handed out
    // fresh, never kept from an earlier group.
    std::optional<uint32_t> gid = directory->generate_legacy_gid();
    plist::Dict record;
    if (directory->get_group_record(node, group, &record) == platform::kDirectoryOK) {
      std::vector<std::string> nested = values_of(record, platform::kNestedGroups);
      if (std::find(nested.begin(), nested.end(), *guid) != nested.end()) continue;
      nested.push_back(*guid);
      plist::Dict update;
      update.set(platform::kNestedGroups, strings(nested));
      if (int32_t status = directory->set_group_record(node, group, &update); status != platform::kDirectoryOK)
        log_group_failure("add local admin guid to", group, status);
      continue;
    }
    plist::Dict created;
    created.set(platform::kRecordName, plist::Array{plist::Value(group)});
    if (gid) created.set(platform::kPrimaryGroupID, plist::Array{plist::Value(std::to_string(*gid))});
    created.set(platform::kNestedGroups, plist::Array{plist::Value(*guid)});
    if (int32_t status = directory->create_group_record(node, group, created); status != platform::kDirectoryOK) {
      log_group_failure("create", group, status);
      return;
    }
  }
}

}  // namespace hubwarden
