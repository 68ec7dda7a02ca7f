// The time daemon's configuration and its job, and one-shot clock
// synchronisation with a time server.
//
// The configuration file is rewritten in place of its first "server" line
// only, so an administrator's own directives (restrictions, drift file,
// further servers) survive a change made from the console. Every write
// replaces the file whole and atomically: the time daemon never reads half
// a configuration.
//
// Safe from any thread; concurrent writers of the same file are not
// serialised against each other (the settings commands run one at a time
// under the module context).
#pragma once

#include <optional>
#include <string>

namespace hubwarden {

// The time daemon's configuration, as the module names it.
inline constexpr char kNtpConfPath[] = "/etc/ntp.conf";
// The time daemon's job, as the service manager knows it.
inline constexpr char kNtpJob[] = "/System/Library/LaunchDaemons/org.ntp.ntpd.plist";
// The one-shot synchronisation tool.
inline constexpr char kNtpdatePath[] = "/usr/sbin/ntpdate";

// Makes server_name the first "server" of the configuration at path (a path
// as the module names it; resolved below the root). No name, or "Local" in
// any letter case, stands for this server's own clock: the file is then
// removed and written anew as the local-clock configuration. A missing file
// becomes "server <name>" with no line end. Returns 1 when a missing file
// could not be created (or the name holds a line break or NUL, which would
// smuggle further directives into the file), else 0; an existing file that
// cannot be read is logged and left alone, and still gives 0.
int set_ntp_conf_file(const std::string& path, const std::optional<std::string>& server_name);

// Points the configuration at "Local" when time is served but not
// followed, else at server_name; then enables the time daemon's job when
// either sync or serve is on and disables it otherwise. Returns the result
// of the configuration write; a failure to switch the job is not reported.
int set_ntp_state(bool sync, bool serve, const std::optional<std::string>& server_name);

// Runs the synchronisation tool against server_name and waits for it (at
// most a few minutes). Returns its exit status (127 when it could not be
// started); a non-zero status is logged. A name that begins with '-' would
// be taken for an option and is refused with status 1.
int do_sync_with_ntp_server(const std::string& server_name);

// Inside the daemon, queues do_sync_with_ntp_server on the background queue
// and returns 0 at once; its failures are only logged. Elsewhere (a
// command-line run) runs it in place and returns its status.
int sync_with_ntp_server(const std::string& server_name);

}  // namespace hubwarden
