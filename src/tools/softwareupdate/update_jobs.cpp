// Jobs always end with the status file in a finished phase ("DONE" or
// "UPTODATE"), failures included: the module reads any other phase with a
// dead pid as a crash and keeps reporting it until the file goes away.
#include "tools/softwareupdate/update_jobs.h"

#include <sys/stat.h>

#include <map>
#include <optional>

#include "tools/softwareupdate/apt_backend.h"
#include "tools/softwareupdate/package_names.h"
#include "tools/softwareupdate/status_report.h"

namespace softwareupdate {
namespace {

struct Candidate {
  std::string version;
  uint64_t size_in_kb = 0;
  std::string summary;
};

// The record of name at version, or the first record of name when apt
// showed another version.
std::optional<Candidate> find_candidate(const std::vector<PackageRecord>& records, const std::string& name,
                                        const std::string& version) {
  std::string_view bare = bare_package_name(name);
  const PackageRecord* best = nullptr;
  for (const PackageRecord& r : records) {
    if (r.name != bare) continue;
    if (r.version == version) {
      best = &r;
      break;
    }
    if (best == nullptr) best = &r;
  }
  if (best == nullptr) return std::nullopt;
  uint64_t size = best->size.value_or(0);
  return Candidate{best->version, size / 1024 + (size % 1024 != 0 ? 1 : 0), best->summary};
}

plist::Dict make_entry(const std::string& name, const std::string& version, const std::optional<Candidate>& c,
                       bool ignored, const char* phase) {
  plist::Dict e;
  e.set("identifier", name);
  e.set("name", std::string(bare_package_name(name)));
  e.set("version", version);
  e.set("sizeInKB", c ? c->size_in_kb : uint64_t{0});
  e.set("restartRequired", usually_needs_restart(name));
  e.set("ignored", ignored);
  if (phase != nullptr) e.set("phase", phase);
  if (c && !c->summary.empty()) e.set("description", c->summary);
  return e;
}

bool file_exists(const std::string& path) {
  struct stat st;
  return ::stat(path.c_str(), &st) == 0;
}

class Job {
 public:
  Job(const Options& options, platform::Tasks& tasks, int pid, std::ostream& out, std::ostream& err)
      : options_(options), apt_(tasks, options.apt_options), report_(options.status_file, pid), out_(out), err_(err) {}

  int scan();
  int install();
  int ignore();
  int reset_ignored();

 private:
  void progress(const std::string& line) {
    if (!options_.quiet) out_ << line << "\n" << std::flush;
  }
  // Keeps the first failure; the job goes on where it still can.
  void note(const std::string& error) {
    if (!error.empty() && error_.empty()) error_ = error;
  }
  // Publishes the report; a status file we cannot write ends the job.
  bool publish() {
    std::string error = report_.publish();
    if (error.empty()) return true;
    note(error);
    return false;
  }
  int finish() {
    if (error_.empty()) return 0;
    err_ << "softwareupdate: " << error_ << "\n";
    return 1;
  }

  const Options& options_;
  AptBackend apt_;
  StatusReport report_;
  std::ostream& out_;
  std::ostream& err_;
  std::string error_;
};

int Job::scan() {
  report_.set_phase(kPhaseRefreshingCatalog);
  if (!publish()) return finish();
  progress("Refreshing the package lists...");
  // Stale lists still give a useful answer, so a failed refresh (one
  // unreachable mirror, say) is reported but does not stop the scan.
  note(apt_.refresh_lists());

  report_.set_phase(kPhaseScanning);
  if (!publish()) return finish();
  progress("Looking for upgradable packages...");
  std::vector<PendingUpgrade> upgrades;
  std::string simulate_error = apt_.pending_upgrades(&upgrades);
  note(simulate_error);
  if (simulate_error.empty()) {
    std::vector<std::string> names;
    for (const PendingUpgrade& u : upgrades) names.push_back(u.name);
    std::vector<PackageRecord> records;
    note(apt_.records(names, &records));
    IgnoreList ignored = load_ignore_list(options_.ignore_file);
    note(ignored.error);
    report_.results() = describe_upgrades(upgrades, records, ignored);
  }
  if (!error_.empty()) report_.set("error", error_);
  report_.set_phase(report_.results().empty() && simulate_error.empty() ? kPhaseUpToDate : kPhaseDone);
  publish();

  if (report_.results().empty()) progress("No updates available.");
  for (const plist::Value& v : report_.results()) {
    const plist::Dict& e = *v.as_dict();
    std::string line = "  " + *e.find_string("identifier") + " " + *e.find_string("version") + " (" +
                       std::to_string(*e.find("sizeInKB")->to_uint64()) + " KiB)";
    if (e.find("restartRequired")->number_is_true()) line += " [restart]";
    if (e.find("ignored")->number_is_true()) line += " [ignored]";
    progress(line);
  }
  return finish();
}

int Job::install() {
  const std::vector<std::string>& names = options_.names;
  report_.set_phase(kPhaseInstalling);
  IgnoreList ignored = load_ignore_list(options_.ignore_file);
  std::map<std::string, PolicyEntry> before;
  note(apt_.policy(names, &before));
  // Records only add sizes and descriptions; a package apt does not know
  // shows in the policy, so their failure is not the job's.
  std::vector<PackageRecord> records;
  apt_.records(names, &records);

  std::vector<std::string> to_upgrade;
  std::vector<std::string> targets;
  for (const std::string& name : names) {
    auto it = before.find(name);
    const PolicyEntry* p = it == before.end() ? nullptr : &it->second;
    const char* phase = kEntryPending;
    if (p == nullptr || p->candidate.empty() || p->candidate == "(none)") {
      phase = kEntryNotFound;
    } else if (p->installed.empty() || p->installed == "(none)") {
      phase = kEntryNotInstalled;
    } else if (p->installed == p->candidate) {
      phase = kEntryDone;
    } else {
      to_upgrade.push_back(name);
    }
    std::string target = p ? p->candidate : "";
    targets.push_back(target);
    report_.results().emplace_back(
        make_entry(name, target, find_candidate(records, name, target), ignored.contains(name), phase));
  }
  if (!publish()) return finish();

  if (!to_upgrade.empty()) {
    progress("Installing " + std::to_string(to_upgrade.size()) + " package(s)...");
    note(apt_.upgrade(to_upgrade));
  }
  std::map<std::string, PolicyEntry> after;
  note(apt_.policy(to_upgrade, &after));
  for (size_t i = 0; i < names.size(); ++i) {
    plist::Dict& e = *report_.results()[i].as_dict();
    const std::string* phase = e.find_string("phase");
    if (*phase == kEntryPending) {
      auto it = after.find(names[i]);
      bool installed = it != after.end() && it->second.installed == targets[i];
      e.set("phase", installed ? kEntryDone : kEntryFailed);
    }
    phase = e.find_string("phase");
    progress("  " + names[i] + ": " + *phase);
    if (*phase != kEntryDone) note(names[i] + ": " + *phase);
  }
  report_.set("restartRequired", file_exists(options_.reboot_required_file));
  if (!error_.empty()) report_.set("error", error_);
  report_.set_phase(kPhaseDone);
  publish();
  return finish();
}

int Job::ignore() {
  IgnoreList list = load_ignore_list(options_.ignore_file);
  // An unreadable list holds nothing we could keep; it is replaced.
  list.error.clear();
  add_ignored(list, options_.names);
  note(save_ignore_list(options_.ignore_file, list));
  return finish();
}

int Job::reset_ignored() {
  note(save_ignore_list(options_.ignore_file, IgnoreList{}));
  return finish();
}

}  // namespace

plist::Array describe_upgrades(const std::vector<PendingUpgrade>& upgrades, const std::vector<PackageRecord>& records,
                               const IgnoreList& ignored) {
  plist::Array entries;
  for (const PendingUpgrade& u : upgrades) {
    entries.emplace_back(make_entry(u.name, u.candidate_version, find_candidate(records, u.name, u.candidate_version),
                                    ignored.contains(u.name), nullptr));
  }
  return entries;
}

int run_job(const Options& options, platform::Tasks& tasks, int pid, std::ostream& out, std::ostream& err) {
  for (const std::string& name : options.names) {
    if (!is_valid_package_name(name)) {
      err << "softwareupdate: not a package name: " << name << "\n";
      return 2;
    }
  }
  Job job(options, tasks, pid, out, err);
  switch (options.mode) {
    case Mode::kScan:
      return job.scan();
    case Mode::kInstall:
      return job.install();
    case Mode::kIgnore:
      return job.ignore();
    case Mode::kResetIgnored:
      return job.reset_ignored();
    case Mode::kHelp:
      out << usage_text();
      return 0;
  }
  return 2;
}

}  // namespace softwareupdate
