// Service access control lists: name lists, group record reads and writes,
// and the services a user may use.
#include "access/acls.h"

#include <algorithm>
#include <array>
#include <mutex>
#include <utility>

#include "platform/directory.h"
#include "platform/file_util.h"
#include "platform/log.h"
#include "platform/paths.h"
#include "platform/registry.h"
#include "plist/codec.h"
#include "request/operations.h"

namespace hubwarden {

namespace {

constexpr const char* kSaclListPath =
    "/usr/share/hubwardend/bundles/hubwarden_info.bundle/Contents/Resources/sacl_list.plist";
constexpr const char* kTaclListPath =
    "/usr/share/hubwardend/bundles/hubwarden_info.bundle/Contents/Resources/tacl_list.plist";

constexpr std::string_view kAuthenticationSearchNode = "/Search";
constexpr std::string_view kServerDirectoryNode = "/LDAPv3/127.0.0.1";

// The access groups a user query knows, in reply order, with the
// service-discovery identifier (DNS-SD service type) each one grants.
struct AccessGroup {
  std::string_view suffix;
  std::string_view identifier;
};
constexpr std::array<AccessGroup, 8> kAccessGroups = {{
    {"filer", "_filer._tcp"},
    {"addressbook", "_carddav._tcp"},
    {"backup", "_backup-target._tcp"},
    {"calendar", "_caldav._tcp"},
    {"chat", "_xmpp-client._tcp"},
    {"mail", "_imap._tcp"},
    {"smb", "_smb._tcp"},
    {"vpn", "_l2tp._udp"},
}};

// Keys an ACL record carries that are not attributes a writer may set.
constexpr std::array<std::string_view, 8> kUnwritableKeys = {
    "_id_",
    "dsAttrTypeStandard:RecordName",
    "dsAttrTypeStandard:PrimaryGroupID",
    "dsAttrTypeStandard:GeneratedUID",
    "dsAttrTypeVirtual:UserMemberDistinguishedNames",
    "dsAttrTypeVirtual:UserMemberNames",
    "dsAttrTypeVirtual:GroupMemberNames",
    "dsAttrTypeVirtual:GroupMemberDistinguishedNames",
};

// A cached name list. Built once under a lock; the reset hook exists so
// tests can change the root between cases.
struct NameListCache {
  std::mutex mu;
  std::optional<plist::Array> names;

  const plist::Array& get(const char* file, std::string_view prefix) {
    std::lock_guard<std::mutex> lock(mu);
    if (!names) names = get_acl_names(platform::resolve(file), prefix);
    return *names;
  }
};

NameListCache& sacl_cache() {
  static NameListCache cache;
  return cache;
}
NameListCache& aacl_cache() {
  static NameListCache cache;
  return cache;
}
NameListCache& macl_cache() {
  static NameListCache cache;
  return cache;
}

std::string group_name(std::string_view prefix, std::string_view suffix) {
  std::string name(prefix);
  name += suffix;
  return name;
}

std::string status_text(int32_t status) {
  const char* what = "directory failure";
  switch (status) {
    case platform::kDirectoryRecordNotFound: what = "record not found"; break;
    case platform::kDirectoryInvalidName: what = "invalid record name"; break;
    case platform::kDirectoryWriteFailed: what = "write failed"; break;
    case platform::kDirectoryNodeUnavailable: what = "node unavailable"; break;
    default: break;
  }
  return std::string(what) + " (" + std::to_string(status) + ")";
}

void log_failure(std::string_view what, int32_t status) {
  std::string line = "hubwarden_info: sacls_for_user(): ";
  line += what;
  line += ". Got error ";
  line += status_text(status);
  platform::log_error(line);
}

plist::Dict without_unwritable_keys(const plist::Dict& record) {
  plist::Dict copy = record;
  for (std::string_view key : kUnwritableKeys) copy.remove(key);
  return copy;
}

}  // namespace

plist::Array get_acl_names(const std::string& path, std::string_view prefix) {
  plist::Array names;
  if (std::optional<std::string> text = platform::read_file(path)) {
    plist::Parsed parsed = plist::parse_any(*text);
    if (const plist::Array* shorts = parsed.ok() ? parsed.value.as_array() : nullptr) {
      for (const plist::Value& v : *shorts)
        if (const std::string* s = v.as_string()) names.emplace_back(group_name(prefix, *s));
    }
  }
  names.emplace_back(group_name(prefix, kAllServicesSuffix));
  return names;
}

const plist::Array& get_sacl_names() { return sacl_cache().get(kSaclListPath, kAccessGroupPrefix); }
const plist::Array& get_aacl_names() { return aacl_cache().get(kTaclListPath, kAdminGroupPrefix); }
const plist::Array& get_macl_names() { return macl_cache().get(kTaclListPath, kMonitorGroupPrefix); }

void reset_acl_name_caches_for_testing() {
  for (NameListCache* cache : {&sacl_cache(), &aacl_cache(), &macl_cache()}) {
    std::lock_guard<std::mutex> lock(cache->mu);
    cache->names.reset();
  }
}

int32_t read_acls(plist::Dict* context, const plist::Array& names, plist::Array* records) {
  records->clear();
  if (!platform::has<platform::Directory>()) return platform::kDirectoryNodeUnavailable;
  platform::Directory& directory = platform::get<platform::Directory>();
  std::string node = directory.default_local_node_path();
  int32_t status = 0;
  plist::Dict attributes;
  for (const plist::Value& v : names) {
    const std::string* name = v.as_string();
    if (!name) continue;
    attributes.clear();
    int32_t result = directory.get_group_record(node, *name, &attributes);
    // Most servers lack most of these groups; an absent group is an answer,
    // not a failure to report.
    if (result == platform::kDirectoryRecordNotFound) result = 0;
    if (status == 0) status = result;
    if (attributes.empty()) continue;
    attributes.set("_id_", *name);
    records->emplace_back(std::move(attributes));
    attributes = plist::Dict();
  }
  return status;
}

int32_t write_acls(const plist::Array& records, plist::Dict* context) {
  if (!platform::has<platform::Directory>()) return platform::kDirectoryNodeUnavailable;
  platform::Directory& directory = platform::get<platform::Directory>();
  std::string node = directory.default_local_node_path();
  int32_t status = 0;
  for (const plist::Value& v : records) {
    if (status != 0) break;
    const plist::Dict* record = v.as_dict();
    if (!record) continue;
    const std::string* name = record->find_string("dsAttrTypeStandard:RecordName");
    if (!name) name = record->find_string("_id_");
    // A record that names no group cannot be written anywhere.
    if (!name) continue;
    if (plist::is_flag_set(record->find("_obsoleteid_"))) {
      status = directory.set_group_record(node, *name, nullptr);
    } else if (plist::is_flag_set(record->find("_newid_"))) {
      plist::Dict attributes = without_unwritable_keys(*record);
      attributes.remove("_newid_");
      status = directory.create_group_record(node, *name, attributes);
    } else {
      plist::Dict attributes = without_unwritable_keys(*record);
      if (!attributes.empty()) status = directory.set_group_record(node, *name, &attributes);
    }
  }
  return status;
}

std::optional<std::string> service_name_from_sacl_group_name(std::string_view name) {
  if (name.size() < kAccessGroupPrefix.size()) return std::nullopt;
  std::string_view suffix = name.substr(kAccessGroupPrefix.size());
  for (const AccessGroup& g : kAccessGroups)
    if (g.suffix == suffix) return std::string(g.identifier);
  return std::nullopt;
}

std::optional<Array> sacls_for_user(const Value* user, Dict* context, bool use_authentication_search) {
  if (!platform::has<platform::Directory>()) return std::nullopt;
  platform::Directory& directory = platform::get<platform::Directory>();
  std::string local = directory.default_local_node_path();
  if (int32_t status = directory.open_node(local); status != platform::kDirectoryOK) {
    log_failure("unable to open the local node", status);
    return std::nullopt;
  }
  std::string search(use_authentication_search ? kAuthenticationSearchNode : kServerDirectoryNode);
  if (int32_t status = directory.open_node(search); status != platform::kDirectoryOK) {
    log_failure("unable to open the node to search for the user", status);
    return std::nullopt;
  }
  // A request without a user name names nobody the directory could find.
  const std::string* name = user ? user->as_string() : nullptr;
  if (!name) return std::nullopt;
  int32_t status = platform::kDirectoryOK;
  if (!directory.find_user(search, *name, &status)) {
    if (status != platform::kDirectoryOK) log_failure("unable to get the user record", status);
    return std::nullopt;
  }

  std::string all_services = group_name(kAccessGroupPrefix, kAllServicesSuffix);
  std::vector<std::string> groups = directory.groups_with_prefix(local, std::string(kAccessGroupPrefix), 0);
  Array services;
  for (const std::string& group : groups) {
    if (!directory.is_member(*name, group)) continue;
    if (group == all_services) {
      for (const AccessGroup& g : kAccessGroups) services.emplace_back(std::string(g.identifier));
      return services;
    }
    if (std::optional<std::string> id = service_name_from_sacl_group_name(group); id && !id->empty())
      services.emplace_back(std::move(*id));
  }
  // A service without an access group is open to everybody.
  for (const AccessGroup& g : kAccessGroups) {
    std::string wanted = group_name(kAccessGroupPrefix, g.suffix);
    if (std::find(groups.begin(), groups.end(), wanted) == groups.end())
      services.emplace_back(std::string(g.identifier));
  }
  return services;
}

}  // namespace hubwarden
