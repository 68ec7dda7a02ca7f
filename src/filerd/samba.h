// The bridge to Samba: whether smbd runs, its sessions and share
// connections, and the few things the daemon asks of it (reload, close a
// session's process, stop). Samba's own tools do the work, run with
// argument vectors (never a shell) and a time limit each.
//
// Samba is an interface so the command handlers can be tested without a
// server. SambaTools is the real one; safe from any thread (every call runs
// its own tool or reads files).
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "filerd/config.h"
#include "platform/linux/samba_status.h"
#include "platform/tasks.h"

namespace filerd {

class Samba {
 public:
  virtual ~Samba() = default;
  // The main smbd's process id when it runs, else 0.
  virtual uint32_t running_pid() = 0;
  // Sessions and share connections now; read=false when they cannot be had.
  virtual platform::SambaStatus status() = 0;
  // Asks smbd to reread its configuration. false when the tool failed.
  virtual bool reload() = 0;
  // Ends the smbd process that serves a session (and so the session).
  virtual bool end_process(uint32_t pid) = 0;
  // Stops the server. false when the tool failed.
  virtual bool stop() = 0;
};

class SambaTools : public Samba {
 public:
  // tasks must outlive this object. Reads the pid directory from Samba's
  // configuration once (through testparm).
  SambaTools(platform::Tasks& tasks, Options options, LogFn log);

  uint32_t running_pid() override;
  platform::SambaStatus status() override;
  bool reload() override;
  bool end_process(uint32_t pid) override;
  bool stop() override;

  // Where smbd keeps its pid file.
  const std::string& pid_directory() const { return pid_directory_; }

 private:
  bool smbcontrol(const std::vector<std::string>& args);

  platform::Tasks& tasks_;
  Options options_;
  LogFn log_;
  std::string pid_directory_;
};

// The smbd pid recorded in pid_directory for the configuration smb_conf,
// when that process is alive and is an smbd; else 0. Reads files only.
uint32_t live_smbd_pid(const std::string& pid_directory, const std::string& smb_conf);

}  // namespace filerd
