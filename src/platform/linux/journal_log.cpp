// The journal rendered as syslog text, windowed like a file.
#include "platform/linux/journal_log.h"

#include <systemd/sd-journal.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <limits>

namespace platform {
namespace {

constexpr const char* kMonths[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun", "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};

// "Mmm dd hh:mm:ss" in local time, the day padded with a space.
void append_timestamp(std::string& out, uint64_t realtime_usec) {
  time_t seconds = static_cast<time_t>(realtime_usec / 1000000);
  struct tm tm;
  if (::localtime_r(&seconds, &tm) == nullptr) {
    out.append("Jan  1 00:00:00");
    return;
  }
  char text[32];
  std::snprintf(text, sizeof text, "%s %2d %02d:%02d:%02d", kMonths[tm.tm_mon % 12], tm.tm_mday, tm.tm_hour, tm.tm_min,
                tm.tm_sec);
  out.append(text);
}

// Control characters would split or garble the one-line-per-entry layout.
void append_escaped(std::string& out, std::string_view text) {
  for (char c : text) {
    unsigned char byte = static_cast<unsigned char>(c);
    if ((byte < 0x20 && c != '\t') || byte == 0x7F) {
      char escape[8];
      std::snprintf(escape, sizeof escape, "#%03o", byte);
      out.append(escape);
    } else {
      out.push_back(c);
    }
  }
}

// The value of field in the current entry, or nullopt when it is absent.
std::optional<std::string> field(sd_journal* journal, const char* name) {
  const void* data;
  size_t length;
  if (sd_journal_get_data(journal, name, &data, &length) < 0) return std::nullopt;
  // The journal hands back "NAME=value".
  size_t prefix = std::strlen(name) + 1;
  if (length < prefix) return std::string();
  return std::string(static_cast<const char*>(data) + prefix, length - prefix);
}

std::optional<std::string> first_field(sd_journal* journal, const char* name, const char* fallback) {
  std::optional<std::string> value = field(journal, name);
  if (!value || value->empty()) value = field(journal, fallback);
  return value;
}

}  // namespace

std::string render_journal_line(const JournalEntry& entry) {
  std::string line;
  append_timestamp(line, entry.realtime_usec);
  line.push_back(' ');
  if (entry.hostname && !entry.hostname->empty())
    append_escaped(line, *entry.hostname);
  else
    line.push_back('-');
  if (entry.identifier && !entry.identifier->empty()) {
    line.push_back(' ');
    append_escaped(line, *entry.identifier);
    if (entry.pid && !entry.pid->empty()) {
      line.push_back('[');
      append_escaped(line, *entry.pid);
      line.push_back(']');
    }
  }
  line.append(": ");
  if (!entry.message) {
    line.append("[no message]");
  } else if (entry.message->find('\0') != std::string::npos) {
    line.append("[" + std::to_string(entry.message->size()) + " bytes of binary data]");
  } else {
    std::string_view text = *entry.message;
    while (!text.empty() && text.back() == '\n') text.remove_suffix(1);
    append_escaped(line, text);
  }
  line.push_back('\n');
  return line;
}

bool is_valid_journal_match(std::string_view text) {
  if (text == "+") return true;
  size_t equals = text.find('=');
  if (equals == 0 || equals == std::string_view::npos) return false;
  std::string_view name = text.substr(0, equals);
  if (name.front() >= '0' && name.front() <= '9') return false;
  return std::all_of(name.begin(), name.end(),
                     [](char c) { return (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_'; });
}

JournalLog::~JournalLog() {
  sd_journal_close(journal_);
  // sd-journal does not own the directory descriptor it was opened on.
  if (directory_fd_ >= 0) ::close(directory_fd_);
}

std::unique_ptr<JournalLog> JournalLog::open_system(std::string* error) {
  sd_journal* journal = nullptr;
  int r = sd_journal_open(&journal, SD_JOURNAL_LOCAL_ONLY | SD_JOURNAL_SYSTEM);
  if (r < 0) {
    *error = std::string("cannot open the system journal: ") + std::strerror(-r);
    return nullptr;
  }
  return std::unique_ptr<JournalLog>(new JournalLog(journal, -1));
}

std::unique_ptr<JournalLog> JournalLog::open_directory(int directory_fd, std::string* error) {
  sd_journal* journal = nullptr;
  int r = sd_journal_open_directory_fd(&journal, directory_fd, 0);
  if (r < 0) {
    ::close(directory_fd);
    *error = std::string("cannot open the journal directory: ") + std::strerror(-r);
    return nullptr;
  }
  return std::unique_ptr<JournalLog>(new JournalLog(journal, directory_fd));
}

bool JournalLog::has_files() {
  uint64_t bytes = 0;
  return sd_journal_get_usage(journal_, &bytes) >= 0 && bytes > 0;
}

bool JournalLog::restrict_to(const std::vector<std::string>& matches, std::string* error) {
  sd_journal_flush_matches(journal_);
  for (const std::string& match : matches) {
    if (!is_valid_journal_match(match)) {
      *error = "not a journal match: \"" + match + "\"";
      return false;
    }
    int r = match == "+" ? sd_journal_add_disjunction(journal_)
                         : sd_journal_add_match(journal_, match.data(), match.size());
    if (r < 0) {
      *error = "journal refused match \"" + match + "\": " + std::strerror(-r);
      return false;
    }
  }
  return true;
}

std::string JournalLog::current_line() {
  JournalEntry entry;
  if (sd_journal_get_realtime_usec(journal_, &entry.realtime_usec) < 0) entry.realtime_usec = 0;
  entry.hostname = field(journal_, "_HOSTNAME");
  entry.identifier = first_field(journal_, "SYSLOG_IDENTIFIER", "_COMM");
  entry.pid = first_field(journal_, "SYSLOG_PID", "_PID");
  entry.message = field(journal_, "MESSAGE");
  return render_journal_line(entry);
}

JournalWindow JournalLog::read_forward(int64_t offset, int64_t amount) {
  JournalWindow window;
  int64_t position = 0;  // bytes rendered before the current entry
  sd_journal_seek_head(journal_);
  while (sd_journal_next(journal_) > 0) {
    std::string line = current_line();
    const int64_t length = static_cast<int64_t>(line.size());
    if (position + length <= offset) {
      position += length;
      continue;
    }
    const int64_t skip = std::max<int64_t>(0, offset - position);
    const int64_t room = amount - static_cast<int64_t>(window.bytes.size());
    window.bytes.append(line, static_cast<size_t>(skip), static_cast<size_t>(std::min(room, length - skip)));
    position += length;
    if (static_cast<int64_t>(window.bytes.size()) >= amount) break;
  }
  window.offset = std::min(offset, position);
  return window;
}

JournalWindow JournalLog::read(int64_t offset, int64_t amount) {
  // Data fields come whole: the default cut at 64 KiB would misreport the
  // size of a large binary message.
  sd_journal_set_data_threshold(journal_, 0);
  if (offset >= 0) return read_forward(offset, amount);

  // Counted from the end: a byte lies at distance d when d bytes, itself
  // included, follow from it to the end. The window holds the distances
  // (distance - amount, distance]; nearer ones are counted, not kept.
  const int64_t distance =
      offset == std::numeric_limits<int64_t>::min() ? std::numeric_limits<int64_t>::max() : -offset;
  const int64_t nearest_kept = distance - amount;
  std::vector<std::string> pieces;  // newest first
  int64_t walked = 0;
  sd_journal_seek_tail(journal_);
  bool at_head = false;
  while (sd_journal_previous(journal_) > 0) {
    std::string line = current_line();
    const int64_t length = static_cast<int64_t>(line.size());
    // This line covers distances (walked, walked + length]; byte i of it
    // lies at distance walked + length - i.
    const int64_t far = std::min(walked + length, distance);
    const int64_t near = std::max(walked, nearest_kept);
    if (far > near) {
      const int64_t begin = walked + length - far;
      pieces.push_back(line.substr(static_cast<size_t>(begin), static_cast<size_t>(far - near)));
    }
    walked += length;
    if (walked >= distance) {
      at_head = sd_journal_previous(journal_) <= 0;
      break;
    }
  }
  // Running out of entries clamps the window to the start; ending the walk
  // on the first entry makes the start a known position.
  if (walked < distance) return read_forward(0, amount);
  JournalWindow window;
  window.offset = at_head ? walked - distance : -distance;
  for (auto it = pieces.rbegin(); it != pieces.rend(); ++it) window.bytes.append(*it);
  return window;
}

}  // namespace platform
