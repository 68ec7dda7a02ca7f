// Who is connected to a network service right now, read from the service
// itself: Samba's sessions, the FTP daemon's session processes, Dovecot's
// connections. The host's service modules answer "getConnectedUsers" with
// these lists.
//
// Readers are safe from several threads. A reader that cannot tell (tool
// missing, failing or too slow, table unreadable) answers an empty list:
// the count it feeds is a status figure, and a wrong zero is better than a
// request that fails.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "platform/linux/unit_inspector.h"
#include "platform/process_table.h"

namespace hubwardend {

class ConnectedUsersReader {
 public:
  virtual ~ConnectedUsersReader() = default;
  // One user name per connection, in no particular order; a user connected
  // twice is listed twice.
  virtual std::vector<std::string> users() = 0;
};

// Keeps another reader's answer for max_age, so that the burst of requests
// the status report makes (the file and Windows modules both read Samba)
// runs the tool once.
class CachedUsersReader : public ConnectedUsersReader {
 public:
  CachedUsersReader(std::shared_ptr<ConnectedUsersReader> source, std::chrono::milliseconds max_age);
  std::vector<std::string> users() override;

 private:
  const std::shared_ptr<ConnectedUsersReader> source_;
  const std::chrono::milliseconds max_age_;
  std::mutex mu_;  // held while the source is read, so a burst waits for one reading
  bool have_ = false;
  std::chrono::steady_clock::time_point read_at_;
  std::vector<std::string> users_;
};

inline constexpr std::chrono::milliseconds kConnectedUsersMaxAge{1000};

// Samba: one entry per session, its user name, from the status tool run
// through platform::Tasks with extra_args (e.g. {"-s", conf}).
std::shared_ptr<ConnectedUsersReader> make_samba_users_reader(std::vector<std::string> extra_args = {});

// FTP sessions of daemon ("vsftpd" or "proftpd") in a process listing made
// with the owner part. A session is a process of the daemon's command owned
// by neither root nor the daemon's unprivileged account; its user is that
// owner. This tells sessions from the rest because both daemons give each
// logged-in client a process of its own that has switched to the client's
// account, while the listener and vsftpd's per-connection privileged helper
// stay root and a client that has not logged in yet runs as the
// unprivileged account ("nobody" for vsftpd, "proftpd" for Debian's
// proftpd). Limits:
// a user who logs in as root, or as the unprivileged account, is not seen;
// anonymous logins count under the account they run as ("ftp"); a proftpd
// that keeps root as the real owner of its sessions shows none.
// name_of maps a uid to its account name ("" when unknown: the uid in
// decimal is used).
std::vector<std::string> ftp_session_users(const std::vector<platform::ProcessFacts>& processes,
                                           std::string_view daemon,
                                           const std::function<std::string(uint32_t)>& name_of);

// The FTP reader over the platform's process table; account names from
// NSS at the real root, from the root's /etc/passwd under a sandbox root.
std::shared_ptr<ConnectedUsersReader> make_ftp_users_reader(std::string daemon);

// The user column of "doveadm who -1" (one line per connection: user,
// protocol, pid, address), without the header line.
std::vector<std::string> parse_doveadm_who(std::string_view text);

inline constexpr const char* kDoveadmTool = "/usr/bin/doveadm";
inline constexpr const char* kDovecotUnit = "dovecot.service";

// Dovecot's connections, asked only while its unit is active (the mail
// module's own unit may be the mail transfer agent's).
std::shared_ptr<ConnectedUsersReader> make_dovecot_users_reader(std::shared_ptr<platform::UnitInspector> units);

}  // namespace hubwardend
