#include "filerd/samba.h"

#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <fstream>
#include <sstream>

namespace filerd {
namespace {

std::string read_small_file(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) return {};
  std::string text(64, '\0');
  in.read(text.data(), std::streamsize(text.size()));
  text.resize(size_t(in.gcount()));
  return text;
}

uint32_t pid_in(const std::string& text) {
  size_t start = text.find_first_not_of(" \t\n");
  if (start == std::string::npos) return 0;
  uint32_t pid = 0;
  auto [end, ec] = std::from_chars(text.data() + start, text.data() + text.size(), pid);
  if (ec != std::errc() || pid == 0) return 0;
  return pid;
}

// A pid file may outlive its smbd and the number be reused, so the process
// must also be called smbd.
bool is_live_smbd(uint32_t pid) {
  if (pid == 0) return false;
  std::string comm = read_small_file("/proc/" + std::to_string(pid) + "/comm");
  return comm.rfind("smbd", 0) == 0 || comm.rfind("smbd[", 0) == 0;
}

// Hands the status reader our smbstatus when the configuration names
// another one than the installed tool.
class StatusToolMap : public platform::Tasks {
 public:
  StatusToolMap(platform::Tasks& inner, std::string smbstatus) : inner_(inner), smbstatus_(std::move(smbstatus)) {}
  platform::TaskResult run(const std::string& path, const std::vector<std::string>& args, const std::string& input,
                           double timeout_seconds) override {
    const std::string& tool = path == platform::kSambaStatusTool ? smbstatus_ : path;
    return inner_.run(tool, args, input, timeout_seconds);
  }
  std::optional<int> spawn_detached(const std::string& path, const std::vector<std::string>& args) override {
    return inner_.spawn_detached(path, args);
  }
  platform::DetachedLaunch launch_detached(const std::string& path, const std::vector<std::string>& argv) override {
    return inner_.launch_detached(path, argv);
  }
  bool has_tool(const std::string& path) override { return inner_.has_tool(path); }

 private:
  platform::Tasks& inner_;
  std::string smbstatus_;
};

}  // namespace

uint32_t live_smbd_pid(const std::string& pid_directory, const std::string& smb_conf) {
  std::string base = smb_conf.substr(smb_conf.find_last_of('/') + 1);
  // smbd names its pid file after a configuration that is not the default.
  for (const std::string& name : {std::string("smbd.pid"), "smbd-" + base + ".pid"}) {
    uint32_t pid = pid_in(read_small_file(pid_directory + "/" + name));
    if (is_live_smbd(pid)) return pid;
  }
  return 0;
}

SambaTools::SambaTools(platform::Tasks& tasks, Options options, LogFn log)
    : tasks_(tasks), options_(std::move(options)), log_(std::move(log)), pid_directory_("/run/samba") {
  platform::TaskResult result =
      tasks_.run(options_.testparm, {"testparm", "-s", "--parameter-name=pid directory", options_.smb_conf}, {},
                 options_.tool_timeout_seconds);
  std::string value = result.out.substr(0, result.out.find('\n'));
  if (result.launched && result.exit_status == 0 && !value.empty() && value.front() == '/') {
    pid_directory_ = value;
  } else {
    log_("cannot read the pid directory from " + options_.smb_conf + "; assuming " + pid_directory_);
  }
}

uint32_t SambaTools::running_pid() { return live_smbd_pid(pid_directory_, options_.smb_conf); }

platform::SambaStatus SambaTools::status() {
  StatusToolMap tools(tasks_, options_.smbstatus);
  return platform::read_samba_status(tools, {"-s", options_.smb_conf}, options_.tool_timeout_seconds);
}

bool SambaTools::smbcontrol(const std::vector<std::string>& args) {
  std::vector<std::string> argv = {"smbcontrol", "-s", options_.smb_conf};
  argv.insert(argv.end(), args.begin(), args.end());
  platform::TaskResult result = tasks_.run(options_.smbcontrol, argv, {}, options_.tool_timeout_seconds);
  if (result.launched && result.exit_status == 0 && !result.timed_out) return true;
  std::string why = !result.launched   ? "could not be run"
                    : result.timed_out ? "timed out"
                                       : "exited with status " + std::to_string(result.exit_status);
  std::string said = result.err.substr(0, 200);
  while (!said.empty() && said.back() == '\n') said.pop_back();
  log_("smbcontrol " + args.front() + " " + args.back() + " " + why + (said.empty() ? "" : ": " + said));
  return false;
}

bool SambaTools::reload() { return smbcontrol({"smbd", "reload-config"}); }

bool SambaTools::end_process(uint32_t pid) {
  if (pid == 0) return false;
  return smbcontrol({std::to_string(pid), "shutdown"});
}

bool SambaTools::stop() {
  // The system's smbd belongs to its unit: stopping it behind systemd's back
  // would leave the unit failed (or restarted). Any other smbd, such as one
  // a test started on its own configuration, is ours to tell directly.
  struct stat st;
  bool systemd_runs = ::stat("/run/systemd/system", &st) == 0;
  if (systemd_runs && options_.smb_conf == kDefaultSambaConfig && !options_.samba_unit.empty()) {
    platform::TaskResult result =
        tasks_.run(options_.systemctl, {"systemctl", "stop", "--no-block", options_.samba_unit}, {},
                   options_.tool_timeout_seconds);
    if (result.launched && result.exit_status == 0) return true;
    log_("systemctl stop " + options_.samba_unit + " failed");
    return false;
  }
  return smbcontrol({"smbd", "shutdown"});
}

}  // namespace filerd
