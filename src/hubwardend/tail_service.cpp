// Bounded reads of the system logs named by identifier, from their files
// or from the journal.
#include "hubwardend/tail_service.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <limits>

#include "hubwardend/log_file.h"
#include "platform/linux/journal_log.h"
#include "platform/log.h"
#include "platform/paths.h"
#include "platform/registry.h"

namespace hubwardend {
namespace {

// A request number as a 64-bit signed integer: unsigned values beyond the
// signed range saturate rather than wrap to negative; anything that is not
// a number counts as 0.
int64_t request_integer(const plist::Value* v) {
  if (!v) return 0;
  if (const uint64_t* u = v->as_unsigned())
    return *u > static_cast<uint64_t>(std::numeric_limits<int64_t>::max()) ? std::numeric_limits<int64_t>::max()
                                                                           : static_cast<int64_t>(*u);
  return v->to_int64().value_or(0);
}

// At most amount bytes of the regular file fd from offset (>= 0: from its
// start, < 0: back from its end), both clamped to the file.
TailWindow read_file_window(int fd, int64_t offset, int64_t amount) {
  TailWindow window;
  struct stat st;
  const int64_t size = ::fstat(fd, &st) == 0 ? static_cast<int64_t>(st.st_size) : 0;
  int64_t start;
  if (offset >= 0)
    start = std::min(offset, size);
  else
    start = offset <= -size ? 0 : size + offset;  // -size cannot overflow: size >= 0
  window.offset = start;
  window.bytes.resize(static_cast<size_t>(std::min(amount, size - start)));
  size_t got = 0;
  while (got < window.bytes.size()) {
    ssize_t n = ::pread(fd, window.bytes.data() + got, window.bytes.size() - got,
                        static_cast<off_t>(start) + static_cast<off_t>(got));
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;  // the file shrank under us, or a read error: keep what we have
    got += static_cast<size_t>(n);
  }
  window.bytes.resize(got);
  return window;
}

void append_replacement(std::string& out) { out.append("\xEF\xBF\xBD"); }

// The length of the valid UTF-8 sequence at s[i], or 0 when it is invalid;
// *consumed is how many bytes make up the maximal invalid subpart then.
size_t valid_sequence_length(std::string_view s, size_t i, size_t* consumed) {
  const auto byte = [&](size_t k) { return static_cast<unsigned char>(s[k]); };
  unsigned char b0 = byte(i);
  size_t need;
  unsigned char lo = 0x80, hi = 0xBF;  // allowed range of the second byte
  if (b0 < 0x80) return 1;
  if (b0 >= 0xC2 && b0 <= 0xDF) {
    need = 2;
  } else if (b0 >= 0xE0 && b0 <= 0xEF) {
    need = 3;
    if (b0 == 0xE0) lo = 0xA0;  // overlong
    if (b0 == 0xED) hi = 0x9F;  // surrogates
  } else if (b0 >= 0xF0 && b0 <= 0xF4) {
    need = 4;
    if (b0 == 0xF0) lo = 0x90;  // overlong
    if (b0 == 0xF4) hi = 0x8F;  // beyond U+10FFFF
  } else {
    *consumed = 1;
    return 0;
  }
  size_t k = 1;
  for (; k < need && i + k < s.size(); ++k) {
    unsigned char b = byte(i + k);
    unsigned char low = k == 1 ? lo : 0x80, high = k == 1 ? hi : 0xBF;
    if (b < low || b > high) break;
  }
  if (k == need) return need;
  *consumed = k;
  return 0;
}

}  // namespace

std::string decode_utf8_lossy(std::string_view bytes) {
  std::string out;
  out.reserve(bytes.size());
  size_t i = 0;
  while (i < bytes.size()) {
    size_t consumed = 1;
    size_t n = valid_sequence_length(bytes, i, &consumed);
    if (n > 0) {
      out.append(bytes.substr(i, n));
      i += n;
    } else {
      append_replacement(out);
      i += consumed;
    }
  }
  return out;
}

FileTailService::FileTailService() : FileTailService(default_log_sources()) {}

FileTailService::FileTailService(LogSources sources) : sources_(std::move(sources)), log_group_(log_group_id()) {}

ErrorName FileTailService::tail(const std::string& identifier, const plist::Dict& log_paths,
                                std::optional<std::string>* path, plist::Value* offset, plist::Value* amount,
                                std::optional<std::string>* contents, plist::Dict*, const plist::Dict&) {
  const std::string* table_path = log_paths.find_string(identifier);
  if (!table_path || table_path->empty() || table_path->front() != '/') return kUnknownLogIdentifierErr;

  // A log the configuration does not know is looked for where the module's
  // table says it is, and nowhere else.
  auto known = sources_.find(identifier);
  const LogSource source = known != sources_.end() ? known->second : LogSource{{*table_path}, std::nullopt};

  const int64_t wanted_offset = request_integer(offset);
  const int64_t wanted_amount = std::clamp<int64_t>(request_integer(amount), 0, kMaxTailAmount);
  TailWindow window;
  std::string read_path;
  const FileRead file = read_first_file(source.files, wanted_offset, wanted_amount, &window, &read_path);
  if (file == FileRead::kRefused) return kLogFileNotFoundErr;
  if (file == FileRead::kNone) {
    if (!source.journal || !read_journal(*source.journal, wanted_offset, wanted_amount, &window))
      return kLogFileNotFoundErr;
    // The journal has no file name of its own; the console keeps the name
    // it asked for.
    read_path = *table_path;
  }

  *path = read_path;
  *offset = plist::Value(window.offset);
  *amount = plist::Value(static_cast<int64_t>(window.bytes.size()));
  *contents = decode_utf8_lossy(window.bytes);
  return nullptr;
}

FileTailService::FileRead FileTailService::read_first_file(const std::vector<std::string>& files, int64_t offset,
                                                           int64_t amount, TailWindow* window,
                                                           std::string* read_path) const {
  for (const std::string& file : files) {
    LogFileOpen opened = open_log_file(file, log_group_);
    if (opened.outcome == LogFileOpen::kMissing) continue;
    if (opened.outcome == LogFileOpen::kRefused) {
      // Whatever stands in the way is not skipped over: a later candidate
      // or the journal would answer for a file someone tampered with.
      platform::log_error("hubwardend: not serving " + file + " as a log: " + opened.reason);
      return FileRead::kRefused;
    }
    *window = read_file_window(opened.fd.get(), offset, amount);
    *read_path = file;
    return FileRead::kRead;
  }
  return FileRead::kNone;
}

bool FileTailService::read_journal(const std::vector<std::string>& matches, int64_t offset, int64_t amount,
                                   TailWindow* window) const {
  std::string error;
  std::unique_ptr<platform::JournalLog> journal;
  if (platform::get<platform::Paths>().is_real_root()) {
    journal = platform::JournalLog::open_system(&error);
  } else {
    // A sandbox has its own journal or none; the machine's is never read
    // on its behalf.
    platform::UniqueFd directory = open_confined_directory(kSandboxJournalDirectory);
    if (!directory.valid()) return false;
    journal = platform::JournalLog::open_directory(directory.release(), &error);
  }
  if (journal && !journal->has_files()) return false;
  if (!journal || !journal->restrict_to(matches, &error)) {
    platform::log_error("hubwardend: " + error);
    return false;
  }
  platform::JournalWindow read = journal->read(offset, amount);
  window->offset = read.offset;
  window->bytes = std::move(read.bytes);
  return true;
}

}  // namespace hubwardend
