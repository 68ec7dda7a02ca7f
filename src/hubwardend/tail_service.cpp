// Bounded reads of log files named by identifier.
#include "hubwardend/tail_service.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <limits>

#include "platform/paths.h"

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

ErrorName FileTailService::tail(const std::string& identifier, const plist::Dict& log_paths,
                                std::optional<std::string>* path, plist::Value* offset, plist::Value* amount,
                                std::optional<std::string>* contents, plist::Dict*, const plist::Dict&) {
  const std::string* table_path = log_paths.find_string(identifier);
  if (!table_path || table_path->empty() || table_path->front() != '/') return kUnknownLogIdentifierErr;

  const std::string file = platform::resolve(*table_path);
  // O_NONBLOCK: a FIFO standing where a log should be must not hang the call.
  int fd = ::open(file.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY);
  if (fd < 0) return kLogFileNotFoundErr;
  struct stat st;
  if (::fstat(fd, &st) != 0 || S_ISDIR(st.st_mode)) {
    ::close(fd);
    return kLogFileNotFoundErr;
  }
  // Only regular files have a size to clamp against; anything else reads
  // as empty rather than blocking or streaming without end.
  const int64_t size = S_ISREG(st.st_mode) ? static_cast<int64_t>(st.st_size) : 0;

  int64_t wanted_offset = request_integer(offset);
  int64_t start;
  if (wanted_offset >= 0)
    start = std::min(wanted_offset, size);
  else
    start = wanted_offset <= -size ? 0 : size + wanted_offset;  // -size cannot overflow: size >= 0
  int64_t wanted_amount = std::clamp<int64_t>(request_integer(amount), 0, kMaxTailAmount);
  int64_t length = std::min(wanted_amount, size - start);

  std::string bytes(static_cast<size_t>(length), '\0');
  size_t got = 0;
  while (got < bytes.size()) {
    ssize_t n =
        ::pread(fd, bytes.data() + got, bytes.size() - got, static_cast<off_t>(start) + static_cast<off_t>(got));
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;  // the file shrank under us, or a read error: keep what we have
    got += static_cast<size_t>(n);
  }
  ::close(fd);
  bytes.resize(got);

  *path = *table_path;
  *offset = plist::Value(static_cast<int64_t>(start));
  *amount = plist::Value(static_cast<int64_t>(got));
  *contents = decode_utf8_lossy(bytes);
  return nullptr;
}

}  // namespace hubwardend
