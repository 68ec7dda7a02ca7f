// The real-time clock, the boot time the kernel records in /proc/stat, and
// setting the clock with settimeofday.
#include <errno.h>
#include <sys/time.h>
#include <time.h>

#include <cmath>
#include <string_view>

#include "platform/file_util.h"
#include "platform/linux/basics.h"
#include "platform/linux/text_files.h"

namespace platform {

namespace {

class SystemClock : public Clock {
 public:
  double now() override {
    struct timespec ts;
    if (::clock_gettime(CLOCK_REALTIME, &ts) != 0) return 0;
    return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) / 1e9;
  }

  std::optional<double> boot_time() override {
    std::optional<std::string> stat = read_file("/proc/stat");
    if (!stat) return std::nullopt;
    std::string_view text(*stat);
    // "btime" must start a line; search for it with the newline in front.
    size_t at = text.starts_with("btime ") ? 0 : text.find("\nbtime ");
    if (at == std::string_view::npos) return std::nullopt;
    if (text[at] == '\n') ++at;
    std::string_view line = text.substr(at + 6);
    line = line.substr(0, line.find('\n'));
    std::optional<uint64_t> seconds = linux_text::parse_unsigned(line);
    if (!seconds) return std::nullopt;
    return static_cast<double>(*seconds);
  }

  int set_time(double seconds_since_1970) override {
    // Out-of-range values would make the conversion to time_t undefined.
    if (!std::isfinite(seconds_since_1970) || seconds_since_1970 < 0 || seconds_since_1970 > 1e15) return EINVAL;
    double whole = std::floor(seconds_since_1970);
    struct timeval tv;
    tv.tv_sec = static_cast<time_t>(whole);
    tv.tv_usec = static_cast<suseconds_t>(std::lround((seconds_since_1970 - whole) * 1e6));
    if (tv.tv_usec >= 1000000) {
      tv.tv_sec += 1;
      tv.tv_usec -= 1000000;
    }
    return ::settimeofday(&tv, nullptr) == 0 ? 0 : errno;
  }
};

}  // namespace

std::unique_ptr<Clock> make_system_clock() { return std::make_unique<SystemClock>(); }

}  // namespace platform
