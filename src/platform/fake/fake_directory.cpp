// The in-memory directory for tests.
#include "platform/fake/fake_directory.h"

#include <algorithm>
#include <cstdio>

#include "platform/linux/directory_store.h"

namespace platform {

namespace {


int32_t injected(const std::map<std::string, int32_t>& failures, const std::string& key) {
  auto it = failures.find(key);
  return it == failures.end() ? kDirectoryOK : it->second;
}

void set_failure(std::map<std::string, int32_t>& failures, const std::string& key, int32_t status) {
  if (status == kDirectoryOK)
    failures.erase(key);
  else
    failures[key] = status;
}

bool has_value(const plist::Dict& record, std::string_view key, std::string_view wanted) {
  std::vector<std::string_view> values = attribute_values(record, key);
  return std::find(values.begin(), values.end(), wanted) != values.end();
}

}  // namespace

void FakeDirectory::add_user(const std::string& name, const std::string& guid, std::optional<uint32_t> primary_gid) {
  std::lock_guard<std::mutex> lock(mu_);
  users_[name] = UserRecord{name, guid, std::nullopt, primary_gid};
}

void FakeDirectory::put_group(const std::string& name, plist::Dict record) {
  std::lock_guard<std::mutex> lock(mu_);
  groups_[name] = std::move(record);
}

void FakeDirectory::add_group(const std::string& name, const std::vector<std::string>& members,
                              const std::string& guid) {
  plist::Dict record;
  record.set(kRecordName, plist::Array{plist::Value(name)});
  if (!guid.empty()) record.set(kGeneratedUID, plist::Array{plist::Value(guid)});
  plist::Array names;
  for (const std::string& m : members) names.emplace_back(m);
  record.set(kGroupMembership, std::move(names));
  put_group(name, std::move(record));
}

void FakeDirectory::add_member(const std::string& user, const std::string& group) {
  std::lock_guard<std::mutex> lock(mu_);
  plist::Value& members = groups_[group][kGroupMembership];
  if (!members.is_array()) members = plist::Array();
  members.as_array()->emplace_back(user);
}

std::optional<plist::Dict> FakeDirectory::group(const std::string& name) {
  std::lock_guard<std::mutex> lock(mu_);
  auto it = groups_.find(name);
  if (it == groups_.end()) return std::nullopt;
  return it->second;
}

void FakeDirectory::fail_node(const std::string& node, int32_t status) {
  std::lock_guard<std::mutex> lock(mu_);
  set_failure(node_failures_, node, status);
}

void FakeDirectory::fail_find_user(const std::string& name, int32_t status) {
  std::lock_guard<std::mutex> lock(mu_);
  set_failure(find_failures_, name, status);
}

void FakeDirectory::fail_get_group(const std::string& name, int32_t status) {
  std::lock_guard<std::mutex> lock(mu_);
  set_failure(get_failures_, name, status);
}

void FakeDirectory::fail_set_group(const std::string& name, int32_t status) {
  std::lock_guard<std::mutex> lock(mu_);
  set_failure(set_failures_, name, status);
}

void FakeDirectory::set_servers(std::vector<DirectoryServer> servers) {
  std::lock_guard<std::mutex> lock(mu_);
  servers_ = std::move(servers);
}

std::vector<FakeDirectory::Write> FakeDirectory::writes() {
  std::lock_guard<std::mutex> lock(mu_);
  return writes_;
}

std::vector<std::pair<std::string, size_t>> FakeDirectory::queries() {
  std::lock_guard<std::mutex> lock(mu_);
  return queries_;
}

int32_t FakeDirectory::open_node(const std::string& node_path) {
  std::lock_guard<std::mutex> lock(mu_);
  return injected(node_failures_, node_path);
}

std::optional<UserRecord> FakeDirectory::find_user(const std::string& node_path, const std::string& name,
                                                   int32_t* status) {
  std::lock_guard<std::mutex> lock(mu_);
  *status = injected(node_failures_, node_path);
  if (*status == kDirectoryOK) *status = injected(find_failures_, name);
  if (*status != kDirectoryOK) return std::nullopt;
  if (!is_valid_record_name(name)) {
    *status = kDirectoryInvalidName;
    return std::nullopt;
  }
  auto it = users_.find(name);
  if (it == users_.end()) return std::nullopt;
  return it->second;
}

bool FakeDirectory::is_member(const std::string& user, const std::string& group) {
  std::lock_guard<std::mutex> lock(mu_);
  auto it = users_.find(user);
  if (it == users_.end()) return false;
  std::vector<std::string> visited{group};
  return member_locked(it->second, group, visited);
}

bool FakeDirectory::member_locked(const UserRecord& user, const std::string& group,
                                  std::vector<std::string>& visited) {
  auto it = groups_.find(group);
  if (it == groups_.end()) return false;
  const plist::Dict& record = it->second;
  if (has_value(record, kGroupMembership, user.name)) return true;
  if (!user.guid.empty() && has_value(record, kGroupMembers, user.guid)) return true;
  std::optional<uint32_t> gid = attribute_number(record, kPrimaryGroupID);
  if (gid && user.primary_gid && *gid == *user.primary_gid) return true;
  for (std::string_view guid : attribute_values(record, kNestedGroups)) {
    for (const auto& [name, candidate] : groups_) {
      if (!has_value(candidate, kGeneratedUID, guid)) continue;
      if (std::find(visited.begin(), visited.end(), name) != visited.end()) continue;
      visited.push_back(name);
      if (member_locked(user, name, visited)) return true;
    }
  }
  return false;
}

int32_t FakeDirectory::get_group_record(const std::string& node_path, const std::string& group,
                                        plist::Dict* attributes) {
  attributes->clear();
  std::lock_guard<std::mutex> lock(mu_);
  if (int32_t status = injected(node_failures_, node_path)) return status;
  if (!is_valid_record_name(group)) return kDirectoryInvalidName;
  if (int32_t status = injected(get_failures_, group)) return status;
  auto it = groups_.find(group);
  if (it == groups_.end()) return kDirectoryRecordNotFound;
  *attributes = it->second;
  return kDirectoryOK;
}

int32_t FakeDirectory::set_group_record(const std::string& node_path, const std::string& group,
                                        const plist::Dict* attributes) {
  std::lock_guard<std::mutex> lock(mu_);
  return write_locked(node_path, group, attributes, false);
}

int32_t FakeDirectory::create_group_record(const std::string& node_path, const std::string& group,
                                           const plist::Dict& attributes) {
  std::lock_guard<std::mutex> lock(mu_);
  return write_locked(node_path, group, &attributes, true);
}

int32_t FakeDirectory::write_locked(const std::string& node, const std::string& group,
                                    const plist::Dict* attributes, bool create) {
  writes_.push_back({node, group, attributes ? std::optional<plist::Dict>(*attributes) : std::nullopt, create});
  if (int32_t status = injected(node_failures_, node)) return status;
  if (!is_valid_record_name(group)) return kDirectoryInvalidName;
  if (int32_t status = injected(set_failures_, group)) return status;
  auto it = groups_.find(group);
  if (!attributes) {
    if (it == groups_.end()) return kDirectoryRecordNotFound;
    groups_.erase(it);
    return kDirectoryOK;
  }
  plist::Dict given;
  if (int32_t status = normalise_attributes(*attributes, &given)) return status;
  if (it != groups_.end()) {
    it->second.merge(given);
    it->second.set(kRecordName, plist::Array{plist::Value(group)});
    return kDirectoryOK;
  }
  if (!given.contains(kGeneratedUID)) {
    char guid[40];
    std::snprintf(guid, sizeof guid, "00000000-0000-0000-0000-%012u", next_guid_++);
    given.set(kGeneratedUID, plist::Array{plist::Value(std::string(guid))});
  }
  if (!given.contains(kPrimaryGroupID))
    given.set(kPrimaryGroupID, plist::Array{plist::Value(std::to_string(next_gid_++))});
  given.set(kRecordName, plist::Array{plist::Value(group)});
  groups_[group] = std::move(given);
  return kDirectoryOK;
}

std::vector<std::string> FakeDirectory::groups_with_prefix(const std::string& node_path, const std::string& prefix,
                                                           size_t limit) {
  std::lock_guard<std::mutex> lock(mu_);
  queries_.emplace_back(prefix, limit);
  std::vector<std::string> names;
  if (injected(node_failures_, node_path) != kDirectoryOK) return names;
  for (const auto& [name, record] : groups_) {  // std::map: already sorted
    if (!name.starts_with(prefix)) continue;
    if (limit != 0 && names.size() >= limit) break;
    names.push_back(name);
  }
  return names;
}

std::vector<DirectoryServer> FakeDirectory::configured_servers() {
  std::lock_guard<std::mutex> lock(mu_);
  return servers_;
}

std::optional<uint32_t> FakeDirectory::generate_legacy_gid() {
  std::lock_guard<std::mutex> lock(mu_);
  ++legacy_gid_calls_;
  return next_gid_++;
}

int FakeDirectory::legacy_gid_calls() {
  std::lock_guard<std::mutex> lock(mu_);
  return legacy_gid_calls_;
}

}  // namespace platform
