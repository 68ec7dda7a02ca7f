// The tail service behind "tailFile": reads a window of one of the log files
// the module names in its log path table. Only identifiers of that table are
// opened, so a client cannot read arbitrary files; paths are resolved under
// the platform root. Reads are bounded (kMaxTailAmount) whatever the request
// asks for. Safe from several threads.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "platform/host_services.h"

namespace hubwardend {

inline constexpr ErrorName kUnknownLogIdentifierErr = "UNKNOWN_LOG_IDENTIFIER_ERR";
inline constexpr ErrorName kLogFileNotFoundErr = "LOG_FILE_NOT_FOUND_ERR";
inline constexpr int64_t kMaxTailAmount = 1 << 20;

// bytes as UTF-8, every invalid sequence replaced by U+FFFD (one per
// maximal invalid subpart).
std::string decode_utf8_lossy(std::string_view bytes);

class FileTailService : public platform::TailService {
 public:
  // identifier: looked up in log_paths (a dictionary from identifier to
  // absolute path); unknown identifiers give kUnknownLogIdentifierErr and
  // nothing is opened. A missing or unreadable file gives
  // kLogFileNotFoundErr. *offset: >= 0 counts from the start of the file,
  // < 0 back from its end; clamped to the file. *amount: clamped to
  // [0, kMaxTailAmount] and to what the file holds from the offset.
  // Reals are truncated; values beyond 64 bits saturate. On success *path
  // is the table's path (as the client knows it, without the root), *offset
  // and *amount the integers actually used and *contents the text read.
  ErrorName tail(const std::string& identifier, const plist::Dict& log_paths, std::optional<std::string>* path,
                 plist::Value* offset, plist::Value* amount, std::optional<std::string>* contents, plist::Dict* context,
                 const plist::Dict& request) override;
};

}  // namespace hubwardend
