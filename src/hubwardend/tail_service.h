// The tail service behind "tailFile": reads a window of one of the system
// logs the module names in its log path table. Only identifiers of that
// table are served, so a client cannot read arbitrary files. Each log is
// looked for where the host configuration says (log_sources.h): the first
// of its candidate files present under the platform root, else the systemd
// journal rendered as syslog text. Files are opened so that no link leads
// out of the root (log_file.h). Reads are bounded (kMaxTailAmount) whatever
// the request asks for. Safe from several threads.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "hubwardend/log_sources.h"
#include "platform/host_services.h"

namespace hubwardend {

inline constexpr ErrorName kUnknownLogIdentifierErr = "UNKNOWN_LOG_IDENTIFIER_ERR";
inline constexpr ErrorName kLogFileNotFoundErr = "LOG_FILE_NOT_FOUND_ERR";
inline constexpr int64_t kMaxTailAmount = 1 << 20;
// Where a sandbox root keeps its journal; the machine's own is read only at
// the real root.
inline constexpr const char kSandboxJournalDirectory[] = "/var/log/journal";

// bytes as UTF-8, every invalid sequence replaced by U+FFFD (one per
// maximal invalid subpart).
std::string decode_utf8_lossy(std::string_view bytes);

// A window of a log: where it starts and the raw bytes in it.
struct TailWindow {
  int64_t offset = 0;
  std::string bytes;
};

class FileTailService : public platform::TailService {
 public:
  // With the shipped log sources (default_log_sources()).
  FileTailService();
  explicit FileTailService(LogSources sources);

  // identifier: looked up in log_paths (a dictionary from identifier to
  // absolute path); unknown identifiers give kUnknownLogIdentifierErr and
  // nothing is opened. An identifier without a configured source is read
  // from the table's path alone. When no candidate file is present and
  // there is no journal to fall back on, or the first file present may not
  // be read (a link leading out of the root, not a regular file, at the
  // real root not owned by root or the log group), kLogFileNotFoundErr.
  //
  // *offset: >= 0 counts from the start of the log, < 0 back from its end;
  // clamped to the log. *amount: clamped to [0, kMaxTailAmount] and to
  // what the log holds from the offset. Reals are truncated; values beyond
  // 64 bits saturate. A journal is measured in the bytes of its rendering.
  //
  // On success *path is the file read, as the client knows paths (without
  // the root), or the table's path when the journal answered; *offset and
  // *amount are the integers actually used and *contents the text read.
  // One exception: a window counted back from the end of a journal that
  // does not reach its first entry comes back with its offset still
  // counted from the end (negative), since its distance from the start is
  // only known by rendering the whole journal.
  ErrorName tail(const std::string& identifier, const plist::Dict& log_paths, std::optional<std::string>* path,
                 plist::Value* offset, plist::Value* amount, std::optional<std::string>* contents, plist::Dict* context,
                 const plist::Dict& request) override;

 private:
  enum class FileRead {
    kRead,     // *window and *read_path are set
    kNone,     // no candidate is present
    kRefused,  // the first one present may not be read (logged)
  };
  FileRead read_first_file(const std::vector<std::string>& files, int64_t offset, int64_t amount, TailWindow* window,
                           std::string* read_path) const;
  // False when there is no journal or it cannot be opened.
  bool read_journal(const std::vector<std::string>& matches, int64_t offset, int64_t amount, TailWindow* window) const;

  const LogSources sources_;
  const gid_t log_group_;
};

}  // namespace hubwardend
