// Reads the systemd journal as if it were a classic syslog text file: each
// entry becomes one line "Mmm dd hh:mm:ss host ident[pid]: message\n" in
// local time, and a window of that text is cut out by byte offset and
// amount, the way a log file is tailed. Only the entries a window needs are
// rendered: a window counted back from the end walks the journal backwards
// from its tail, so a large journal is never rendered whole.
//
// A JournalLog holds one open journal and is not safe to share between
// threads (sd-journal objects are not); open one per reader.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

struct sd_journal;

namespace platform {

// A window of the rendered journal.
struct JournalWindow {
  // Where the window starts: bytes from the start of the rendering, or,
  // when a window counted from the end did not reach the first entry (so the
  // absolute position is unknown without rendering everything), the
  // negative distance from the end.
  int64_t offset = 0;
  // The rendered bytes; at most the amount asked for.
  std::string bytes;
};

// The fields one line is made of, as the journal holds them. Missing
// fields are nullopt.
struct JournalEntry {
  uint64_t realtime_usec = 0;
  std::optional<std::string> hostname;    // _HOSTNAME
  std::optional<std::string> identifier;  // SYSLOG_IDENTIFIER, else _COMM
  std::optional<std::string> pid;         // SYSLOG_PID, else _PID
  std::optional<std::string> message;     // MESSAGE, any bytes
};

// The syslog line of entry, ending in '\n'. Never fails: a missing host is
// "-", a missing identifier leaves the tag out, a message holding NUL bytes
// reads "[N bytes of binary data]", a missing one "[no message]"; trailing
// newlines are dropped and other control characters (but tab) are written
// as '#' and three octal digits, so every entry stays one line. Bytes that
// are not UTF-8 are passed through for the reader to decode.
std::string render_journal_line(const JournalEntry& entry);

// True when text is a match the journal understands: "FIELD=value" with a
// field of upper-case letters, digits and '_' (not starting with a digit),
// or "+" for "or".
bool is_valid_journal_match(std::string_view text);

class JournalLog {
 public:
  ~JournalLog();
  JournalLog(const JournalLog&) = delete;
  JournalLog& operator=(const JournalLog&) = delete;

  // The machine's own system journal (local, system-wide files). Returns
  // nullptr with *error set when it cannot be opened.
  static std::unique_ptr<JournalLog> open_system(std::string* error);
  // Every journal file in the directory directory_fd refers to (and in its
  // machine-id subdirectories). Takes ownership of directory_fd, closing it
  // also on failure. Returns nullptr with *error set when it cannot be
  // opened.
  static std::unique_ptr<JournalLog> open_directory(int directory_fd, std::string* error);

  // True when at least one journal file was found to read; a machine
  // without a persistent or runtime journal opens as an empty one.
  bool has_files();

  // Restricts the entries to matches, applied in order: "FIELD=value"
  // terms on the same field are alternatives, terms on different fields
  // must all hold, "+" starts another alternative. No matches: every
  // entry. Returns false with *error set for a malformed match; the
  // restriction is then undefined and the log should be dropped.
  bool restrict_to(const std::vector<std::string>& matches, std::string* error);

  // At most amount bytes of the rendering from offset: offset >= 0 counts
  // from its start (clamped to its end), < 0 back from its end (clamped to
  // its start). REQUIRES: amount >= 0. A journal that cannot be read any
  // further ends the rendering there.
  JournalWindow read(int64_t offset, int64_t amount);

 private:
  JournalLog(sd_journal* journal, int directory_fd) : journal_(journal), directory_fd_(directory_fd) {}
  std::string current_line();
  JournalWindow read_forward(int64_t offset, int64_t amount);

  sd_journal* journal_;
  int directory_fd_;  // -1 for the system journal
};

}  // namespace platform
