// The directory: users, groups, membership and group records.
//
// Records are dictionaries from attribute type names
// ("dsAttrTypeStandard:RecordName", "dsAttrTypeStandard:GeneratedUID",
// "dsAttrTypeStandard:PrimaryGroupID", "dsAttrTypeStandard:GroupMembership",
// "dsAttrTypeStandard:GroupMembers", "dsAttrTypeStandard:NestedGroups", ...)
// to arrays of strings. Status codes are 32-bit: 0 is success, anything else
// a failure to pass on. Implementations are safe from several threads.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "plist/value.h"

namespace platform {

// Attribute type names of user and group records.
constexpr std::string_view kRecordName = "dsAttrTypeStandard:RecordName";
constexpr std::string_view kGeneratedUID = "dsAttrTypeStandard:GeneratedUID";
constexpr std::string_view kPrimaryGroupID = "dsAttrTypeStandard:PrimaryGroupID";
constexpr std::string_view kUniqueID = "dsAttrTypeStandard:UniqueID";
constexpr std::string_view kGroupMembership = "dsAttrTypeStandard:GroupMembership";
constexpr std::string_view kGroupMembers = "dsAttrTypeStandard:GroupMembers";
constexpr std::string_view kNestedGroups = "dsAttrTypeStandard:NestedGroups";

// Directory status codes.
constexpr int32_t kDirectoryOK = 0;
constexpr int32_t kDirectoryRecordNotFound = -14136;
constexpr int32_t kDirectoryInvalidName = -14133;
constexpr int32_t kDirectoryWriteFailed = -14120;
constexpr int32_t kDirectoryNodeUnavailable = -14002;

struct UserRecord {
  std::string name;
  std::string guid;              // may be empty
  std::optional<uint32_t> uid;
  std::optional<uint32_t> primary_gid;
};

struct DirectoryServer {
  enum class Kind { Ldap, ActiveDirectory, Other };
  std::string name;
  Kind kind = Kind::Other;
};

class Directory {
 public:
  virtual ~Directory() = default;

  // The path of the local directory node ("/Local/Default").
  virtual std::string default_local_node_path() = 0;
  // Whether a node can be opened ("/Local/Default", "/Search",
  // "/LDAPv3/127.0.0.1"); status kDirectoryOK or a failure.
  virtual int32_t open_node(const std::string& node_path) = 0;

  // Looks a user up in the node; nullopt with *status 0 when there is no
  // such user, nullopt with a non-zero *status when the directory failed.
  virtual std::optional<UserRecord> find_user(const std::string& node_path, const std::string& name,
                                              int32_t* status) = 0;

  // Membership by name, GUID, primary group id, or through nested groups
  // (recursively, cycle-safe). False when the user or group is unknown.
  virtual bool is_member(const std::string& user, const std::string& group) = 0;

  // Reads a group record into *attributes (cleared first). A missing group
  // gives kDirectoryRecordNotFound and an empty dictionary.
  virtual int32_t get_group_record(const std::string& node_path, const std::string& group,
                                   plist::Dict* attributes) = 0;
  // Creates or updates the group with attributes (replacing the given
  // attribute types); with attributes == nullptr removes it. Written
  // atomically. An update of a group whose record cannot be read fails
  // without touching it.
  virtual int32_t set_group_record(const std::string& node_path, const std::string& group,
                                   const plist::Dict* attributes) = 0;
  // Like set_group_record with attributes, for a caller that asked for the
  // group to be created: a record that exists but cannot be read is replaced
  // (an update would refuse it), a readable one is updated as usual.
  virtual int32_t create_group_record(const std::string& node_path, const std::string& group,
                                      const plist::Dict& attributes) {
    return set_group_record(node_path, group, &attributes);
  }
  // Names of the groups whose record name begins with prefix, in a stable
  // order, at most limit of them (0 = no limit).
  virtual std::vector<std::string> groups_with_prefix(const std::string& node_path,
                                                      const std::string& prefix, size_t limit) = 0;

  // The directory servers the machine's directory client is configured for.
  virtual std::vector<DirectoryServer> configured_servers() = 0;

  // A numeric group id that no group holds now: neither a group of the
  // directory nor, at the real root, one of the system's groups. Nothing is
  // reserved, so a caller that creates a group with it should do so soon;
  // two calls without a creation between them may give the same id.
  // nullopt when no id is free or the directory cannot say.
  virtual std::optional<uint32_t> generate_legacy_gid() { return std::nullopt; }
};

}  // namespace platform
