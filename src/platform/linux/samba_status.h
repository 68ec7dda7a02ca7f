// What the Samba server reports about its clients: the sessions (one per
// authenticated client connection) and the share connections made in them,
// as its status tool prints them. The reader prefers the tool's JSON output
// and falls back to its plain tables when the installed Samba has no JSON
// option.
//
// Everything here is a plain function: no state, safe from any thread.
// Output that cannot be understood gives an empty answer, never an error
// the caller has to handle; rows that cannot be read are left out.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "platform/tasks.h"

namespace platform {

// One client session.
struct SambaSession {
  uint32_t session_id = 0;  // 0 when the output does not give one (plain tables)
  uint32_t pid = 0;         // the smbd process serving the session
  std::string user;         // as the server names it, e.g. "alice" or "DOMAIN\alice"
  std::string group;
  std::string machine;     // remote machine name or address
  std::string address;     // transport address, e.g. "ipv4:127.0.0.1:47456"; may be empty
  std::string protocol;    // dialect, e.g. "SMB3_11"; empty when not given
  std::string encryption;  // "-" or the cipher; empty when not given
  std::string signing;     // "-" or the signing algorithm; empty when not given
};

// One connection to a share (a tree connect).
struct SambaShareConnection {
  std::string share;         // the share (service) name; may contain spaces
  uint32_t pid = 0;          // the smbd process serving it
  std::string machine;       // remote machine name or address
  uint32_t session_id = 0;   // 0 when not given
  std::string connected_at;  // as printed: ISO 8601 in JSON, a date line in the tables
};

struct SambaStatus {
  // True when the tool ran and its output was understood (even if it lists
  // nothing); false when it could not be run, timed out or printed
  // something unreadable. The lists are empty then.
  bool read = false;
  std::vector<SambaSession> sessions;
  std::vector<SambaShareConnection> shares;
};

// The tool's JSON output (--json). Sessions and share connections are in
// the order the output lists them. Returns read=false for anything that is
// not a JSON object; entries that are not objects are skipped.
SambaStatus parse_samba_status_json(std::string_view text);

// The session table of the plain output ("-b", or the first table of the
// full output). User names with spaces are kept whole as long as the group
// name has none.
std::vector<SambaSession> parse_samba_sessions_text(std::string_view text);

// The share table of the plain output ("-S", or the share table of the full
// output).
std::vector<SambaShareConnection> parse_samba_shares_text(std::string_view text);

inline constexpr const char* kSambaStatusTool = "/usr/bin/smbstatus";
inline constexpr double kSambaStatusTimeoutSeconds = 5;

// Runs the status tool through tasks (no shell) with extra_args appended
// (e.g. {"-s", "/etc/hubwarden/smb.conf"}), JSON first; when the tool
// refuses that option, its plain session and share tables. All runs
// together stay within timeout_seconds. A tool that is missing, fails or
// times out gives read=false.
SambaStatus read_samba_status(Tasks& tasks, const std::vector<std::string>& extra_args = {},
                              double timeout_seconds = kSambaStatusTimeoutSeconds);

}  // namespace platform
