// The system log. Lines are complete messages without a trailing newline;
// the module's own lines begin "hubwarden_info: ". Implementations must be
// safe to call from several threads.
#pragma once

#include <string>
#include <string_view>

namespace platform {

enum class Priority { Error, Warning, Notice, Info, Debug };

class Log {
 public:
  virtual ~Log() = default;
  virtual void write(Priority priority, std::string_view line) = 0;
};

// Shorthands for get<Log>().write(...).
void log_error(std::string_view line);
void log_notice(std::string_view line);

}  // namespace platform
