// The system log through syslog(3), which is itself safe from any thread.
#include <syslog.h>

#include "platform/linux/basics.h"

namespace platform {

namespace {

int syslog_priority(Priority priority) {
  switch (priority) {
    case Priority::Error:
      return LOG_ERR;
    case Priority::Warning:
      return LOG_WARNING;
    case Priority::Notice:
      return LOG_NOTICE;
    case Priority::Info:
      return LOG_INFO;
    case Priority::Debug:
      return LOG_DEBUG;
  }
  return LOG_NOTICE;
}

class SyslogLog : public Log {
 public:
  // openlog keeps the ident pointer, so it must be a string that lives as
  // long as the process.
  SyslogLog() { ::openlog("hubwardend", LOG_PID, LOG_DAEMON); }
  ~SyslogLog() override { ::closelog(); }

  void write(Priority priority, std::string_view line) override {
    // A line is never a format: lines carry user-supplied names.
    int length = line.size() > 65536 ? 65536 : static_cast<int>(line.size());
    ::syslog(syslog_priority(priority), "%.*s", length, line.data());
  }

  void write_as(Facility facility, Priority priority, std::string_view line) override {
    int length = line.size() > 65536 ? 65536 : static_cast<int>(line.size());
    int where = facility == Facility::User ? LOG_USER : LOG_DAEMON;
    ::syslog(where | syslog_priority(priority), "%.*s", length, line.data());
  }
};

}  // namespace

std::unique_ptr<Log> make_syslog_log() { return std::make_unique<SyslogLog>(); }

}  // namespace platform
