// The system log. Lines are complete messages without a trailing newline;
// the module's own lines begin "hubwarden_info: ". Implementations must be
// safe to call from several threads.
#pragma once

#include <string>
#include <string_view>

namespace platform {

enum class Priority { Error, Warning, Notice, Info, Debug };

// Who a line is filed under. Most lines are the daemon's own; a few report
// on things an administrator asked for and are filed as a user's.
enum class Facility { Daemon, User };

class Log {
 public:
  virtual ~Log() = default;
  virtual void write(Priority priority, std::string_view line) = 0;
  // Like write, filed under facility. A log without facilities files the
  // line as write does.
  virtual void write_as(Facility facility, Priority priority, std::string_view line) {
    (void)facility;
    write(priority, line);
  }
};

// Shorthands for get<Log>().write(...).
void log_error(std::string_view line);
void log_notice(std::string_view line);
void log_user_error(std::string_view line);
void log_user_notice(std::string_view line);

}  // namespace platform
