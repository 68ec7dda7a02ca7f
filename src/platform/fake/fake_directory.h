// An in-memory directory for tests: users and groups held as records, with
// the store's membership rules (name, GUID, primary group id, nested groups)
// and its name and value checks. Statuses can be injected per node, per user
// lookup and per group record, and every write is recorded. Safe from
// several threads.
#pragma once

#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "platform/directory.h"

namespace platform {

class FakeDirectory : public Directory {
 public:
  struct Write {
    std::string node;
    std::string group;
    std::optional<plist::Dict> attributes;  // nullopt: removal
    bool create = false;                    // came through create_group_record
  };

  // Adds a user; guid and primary_gid may be empty.
  void add_user(const std::string& name, const std::string& guid = "",
                std::optional<uint32_t> primary_gid = std::nullopt);
  // Adds or replaces a group record as given (no attribute is filled in).
  void put_group(const std::string& name, plist::Dict record);
  // Shorthand: a group whose "dsAttrTypeStandard:GroupMembership" is members.
  void add_group(const std::string& name, const std::vector<std::string>& members = {},
                 const std::string& guid = "");
  void add_member(const std::string& user, const std::string& group);
  // The stored record of name, if any.
  std::optional<plist::Dict> group(const std::string& name);

  // Status injection (0 clears).
  void fail_node(const std::string& node, int32_t status);
  void fail_find_user(const std::string& name, int32_t status);
  void fail_get_group(const std::string& name, int32_t status);
  void fail_set_group(const std::string& name, int32_t status);
  void set_servers(std::vector<DirectoryServer> servers);

  std::vector<Write> writes();
  // Prefix queries asked so far, with their limits.
  std::vector<std::pair<std::string, size_t>> queries();

  std::string default_local_node_path() override { return "/Local/Default"; }
  int32_t open_node(const std::string& node_path) override;
  std::optional<UserRecord> find_user(const std::string& node_path, const std::string& name,
                                      int32_t* status) override;
  bool is_member(const std::string& user, const std::string& group) override;
  int32_t get_group_record(const std::string& node_path, const std::string& group,
                           plist::Dict* attributes) override;
  int32_t set_group_record(const std::string& node_path, const std::string& group,
                           const plist::Dict* attributes) override;
  int32_t create_group_record(const std::string& node_path, const std::string& group,
                              const plist::Dict& attributes) override;
  std::vector<std::string> groups_with_prefix(const std::string& node_path, const std::string& prefix,
                                              size_t limit) override;
  std::vector<DirectoryServer> configured_servers() override;
  // Increasing ids from the same counter that numbers created groups.
  std::optional<uint32_t> generate_legacy_gid() override;
  // How often generate_legacy_gid was called.
  int legacy_gid_calls();

 private:
  int32_t write_locked(const std::string& node, const std::string& group, const plist::Dict* attributes,
                       bool create);
  bool member_locked(const UserRecord& user, const std::string& group, std::vector<std::string>& visited);

  std::mutex mu_;
  std::map<std::string, UserRecord> users_;
  std::map<std::string, plist::Dict> groups_;
  std::map<std::string, int32_t> node_failures_, find_failures_, get_failures_, set_failures_;
  std::vector<DirectoryServer> servers_;
  std::vector<Write> writes_;
  std::vector<std::pair<std::string, size_t>> queries_;
  uint32_t next_gid_ = 1025;
  uint32_t next_guid_ = 1;
  int legacy_gid_calls_ = 0;
};

}  // namespace platform
