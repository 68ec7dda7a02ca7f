// The real-time clock, the boot time the kernel records in /proc/stat, and
// setting the clock with settimeofday.
//
// Under a sandbox root the machine's clock is never set. The sandbox keeps
// its own clock instead: setting it stores the difference between the time
// set and the real time in a file under the root, and reading it adds that
// difference to the real time. The file is read on every call, so separate
// processes working on the same sandbox (one command-line call per request)
// agree on the time.
#include <errno.h>
#include <sys/time.h>
#include <time.h>

#include <algorithm>
#include <cmath>
#include <string_view>

#include "platform/file_util.h"
#include "platform/linux/basics.h"
#include "platform/linux/text_files.h"
#include "platform/paths.h"
#include "platform/registry.h"
#include "plist/codec.h"

namespace platform {

namespace {

constexpr const char kOffsetKey[] = "offsetSeconds";

double real_now() {
  struct timespec ts;
  if (::clock_gettime(CLOCK_REALTIME, &ts) != 0) return 0;
  return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) / 1e9;
}

std::optional<double> kernel_boot_time() {
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

// Times that cannot be a time_t (or are before 1970) are refused before
// anything is changed.
bool settable(double seconds_since_1970) {
  return std::isfinite(seconds_since_1970) && seconds_since_1970 >= 0 && seconds_since_1970 <= 1e15;
}

class SystemClock : public Clock {
 public:
  double now() override { return real_now(); }

  std::optional<double> boot_time() override { return kernel_boot_time(); }

  int set_time(double seconds_since_1970) override {
    if (!settable(seconds_since_1970)) return EINVAL;
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

class SandboxClock : public Clock {
 public:
  explicit SandboxClock(std::string offset_file) : offset_file_(std::move(offset_file)) {}

  double now() override { return real_now() + offset(); }

  // Shifted with the clock, so that the uptime (now minus boot time) stays
  // the machine's.
  std::optional<double> boot_time() override {
    std::optional<double> boot = kernel_boot_time();
    if (!boot) return std::nullopt;
    return std::max(0.0, *boot + offset());
  }

  int set_time(double seconds_since_1970) override {
    if (!settable(seconds_since_1970)) return EINVAL;
    plist::Dict state;
    state.set(kOffsetKey, seconds_since_1970 - real_now());
    if (!write_file_atomically(offset_file_, plist::write_xml(plist::Value(std::move(state))))) return EIO;
    return 0;
  }

 private:
  // No file (the clock was never set) or a damaged one: the real time.
  double offset() const {
    std::optional<std::string> text = read_file(offset_file_, 64 << 10);
    if (!text) return 0;
    plist::Parsed parsed = plist::parse_xml(*text);
    const plist::Dict* state = parsed.ok() ? parsed.value.as_dict() : nullptr;
    const plist::Value* offset = state ? state->find_number(kOffsetKey) : nullptr;
    std::optional<double> seconds = offset ? offset->to_double() : std::nullopt;
    return seconds && std::isfinite(*seconds) ? *seconds : 0;
  }

  const std::string offset_file_;
};

}  // namespace

std::unique_ptr<Clock> make_system_clock() {
  const Paths* paths = find<Paths>();
  if (paths != nullptr && !paths->is_real_root()) return make_sandbox_clock(paths->resolve(kSandboxClockPath));
  return std::make_unique<SystemClock>();
}

std::unique_ptr<Clock> make_sandbox_clock(std::string offset_file) {
  return std::make_unique<SandboxClock>(std::move(offset_file));
}

}  // namespace platform
