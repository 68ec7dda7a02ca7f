// Connected users read from the services themselves.
#include "hubwardend/connected_users.h"

#include <pwd.h>

#include <charconv>
#include <fstream>
#include <map>
#include <utility>

#include "platform/linux/samba_status.h"
#include "platform/paths.h"
#include "platform/registry.h"
#include "platform/tasks.h"
#include "plist/text_util.h"

namespace hubwardend {

namespace {

constexpr double kDoveadmTimeoutSeconds = 3;

bool all_digits(std::string_view word) {
  return !word.empty() && word.find_first_not_of("0123456789") == std::string_view::npos;
}

class SambaUsersReader : public ConnectedUsersReader {
 public:
  explicit SambaUsersReader(std::vector<std::string> extra_args) : extra_args_(std::move(extra_args)) {}

  std::vector<std::string> users() override {
    platform::Tasks* tasks = platform::find<platform::Tasks>();
    if (tasks == nullptr) return {};
    std::vector<std::string> users;
    for (const platform::SambaSession& session : platform::read_samba_status(*tasks, extra_args_).sessions)
      users.push_back(session.user);
    return users;
  }

 private:
  const std::vector<std::string> extra_args_;
};

// Account names of a sandbox root come from its own passwd file, so that a
// test's users never mix with the machine's.
std::map<uint32_t, std::string> passwd_names(const std::string& path) {
  std::map<uint32_t, std::string> names;
  std::ifstream in(path);
  std::string line;
  while (std::getline(in, line)) {
    size_t first = line.find(':');
    size_t second = first == std::string::npos ? first : line.find(':', first + 1);
    size_t third = second == std::string::npos ? second : line.find(':', second + 1);
    if (third == std::string::npos || first == 0) continue;
    uint32_t uid = 0;
    const char* begin = line.data() + second + 1;
    const char* end = line.data() + third;
    auto [ptr, ec] = std::from_chars(begin, end, uid);
    if (ec == std::errc() && ptr == end) names.emplace(uid, line.substr(0, first));
  }
  return names;
}

std::string nss_name_of(uint32_t uid) {
  struct passwd entry;
  struct passwd* found = nullptr;
  char buffer[4096];
  if (getpwuid_r(uid, &entry, buffer, sizeof buffer, &found) != 0 || found == nullptr) return {};
  return found->pw_name;
}

class FtpUsersReader : public ConnectedUsersReader {
 public:
  explicit FtpUsersReader(std::string daemon) : daemon_(std::move(daemon)) {}

  std::vector<std::string> users() override {
    platform::ProcessTable* table = platform::find<platform::ProcessTable>();
    if (table == nullptr) return {};
    std::vector<platform::ProcessFacts> processes;
    if (table->list(&processes, platform::kProcessOwner) != 0) return {};

    const platform::Paths* paths = platform::find<platform::Paths>();
    if (paths == nullptr || paths->is_real_root()) return ftp_session_users(processes, daemon_, nss_name_of);
    std::map<uint32_t, std::string> names = passwd_names(paths->resolve("/etc/passwd"));
    return ftp_session_users(processes, daemon_, [&](uint32_t uid) {
      auto it = names.find(uid);
      return it == names.end() ? std::string() : it->second;
    });
  }

 private:
  const std::string daemon_;
};

class DovecotUsersReader : public ConnectedUsersReader {
 public:
  explicit DovecotUsersReader(std::shared_ptr<platform::UnitInspector> units) : units_(std::move(units)) {}

  std::vector<std::string> users() override {
    const std::string state = units_->active_state(kDovecotUnit);
    if (state != "active" && state != "reloading") return {};
    platform::Tasks* tasks = platform::find<platform::Tasks>();
    if (tasks == nullptr) return {};
    platform::TaskResult who = tasks->run(kDoveadmTool, {"doveadm", "who", "-1"}, {}, kDoveadmTimeoutSeconds);
    if (!who.launched || who.timed_out || who.exit_status != 0) return {};
    return parse_doveadm_who(who.out);
  }

 private:
  const std::shared_ptr<platform::UnitInspector> units_;
};

}  // namespace

CachedUsersReader::CachedUsersReader(std::shared_ptr<ConnectedUsersReader> source, std::chrono::milliseconds max_age)
    : source_(std::move(source)), max_age_(max_age) {}

std::vector<std::string> CachedUsersReader::users() {
  std::lock_guard<std::mutex> lock(mu_);
  const auto now = std::chrono::steady_clock::now();
  if (!have_ || now - read_at_ >= max_age_) {
    users_ = source_->users();
    // Aged from the end of the reading: a slow tool must not make the
    // next request read again at once.
    read_at_ = std::chrono::steady_clock::now();
    have_ = true;
  }
  return users_;
}

std::shared_ptr<ConnectedUsersReader> make_samba_users_reader(std::vector<std::string> extra_args) {
  return std::make_shared<SambaUsersReader>(std::move(extra_args));
}

std::vector<std::string> ftp_session_users(const std::vector<platform::ProcessFacts>& processes,
                                           std::string_view daemon,
                                           const std::function<std::string(uint32_t)>& name_of) {
  std::vector<std::string> users;
  for (const platform::ProcessFacts& process : processes) {
    if (process.command != daemon || process.uid == 0) continue;
    if (process.state == platform::ProcessState::Zombie || process.state == platform::ProcessState::Halted) continue;
    std::string name = name_of(process.uid);
    if (name == "nobody" || name == "proftpd") continue;
    users.push_back(name.empty() ? std::to_string(process.uid) : std::move(name));
  }
  return users;
}

std::shared_ptr<ConnectedUsersReader> make_ftp_users_reader(std::string daemon) {
  return std::make_shared<FtpUsersReader>(std::move(daemon));
}

std::vector<std::string> parse_doveadm_who(std::string_view text) {
  std::vector<std::string> users;
  size_t start = 0;
  while (start < text.size()) {
    size_t end = text.find('\n', start);
    if (end == std::string_view::npos) end = text.size();
    std::vector<std::string_view> words = text::split_words(text.substr(start, end - start));
    start = end + 1;
    // The header names its columns; a row has a numeric pid in the third.
    if (words.size() < 3 || !all_digits(words[2])) continue;
    users.emplace_back(words[0]);
  }
  return users;
}

std::shared_ptr<ConnectedUsersReader> make_dovecot_users_reader(std::shared_ptr<platform::UnitInspector> units) {
  return std::make_shared<DovecotUsersReader>(std::move(units));
}

}  // namespace hubwardend
