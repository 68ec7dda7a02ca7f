// The machine's own users and groups through NSS (getpwnam_r, getgrnam_r,
// getgrouplist, getgrent_r), for the directory store at the real root, and
// a short-lived cache of the answers. The free functions are safe from any
// thread (group enumeration is serialised inside); SystemAccounts is safe
// from several threads.
#pragma once

#include <chrono>
#include <cstdint>
#include <mutex>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "platform/linux/file_identity.h"

namespace platform {

struct NssUser {
  uint32_t uid = 0;
  uint32_t gid = 0;
};

struct NssGroup {
  uint32_t gid = 0;
  std::vector<std::string> members;
};

// The user's ids; false when NSS does not know the name.
bool nss_user(const std::string& name, NssUser* user);
// The group's id and listed members; nullopt when NSS does not know it.
std::optional<NssGroup> nss_group(const std::string& name);
// Whether NSS knows a group with this id.
bool nss_gid_taken(uint32_t gid);
// Every group id of the user, primary_gid included; just primary_gid when
// the list cannot be had.
std::vector<uint32_t> nss_group_ids_of(const std::string& user, uint32_t primary_gid);
// The names of all groups NSS enumerates.
std::vector<std::string> nss_group_names();

// NSS answers for the questions of one request. A request asks about the
// same user once per group, and NSS modules other than plain files can take
// a tenth of a millisecond per answer, so answers are kept for at most
// kSystemAccountsTtl and dropped at once when /etc/passwd or /etc/group
// changes.
class SystemAccounts {
 public:
  struct User {
    bool found = false;
    NssUser ids;
    std::vector<uint32_t> gids;  // every group of the user, primary included
  };

  // The user's NSS facts, from the cache when fresh.
  User user(const std::string& name);

  // The group's NSS facts, from the cache when fresh.
  std::optional<NssGroup> group(const std::string& name);

 private:
  static constexpr std::chrono::milliseconds kSystemAccountsTtl{1000};

  static FileIdentity identity_of(const char* path);

  void refresh_locked();

  std::mutex mu_;
  bool valid_ = false;
  std::chrono::steady_clock::time_point stamp_;
  FileIdentity passwd_, group_;
  std::unordered_map<std::string, User> users_;
  std::unordered_map<std::string, std::optional<NssGroup>> groups_;
};

}  // namespace platform
