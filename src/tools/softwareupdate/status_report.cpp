// The report is rebuilt from its parts on every publish so that the fixed
// keys always come first, whatever order the job set things in.
#include "tools/softwareupdate/status_report.h"

#include "plist/codec.h"
#include "tools/softwareupdate/atomic_file.h"

namespace softwareupdate {

StatusReport::StatusReport(std::string path, int pid) : path_(std::move(path)), pid_(pid) {}

plist::Dict StatusReport::to_dict() const {
  plist::Dict d;
  d.set("pid", pid_);
  d.set("phase", phase_);
  d.set("phaseResultsArray", results_);
  for (const auto& [key, value] : extra_) d.set(key, value);
  return d;
}

std::string StatusReport::publish() const {
  if (path_.empty()) return "";
  return replace_file_atomically(path_, plist::write_xml(to_dict()));
}

}  // namespace softwareupdate
