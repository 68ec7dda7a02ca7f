// The record-store directory with NSS at the real root: record files, their
// cache and locking, and membership resolution.
#include "platform/linux/directory_store.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <uuid/uuid.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <ctime>
#include <limits>
#include <map>
#include <mutex>
#include <set>
#include <unordered_map>
#include <unordered_set>

#include "platform/file_lock.h"
#include "platform/file_util.h"
#include "platform/linux/directory_servers.h"
#include "platform/linux/nss_accounts.h"
#include "platform/log.h"
#include "platform/paths.h"
#include "platform/registry.h"
#include "platform/root_fs.h"
#include "platform/unique_fd.h"
#include "plist/codec.h"
#include "plist/text_util.h"

namespace platform {

namespace {

constexpr std::string_view kLocalNode = "/Local/Default";
constexpr std::string_view kSearchNode = "/Search";
constexpr std::string_view kLocalLdapNode = "/LDAPv3/127.0.0.1";


constexpr std::string_view kRecordSuffix = ".plist";
// Does not end in kRecordSuffix, so record scans pass it by.
constexpr std::string_view kLockFileName = ".lock";
// New groups get ids above the range distributions hand out to people.
constexpr uint32_t kFirstGroupID = 1025;
// Wide enough for file systems with two-second time stamps.
constexpr time_t kRacyWindowSeconds = 3;

std::string store_dir(std::string_view kind) {
  std::string path = "/var/db/hubwarden/directory/";
  path += kind;
  return resolve(path);
}

std::string record_path(std::string_view kind, std::string_view name) {
  std::string path = store_dir(kind);
  path += '/';
  path += name;
  path += kRecordSuffix;
  return path;
}

bool contains(const std::vector<std::string_view>& values, std::string_view wanted) {
  return std::find(values.begin(), values.end(), wanted) != values.end();
}

std::string fresh_uuid() {
  uuid_t raw;
  uuid_generate(raw);
  char text[37];
  uuid_unparse_upper(raw, text);
  return text;
}

// Names of the records in a store directory. Temporary files of atomic
// writes and backups of damaged records do not end in ".plist".
std::vector<std::string> record_names_in(const std::string& dir) {
  std::vector<std::string> names;
  // Opened inside the sandbox root: a records folder linked elsewhere must
  // not list another machine's records.
  int fd = open_confined(dir, O_RDONLY | O_DIRECTORY);
  if (fd < 0) return names;
  DIR* d = ::fdopendir(fd);
  if (!d) {
    ::close(fd);
    return names;
  }
  while (struct dirent* e = ::readdir(d)) {
    std::string_view file = e->d_name;
    if (file.size() <= kRecordSuffix.size() || !file.ends_with(kRecordSuffix)) continue;
    std::string_view name = file.substr(0, file.size() - kRecordSuffix.size());
    if (is_valid_record_name(name)) names.emplace_back(name);
  }
  ::closedir(d);
  return names;
}

// stat(2) of path with links resolved inside the sandbox root; false with
// errno set on failure.
bool stat_confined(const std::string& path, struct stat* st) {
  UniqueFd fd(open_confined(path, O_PATH));
  return fd.valid() && ::fstat(fd.get(), st) == 0;
}

enum class RecordState { Missing, Damaged, Ok };

struct LoadedRecord {
  RecordState state = RecordState::Missing;
  std::shared_ptr<const plist::Dict> record;  // set when Ok
};

class DirectoryStore : public Directory {
 public:
  std::string default_local_node_path() override { return std::string(kLocalNode); }

  int32_t open_node(const std::string& node_path) override {
    if (node_path == kLocalNode || node_path == kSearchNode) return kDirectoryOK;
    if (node_path == kLocalLdapNode && has_local_ldap_server()) return kDirectoryOK;
    return kDirectoryNodeUnavailable;
  }

  std::optional<UserRecord> find_user(const std::string& node_path, const std::string& name, int32_t* status) override {
    *status = open_node(node_path);
    if (*status != kDirectoryOK) return std::nullopt;
    if (!is_valid_record_name(name)) {
      *status = kDirectoryInvalidName;
      return std::nullopt;
    }
    LoadedRecord stored = load("users", name);
    SystemAccounts::User system;
    if (real_root()) system = accounts_.user(name);
    if (stored.state != RecordState::Ok && !system.found) return std::nullopt;
    UserRecord user;
    user.name = name;
    if (stored.record) {
      std::vector<std::string_view> guid = attribute_values(*stored.record, kGeneratedUID);
      if (!guid.empty()) user.guid = guid.front();
      user.uid = attribute_number(*stored.record, kUniqueID);
      user.primary_gid = attribute_number(*stored.record, kPrimaryGroupID);
    }
    if (system.found) {
      if (!user.uid) user.uid = system.ids.uid;
      if (!user.primary_gid) user.primary_gid = system.ids.gid;
    }
    return user;
  }

  bool is_member(const std::string& user, const std::string& group) override {
    if (!is_valid_record_name(user) || !is_valid_record_name(group)) return false;
    std::optional<Member> member = member_facts(user);
    if (!member) return false;
    std::unordered_set<std::string> visited{group};
    return is_member_of(*member, group, visited);
  }

  int32_t get_group_record(const std::string& node_path, const std::string& group, plist::Dict* attributes) override {
    attributes->clear();
    if (int32_t status = open_node(node_path); status != kDirectoryOK) return status;
    if (!is_valid_record_name(group)) return kDirectoryInvalidName;
    LoadedRecord stored = load("groups", group);
    if (stored.state == RecordState::Ok) {
      *attributes = *stored.record;
      return kDirectoryOK;
    }
    if (stored.state == RecordState::Missing && real_root()) {
      if (std::optional<NssGroup> system = nss_group(group)) {
        *attributes = record_of_system_group(group, *system);
        return kDirectoryOK;
      }
    }
    return kDirectoryRecordNotFound;
  }

  int32_t set_group_record(const std::string& node_path, const std::string& group,
                           const plist::Dict* attributes) override {
    return write_group(node_path, group, attributes, /*create=*/false);
  }

  int32_t create_group_record(const std::string& node_path, const std::string& group,
                              const plist::Dict& attributes) override {
    return write_group(node_path, group, &attributes, /*create=*/true);
  }

  std::vector<std::string> groups_with_prefix(const std::string& node_path, const std::string& prefix,
                                              size_t limit) override {
    if (open_node(node_path) != kDirectoryOK) return {};
    // A damaged record still counts as an existing group here: a damaged
    // access group then closes its service instead of opening it to all.
    std::set<std::string> found;
    for (std::string& name : record_names_in(store_dir("groups")))
      if (name.starts_with(prefix)) found.insert(std::move(name));
    if (real_root()) {
      for (std::string& name : nss_group_names())
        if (name.starts_with(prefix) && is_valid_record_name(name)) found.insert(std::move(name));
    }
    std::vector<std::string> names(found.begin(), found.end());
    if (limit != 0 && names.size() > limit) names.resize(limit);
    return names;
  }

  std::optional<uint32_t> generate_legacy_gid() override {
    uint32_t gid = free_group_id();
    if (gid == std::numeric_limits<uint32_t>::max()) return std::nullopt;
    return gid;
  }

  std::vector<DirectoryServer> configured_servers() override {
    std::optional<std::string> conf = read_file(resolve(kDirectoryClientConfig));
    if (!conf) return {};
    return servers_in_directory_client_config(*conf);
  }

 private:
  struct CacheEntry {
    FileIdentity identity;
    LoadedRecord loaded;
    bool racy = false;
    std::string text;  // kept only while racy
  };

  // What membership needs to know about the user, gathered once per question.
  struct Member {
    std::string name;
    std::string guid;
    std::optional<uint32_t> primary_gid;
    std::vector<uint32_t> system_gids;  // NSS groups of the user, real root only
  };

  static bool real_root() { return get<Paths>().is_real_root(); }

  bool has_local_ldap_server() {
    if (file_exists(resolve("/etc/hubwarden/ldap-local"))) return true;
    for (const DirectoryServer& s : configured_servers())
      if (s.kind == DirectoryServer::Kind::Ldap && (s.name == "127.0.0.1" || s.name == "::1" || s.name == "localhost"))
        return true;
    return false;
  }

  // Reads a record through the cache. The identity comes from the open file
  // itself, so the cached contents always belong to the identity they are
  // filed under. File times tick coarsely, so a file changed within
  // kRacyWindow of being read could change again without a new identity:
  // such an entry keeps its text and is compared byte for byte on each use
  // until a read falls outside the window.
  LoadedRecord load(std::string_view kind, std::string_view name) {
    std::string path = record_path(kind, name);
    struct stat st;
    if (!stat_confined(path, &st)) {
      LoadedRecord result;
      if (errno != ENOENT && errno != ENOTDIR) result.state = RecordState::Damaged;
      std::lock_guard<std::mutex> lock(cache_mutex_);
      cache_.erase(path);
      return result;
    }
    std::optional<CacheEntry> racy;
    {
      std::lock_guard<std::mutex> lock(cache_mutex_);
      auto it = cache_.find(path);
      if (it != cache_.end() && it->second.identity == FileIdentity::of(st)) {
        if (!it->second.racy) return it->second.loaded;
        racy = it->second;
      }
    }
    struct timespec read_start;
    ::clock_gettime(CLOCK_REALTIME, &read_start);
    // Non-blocking, so that a FIFO or device put where a record belongs is
    // refused at once rather than hanging the request; nothing but a
    // regular file of sane size is read.
    UniqueFd fd(open_confined(path, O_RDONLY | O_NONBLOCK));
    if (!fd.valid()) return {errno == ENOENT ? RecordState::Missing : RecordState::Damaged, nullptr};
    std::string text;
    bool read_ok =
        ::fstat(fd.get(), &st) == 0 && S_ISREG(st.st_mode) && static_cast<uint64_t>(st.st_size) <= kDefaultReadLimit;
    if (read_ok) {
      char buf[16384];
      for (;;) {
        ssize_t n = ::read(fd.get(), buf, sizeof buf);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0 || text.size() + static_cast<size_t>(std::max<ssize_t>(n, 0)) > kDefaultReadLimit) read_ok = false;
        if (n <= 0 || !read_ok) break;
        text.append(buf, static_cast<size_t>(n));
      }
    }
    fd.reset();
    if (!read_ok) return {RecordState::Damaged, nullptr};

    CacheEntry entry;
    entry.identity = FileIdentity::of(st);
    if (racy && racy->identity == entry.identity && racy->text == text) {
      entry.loaded = racy->loaded;
    } else {
      entry.loaded = {RecordState::Damaged, nullptr};
      plist::Parsed parsed = plist::parse_xml(text);
      if (parsed.ok() && parsed.value.is_dict())
        entry.loaded = {RecordState::Ok, std::make_shared<const plist::Dict>(std::move(*parsed.value.as_dict()))};
    }
    entry.racy = read_start.tv_sec < st.st_ctim.tv_sec + kRacyWindowSeconds;
    if (entry.racy) entry.text = std::move(text);
    LoadedRecord loaded = entry.loaded;
    std::lock_guard<std::mutex> lock(cache_mutex_);
    cache_[path] = std::move(entry);
    return loaded;
  }

  static plist::Dict record_of_system_group(const std::string& name, const NssGroup& system) {
    plist::Dict record;
    record.set(kRecordName, plist::Array{plist::Value(name)});
    record.set(kPrimaryGroupID, plist::Array{plist::Value(std::to_string(system.gid))});
    plist::Array members;
    for (const std::string& m : system.members) members.emplace_back(m);
    record.set(kGroupMembership, std::move(members));
    return record;
  }

  std::optional<Member> member_facts(const std::string& user) {
    LoadedRecord stored = load("users", user);
    SystemAccounts::User system;
    if (real_root()) system = accounts_.user(user);
    if (stored.state != RecordState::Ok && !system.found) return std::nullopt;
    Member m;
    m.name = user;
    if (stored.record) {
      std::vector<std::string_view> guid = attribute_values(*stored.record, kGeneratedUID);
      if (!guid.empty()) m.guid = guid.front();
      m.primary_gid = attribute_number(*stored.record, kPrimaryGroupID);
    }
    if (system.found) {
      if (!m.primary_gid) m.primary_gid = system.ids.gid;
      m.system_gids = std::move(system.gids);
    }
    return m;
  }

  // The store answers for the groups it holds, NSS (at the real root) for
  // the others, as the first source that knows a name answers for it. A
  // group id is one number space on the machine, so a stored group's id
  // also matches the user's system groups.
  bool is_member_of(const Member& m, const std::string& group, std::unordered_set<std::string>& visited) {
    auto in_system_groups = [&m](uint32_t gid) {
      return (m.primary_gid && *m.primary_gid == gid) ||
             std::find(m.system_gids.begin(), m.system_gids.end(), gid) != m.system_gids.end();
    };
    LoadedRecord stored = load("groups", group);
    if (stored.state == RecordState::Missing) {
      std::optional<NssGroup> system = real_root() ? accounts_.group(group) : std::nullopt;
      if (!system) return false;
      return std::find(system->members.begin(), system->members.end(), m.name) != system->members.end() ||
             in_system_groups(system->gid);
    }
    if (stored.state != RecordState::Ok) return false;  // a damaged group admits nobody
    const plist::Dict& record = *stored.record;
    if (contains(attribute_values(record, kGroupMembership), m.name)) return true;
    if (!m.guid.empty() && contains(attribute_values(record, kGroupMembers), m.guid)) return true;
    if (std::optional<uint32_t> gid = attribute_number(record, kPrimaryGroupID); gid && in_system_groups(*gid))
      return true;
    for (std::string_view nested_guid : attribute_values(record, kNestedGroups)) {
      std::optional<std::string> nested = group_named_by_guid(nested_guid);
      if (!nested || !visited.insert(*nested).second) continue;
      if (is_member_of(m, *nested, visited)) return true;
    }
    return false;
  }

  // GUIDs are resolved through an index that is checked against the record
  // on every hit and rebuilt from the store on a miss, so it is never
  // trusted beyond what the files say now.
  std::optional<std::string> group_named_by_guid(std::string_view guid) {
    if (guid.empty()) return std::nullopt;
    std::string key(guid);
    std::optional<std::string> candidate;
    {
      std::lock_guard<std::mutex> lock(cache_mutex_);
      auto it = guid_index_.find(key);
      if (it != guid_index_.end()) candidate = it->second;
    }
    if (candidate && has_guid(*candidate, guid)) return candidate;
    std::unordered_map<std::string, std::string> index;
    for (const std::string& name : record_names_in(store_dir("groups"))) {
      LoadedRecord loaded = load("groups", name);
      if (loaded.state != RecordState::Ok) continue;
      for (std::string_view g : attribute_values(*loaded.record, kGeneratedUID)) index.emplace(g, name);
    }
    std::optional<std::string> found;
    if (auto it = index.find(key); it != index.end()) found = it->second;
    std::lock_guard<std::mutex> lock(cache_mutex_);
    guid_index_ = std::move(index);
    return found;
  }

  bool has_guid(const std::string& group, std::string_view guid) {
    LoadedRecord loaded = load("groups", group);
    return loaded.state == RecordState::Ok && contains(attribute_values(*loaded.record, kGeneratedUID), guid);
  }

  uint32_t free_group_id() {
    std::set<uint32_t> taken;
    for (const std::string& name : record_names_in(store_dir("groups"))) {
      LoadedRecord loaded = load("groups", name);
      if (loaded.state != RecordState::Ok) continue;
      if (std::optional<uint32_t> gid = attribute_number(*loaded.record, kPrimaryGroupID)) taken.insert(*gid);
    }
    uint32_t gid = kFirstGroupID;
    while (gid < std::numeric_limits<uint32_t>::max() && (taken.count(gid) || (real_root() && nss_gid_taken(gid))))
      ++gid;
    return gid;
  }

  int32_t write_group(const std::string& node_path, const std::string& group, const plist::Dict* attributes,
                      bool create) {
    if (int32_t status = open_node(node_path); status != kDirectoryOK) return status;
    if (!is_valid_record_name(group)) return kDirectoryInvalidName;
    std::string path = record_path("groups", group);
    std::lock_guard<std::mutex> writer(write_mutex_);
    std::optional<FileLock> lock = lock_store("groups");
    if (!lock) return kDirectoryWriteFailed;
    LoadedRecord current = load("groups", group);

    if (!attributes) {
      if (current.state == RecordState::Missing) return kDirectoryRecordNotFound;
      return rename_record(path, nullptr) ? kDirectoryOK : kDirectoryWriteFailed;
    }
    plist::Dict given;
    if (int32_t status = normalise_attributes(*attributes, &given); status != kDirectoryOK) return status;

    plist::Dict record;
    if (current.state == RecordState::Ok) {
      record = *current.record;
      record.merge(given);
    } else if (current.state == RecordState::Damaged && !create) {
      return kDirectoryWriteFailed;
    } else {
      // Kept beside the store, out of the way of record scans, so that a
      // damaged record replaced by a create can still be looked at.
      if (current.state == RecordState::Damaged && !rename_record(path, ".damaged")) return kDirectoryWriteFailed;
      record = std::move(given);
      std::optional<NssGroup> system = real_root() ? nss_group(group) : std::nullopt;
      if (!record.contains(kGeneratedUID)) record.set(kGeneratedUID, plist::Array{plist::Value(fresh_uuid())});
      if (!record.contains(kPrimaryGroupID)) {
        uint32_t gid = system ? system->gid : free_group_id();
        record.set(kPrimaryGroupID, plist::Array{plist::Value(std::to_string(gid))});
      }
    }
    // The file name is the record name; a record cannot rename itself.
    record.set(kRecordName, plist::Array{plist::Value(group)});
    if (!write_file_atomically(path, plist::write_xml(plist::Value(std::move(record))))) return kDirectoryWriteFailed;
    return kDirectoryOK;
  }

  // Another process (a command-line run beside the daemon) may write the
  // same records; the lock file in the store's folder keeps each
  // read-merge-write whole, and with it the choice of a free group id.
  static std::optional<FileLock> lock_store(std::string_view kind) {
    std::string dir = store_dir(kind);
    std::string lock_path = dir + "/" + std::string(kLockFileName);
    std::optional<FileLock> lock;
    if (int error = make_directories_confined(dir, 0755); error != 0)
      errno = error;
    else
      lock = FileLock::acquire(lock_path, FileLock::Mode::Exclusive);
    if (!lock)
      log_error("hubwardend: cannot lock the directory records (" + lock_path + ": " + std::strerror(errno) +
                "); not written");
    return lock;
  }

  // Removes the record at path (suffix nullptr) or renames it to path +
  // suffix, without leaving a sandbox root.
  static bool rename_record(const std::string& path, const char* suffix) {
    std::string leaf;
    UniqueFd dir(open_parent_confined(path, false, &leaf));
    if (!dir.valid()) return false;
    if (!suffix) return ::unlinkat(dir.get(), leaf.c_str(), 0) == 0;
    return ::renameat(dir.get(), leaf.c_str(), dir.get(), (leaf + suffix).c_str()) == 0;
  }

  SystemAccounts accounts_;
  std::mutex write_mutex_;  // taken before cache_mutex_, never after
  std::mutex cache_mutex_;
  std::unordered_map<std::string, CacheEntry> cache_;
  std::unordered_map<std::string, std::string> guid_index_;
};

bool string_of_number(const plist::Value& v, std::string* out) {
  if (const int64_t* i = v.as_integer()) {
    *out = std::to_string(*i);
    return true;
  }
  if (const uint64_t* u = v.as_unsigned()) {
    *out = std::to_string(*u);
    return true;
  }
  if (const double* d = v.as_real()) {
    // Only reals that are whole numbers an int64 can hold survive as text.
    if (!std::isfinite(*d) || std::trunc(*d) != *d || std::fabs(*d) >= 9.2e18) return false;
    *out = std::to_string(static_cast<int64_t>(*d));
    return true;
  }
  return false;
}

bool element_text(const plist::Value& v, std::string* out) {
  if (const std::string* s = v.as_string()) {
    *out = *s;
    return true;
  }
  if (const bool* b = v.as_bool()) {
    *out = *b ? "YES" : "NO";
    return true;
  }
  return string_of_number(v, out);
}

}  // namespace

std::unique_ptr<Directory> make_directory_store() { return std::make_unique<DirectoryStore>(); }

bool is_valid_record_name(std::string_view name) {
  if (name.empty() || name == "." || name.find('/') != std::string_view::npos ||
      name.find("..") != std::string_view::npos)
    return false;
  for (char c : name)
    if (static_cast<unsigned char>(c) < 0x20 || c == 0x7f) return false;
  return true;
}

int32_t normalise_attributes(const plist::Dict& given, plist::Dict* out) {
  out->clear();
  for (const auto& [key, value] : given) {
    plist::Array values;
    std::string text;
    if (const plist::Array* array = value.as_array()) {
      for (const plist::Value& element : *array) {
        if (!element_text(element, &text)) return kDirectoryInvalidValue;
        values.emplace_back(std::move(text));
      }
    } else if (element_text(value, &text)) {
      values.emplace_back(std::move(text));
    } else {
      return kDirectoryInvalidValue;
    }
    out->set(key, std::move(values));
  }
  return kDirectoryOK;
}

std::vector<std::string_view> attribute_values(const plist::Dict& record, std::string_view key) {
  std::vector<std::string_view> values;
  const plist::Value* v = record.find(key);
  if (!v) return values;
  if (const std::string* s = v->as_string()) {
    values.push_back(*s);
  } else if (const plist::Array* array = v->as_array()) {
    for (const plist::Value& element : *array)
      if (const std::string* s = element.as_string()) values.push_back(*s);
  }
  return values;
}

std::optional<uint32_t> attribute_number(const plist::Dict& record, std::string_view key) {
  std::vector<std::string_view> values = attribute_values(record, key);
  if (values.empty()) return std::nullopt;
  return text::parse_u32(values.front());
}

}  // namespace platform
