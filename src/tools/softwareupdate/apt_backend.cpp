// We drive the apt command-line tools rather than libapt-pkg: their
// output under LANG=C is stable enough for the few fields we read, and a
// crash or a lock held by another apt stays in the child process.
//
// The upgradable packages come from a simulated "dist-upgrade" rather than
// "apt list --upgradable": apt-get's simulation output is meant for
// scripts (apt warns that its own CLI is not), it honours the
// administrator's holds, and it lists only what would really change.
#include "tools/softwareupdate/apt_backend.h"

namespace softwareupdate {
namespace {

constexpr char kAptGet[] = "/usr/bin/apt-get";
constexpr char kAptCache[] = "/usr/bin/apt-cache";

// Refreshing and simulating only read the network and the lists; an hour
// is far beyond any healthy mirror. An install is never cut short: killing
// dpkg half way leaves the system worse than a slow upgrade.
constexpr double kReadTimeoutSeconds = 3600;
constexpr double kNoTimeout = 0;

}  // namespace

AptBackend::AptBackend(platform::Tasks& tasks, std::vector<std::string> extra_options)
    : tasks_(tasks), extra_options_(std::move(extra_options)) {}

std::string AptBackend::run(const std::string& tool, std::vector<std::string> args,
                            const std::vector<std::string>& names, double timeout_seconds, std::string* out) {
  std::string program = tool.substr(tool.rfind('/') + 1);
  std::string command = program + " " + args.at(0);
  args.insert(args.begin(), program);
  for (const std::string& kv : extra_options_) {
    args.push_back("-o");
    args.push_back(kv);
  }
  if (!names.empty()) {
    args.push_back("--");
    args.insert(args.end(), names.begin(), names.end());
  }
  platform::TaskResult r = tasks_.run(tool, args, {}, timeout_seconds);
  if (out != nullptr) *out = std::move(r.out);
  if (!r.launched) return "cannot run " + tool;
  if (r.timed_out) return command + " did not finish in time";
  if (r.exit_status != 0) {
    std::string reason = first_apt_error(r.err);
    if (reason.empty()) reason = "exit status " + std::to_string(r.exit_status);
    return command + " failed: " + reason;
  }
  return "";
}

std::string AptBackend::refresh_lists() { return run(kAptGet, {"update", "-q"}, {}, kReadTimeoutSeconds, nullptr); }

std::string AptBackend::pending_upgrades(std::vector<PendingUpgrade>* out) {
  std::string text;
  std::string error =
      run(kAptGet, {"dist-upgrade", "-s", "-q", "-o", "Debug::NoLocking=1"}, {}, kReadTimeoutSeconds, &text);
  *out = parse_simulated_upgrade(text);
  return error;
}

std::string AptBackend::records(const std::vector<std::string>& names, std::vector<PackageRecord>* out) {
  out->clear();
  if (names.empty()) return "";
  std::string text;
  std::string error = run(kAptCache, {"show", "--no-all-versions", "-q", "-o", "Debug::NoLocking=1"}, names,
                          kReadTimeoutSeconds, &text);
  *out = parse_package_records(text);
  return error;
}

std::string AptBackend::policy(const std::vector<std::string>& names, std::map<std::string, PolicyEntry>* out) {
  out->clear();
  if (names.empty()) return "";
  std::string text;
  std::string error = run(kAptCache, {"policy", "-q", "-o", "Debug::NoLocking=1"}, names, kReadTimeoutSeconds, &text);
  *out = parse_policy(text);
  return error;
}

std::string AptBackend::upgrade(const std::vector<std::string>& names) {
  // Never prompt: keep locally changed configuration files (the
  // administrator's edits win), wait for another apt's lock instead of
  // failing at once.
  return run(kAptGet,
             {"install", "--only-upgrade", "-y", "-q", "-o", "Dpkg::Options::=--force-confdef", "-o",
              "Dpkg::Options::=--force-confold", "-o", "DPkg::Lock::Timeout=300"},
             names, kNoTimeout, nullptr);
}

}  // namespace softwareupdate
