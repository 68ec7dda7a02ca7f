// The status property list through which a scan or an install reports its
// progress to the administration module. Every publish() replaces the whole
// file atomically; the top-level keys keep the order "pid", "phase",
// "phaseResultsArray", then whatever else was set. Not thread-safe.
#pragma once

#include <string>

#include "plist/value.h"

namespace softwareupdate {

// Phases of the whole job. The module treats "DONE" and "UPTODATE" as
// finished and anything else as still running (or crashed, once our pid is
// gone), so every job ends in one of those two, even after a failure.
inline constexpr char kPhaseRefreshingCatalog[] = "DOWNLOADING_CATALOG";
inline constexpr char kPhaseScanning[] = "SCANNING";
inline constexpr char kPhaseInstalling[] = "INSTALLING";
inline constexpr char kPhaseDone[] = "DONE";
inline constexpr char kPhaseUpToDate[] = "UPTODATE";

// Phases of one entry of an install.
inline constexpr char kEntryPending[] = "PENDING";
inline constexpr char kEntryDone[] = "DONE";
inline constexpr char kEntryFailed[] = "FAILED";
inline constexpr char kEntryNotInstalled[] = "NOT_INSTALLED";
inline constexpr char kEntryNotFound[] = "NOT_FOUND";

class StatusReport {
 public:
  // path "" keeps the report in memory only (no -f given); pid is written
  // as "pid".
  StatusReport(std::string path, int pid);

  void set_phase(std::string phase) { phase_ = std::move(phase); }
  plist::Array& results() { return results_; }
  // Sets a further top-level key, after the three fixed ones.
  void set(std::string_view key, plist::Value value) { extra_.set(key, std::move(value)); }

  // The dictionary as it would be written.
  plist::Dict to_dict() const;
  // Writes the file; "" on success, else a one-line reason.
  std::string publish() const;

 private:
  std::string path_;
  int pid_;
  std::string phase_;
  plist::Array results_;
  plist::Dict extra_;
};

}  // namespace softwareupdate
