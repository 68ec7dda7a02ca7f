// Shorthands over the installed system log.
#include "platform/log.h"

#include "platform/registry.h"

namespace platform {

void log_error(std::string_view line) {
  if (has<Log>()) get<Log>().write(Priority::Error, line);
}

void log_notice(std::string_view line) {
  if (has<Log>()) get<Log>().write(Priority::Notice, line);
}

void log_user_error(std::string_view line) {
  if (has<Log>()) get<Log>().write_as(Facility::User, Priority::Error, line);
}

void log_user_notice(std::string_view line) {
  if (has<Log>()) get<Log>().write_as(Facility::User, Priority::Notice, line);
}

}  // namespace platform
