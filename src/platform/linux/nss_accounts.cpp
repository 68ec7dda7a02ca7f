// NSS lookups of the machine's users and groups. The reentrant calls need a
// caller buffer that may have to grow.
#include "platform/linux/nss_accounts.h"

#include <grp.h>
#include <pwd.h>
#include <sys/stat.h>

#include <algorithm>

namespace platform {

namespace {

NssGroup group_from(const struct group& gr) {
  NssGroup g;
  g.gid = gr.gr_gid;
  for (char** m = gr.gr_mem; m && *m; ++m) g.members.emplace_back(*m);
  return g;
}

// The group database is enumerated through process-wide state.
std::mutex& group_enumeration_mutex() {
  static std::mutex m;
  return m;
}

}  // namespace

bool nss_user(const std::string& name, NssUser* user) {
  std::vector<char> buf(4096);
  for (;;) {
    struct passwd pw;
    struct passwd* found = nullptr;
    int rc = ::getpwnam_r(name.c_str(), &pw, buf.data(), buf.size(), &found);
    if (rc == ERANGE && buf.size() < (1u << 20)) {
      buf.resize(buf.size() * 2);
      continue;
    }
    if (rc != 0 || !found) return false;
    *user = NssUser{pw.pw_uid, pw.pw_gid};
    return true;
  }
}

std::optional<NssGroup> nss_group(const std::string& name) {
  std::vector<char> buf(4096);
  for (;;) {
    struct group gr;
    struct group* found = nullptr;
    int rc = ::getgrnam_r(name.c_str(), &gr, buf.data(), buf.size(), &found);
    if (rc == ERANGE && buf.size() < (1u << 20)) {
      buf.resize(buf.size() * 2);
      continue;
    }
    if (rc != 0 || !found) return std::nullopt;
    return group_from(gr);
  }
}

bool nss_gid_taken(uint32_t gid) {
  std::vector<char> buf(4096);
  for (;;) {
    struct group gr;
    struct group* found = nullptr;
    int rc = ::getgrgid_r(gid, &gr, buf.data(), buf.size(), &found);
    if (rc == ERANGE && buf.size() < (1u << 20)) {
      buf.resize(buf.size() * 2);
      continue;
    }
    return rc == 0 && found;
  }
}

std::vector<uint32_t> nss_group_ids_of(const std::string& user, uint32_t primary_gid) {
  int count = 32;
  std::vector<gid_t> gids(static_cast<size_t>(count));
  for (int tries = 0; tries < 8; ++tries) {
    int n = count;
    if (::getgrouplist(user.c_str(), primary_gid, gids.data(), &n) >= 0) {
      gids.resize(static_cast<size_t>(std::max(n, 0)));
      return {gids.begin(), gids.end()};
    }
    if (n <= count) break;  // no progress: give up rather than loop
    count = n;
    gids.resize(static_cast<size_t>(count));
  }
  return {primary_gid};
}

std::vector<std::string> nss_group_names() {
  std::lock_guard<std::mutex> lock(group_enumeration_mutex());
  std::vector<std::string> names;
  std::vector<char> buf(4096);
  ::setgrent();
  for (;;) {
    struct group gr;
    struct group* found = nullptr;
    int rc = ::getgrent_r(&gr, buf.data(), buf.size(), &found);
    if (rc == ERANGE && buf.size() < (1u << 20)) {
      buf.resize(buf.size() * 2);
      continue;
    }
    if (rc != 0 || !found) break;
    names.emplace_back(gr.gr_name);
  }
  ::endgrent();
  return names;
}

SystemAccounts::User SystemAccounts::user(const std::string& name) {
  {
    std::lock_guard<std::mutex> lock(mu_);
    refresh_locked();
    if (auto it = users_.find(name); it != users_.end()) return it->second;
  }
  User u;
  u.found = nss_user(name, &u.ids);
  if (u.found) u.gids = nss_group_ids_of(name, u.ids.gid);
  std::lock_guard<std::mutex> lock(mu_);
  users_.emplace(name, u);
  return u;
}

std::optional<NssGroup> SystemAccounts::group(const std::string& name) {
  {
    std::lock_guard<std::mutex> lock(mu_);
    refresh_locked();
    if (auto it = groups_.find(name); it != groups_.end()) return it->second;
  }
  std::optional<NssGroup> g = nss_group(name);
  std::lock_guard<std::mutex> lock(mu_);
  groups_.emplace(name, g);
  return g;
}

FileIdentity SystemAccounts::identity_of(const char* path) {
  struct stat st;
  return ::stat(path, &st) == 0 ? FileIdentity::of(st) : FileIdentity{};
}

void SystemAccounts::refresh_locked() {
  auto now = std::chrono::steady_clock::now();
  FileIdentity passwd = identity_of("/etc/passwd");
  FileIdentity group = identity_of("/etc/group");
  if (valid_ && now - stamp_ < kSystemAccountsTtl && passwd == passwd_ && group == group_) return;
  users_.clear();
  groups_.clear();
  valid_ = true;
  stamp_ = now;
  passwd_ = passwd;
  group_ = group;
}

}  // namespace platform
