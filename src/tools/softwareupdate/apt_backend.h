// The apt tools as the update tool uses them: refresh the lists, simulate
// an upgrade, read package records and policies, upgrade named packages.
// Every run gets the caller's "-o KEY=VALUE" options after our own (so
// they win) and never a shell: names travel as separate arguments after
// "--". Callers validate names first (is_valid_package_name). Each method
// returns "" on success or a one-line reason. Not thread-safe: one job at a
// time.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "platform/tasks.h"
#include "tools/softwareupdate/apt_output.h"

namespace softwareupdate {

class AptBackend {
 public:
  AptBackend(platform::Tasks& tasks, std::vector<std::string> extra_options);

  // apt-get update.
  std::string refresh_lists();
  // The upgrades a full upgrade would make (apt-get -s dist-upgrade).
  std::string pending_upgrades(std::vector<PendingUpgrade>* out);
  // The records of names at their candidate versions (apt-cache show).
  std::string records(const std::vector<std::string>& names, std::vector<PackageRecord>* out);
  // Installed and candidate versions of names (apt-cache policy).
  std::string policy(const std::vector<std::string>& names, std::map<std::string, PolicyEntry>* out);
  // apt-get install --only-upgrade of exactly names.
  std::string upgrade(const std::vector<std::string>& names);

 private:
  std::string run(const std::string& tool, std::vector<std::string> args, const std::vector<std::string>& names,
                  double timeout_seconds, std::string* out);

  platform::Tasks& tasks_;
  std::vector<std::string> extra_options_;
};

}  // namespace softwareupdate
