// Reading the Samba status tool's output.
#include "platform/linux/samba_status.h"

#include <algorithm>
#include <charconv>
#include <chrono>
#include <nlohmann/json.hpp>

#include "plist/text_util.h"

namespace platform {

namespace {

// ordered_json keeps the tool's own order of sessions; the plain json type
// would sort them by their ids as text.
using Json = nlohmann::ordered_json;

bool parse_u32(std::string_view text, uint32_t* out) {
  if (text.empty()) return false;
  uint32_t value = 0;
  auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (ec != std::errc() || end != text.data() + text.size()) return false;
  *out = value;
  return true;
}

// Ids come as decimal strings in the versions we know; numbers are taken
// too, in case a later version stops quoting them.
uint32_t u32_field(const Json& object, const char* key) {
  auto it = object.find(key);
  if (it == object.end()) return 0;
  uint32_t value = 0;
  if (it->is_string()) {
    parse_u32(it->get_ref<const std::string&>(), &value);
  } else if (it->is_number_unsigned() && it->get<uint64_t>() <= UINT32_MAX) {
    value = static_cast<uint32_t>(it->get<uint64_t>());
  } else if (it->is_number_integer() && it->get<int64_t>() >= 0 && it->get<int64_t>() <= UINT32_MAX) {
    value = static_cast<uint32_t>(it->get<int64_t>());
  }
  return value;
}

std::string text_field(const Json& object, const char* key) {
  auto it = object.find(key);
  if (it == object.end() || !it->is_string()) return {};
  return it->get<std::string>();
}

uint32_t server_pid(const Json& object) {
  auto it = object.find("server_id");
  if (it == object.end() || !it->is_object()) return 0;
  return u32_field(*it, "pid");
}

// Encryption and signing are {"cipher": ..., "degree": ...}; the cipher is
// what the plain table shows, so it is what we keep.
std::string cipher_field(const Json& object, const char* key) {
  auto it = object.find(key);
  if (it == object.end()) return {};
  if (it->is_string()) return it->get<std::string>();
  if (it->is_object()) return text_field(*it, "cipher");
  return {};
}

// The members of object[key] that are objects, with their keys.
template <typename Fn>
void for_each_entry(const Json& root, const char* key, Fn fn) {
  auto it = root.find(key);
  if (it == root.end() || !it->is_object()) return;
  for (const auto& [entry_key, entry] : it->items()) {
    if (entry.is_object()) fn(entry_key, entry);
  }
}

std::string join_words(const std::vector<std::string_view>& words, size_t begin, size_t end) {
  std::string joined;
  for (size_t i = begin; i < end; ++i) {
    if (!joined.empty()) joined += ' ';
    joined += words[i];
  }
  return joined;
}

std::vector<std::string_view> split_lines(std::string_view text) {
  std::vector<std::string_view> lines;
  size_t start = 0;
  while (start <= text.size()) {
    size_t end = text.find('\n', start);
    if (end == std::string_view::npos) end = text.size();
    std::string_view line = text.substr(start, end - start);
    if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
    lines.push_back(line);
    start = end + 1;
  }
  return lines;
}

bool is_rule(std::string_view line) {
  return line.size() >= 3 && line.find_first_not_of('-') == std::string_view::npos;
}

// The rows of the table whose header's first word is first_column: the
// lines after its rule, up to the next blank line. Also returns the header.
std::vector<std::string_view> table_rows(std::string_view text, std::string_view first_column,
                                         std::string_view* header) {
  std::vector<std::string_view> lines = split_lines(text);
  std::vector<std::string_view> rows;
  for (size_t i = 0; i + 1 < lines.size(); ++i) {
    std::vector<std::string_view> words = text::split_words(lines[i]);
    if (words.empty() || words[0] != first_column || !is_rule(lines[i + 1])) continue;
    *header = lines[i];
    for (size_t j = i + 2; j < lines.size(); ++j) {
      if (text::split_words(lines[j]).empty()) break;
      rows.push_back(lines[j]);
    }
    break;
  }
  return rows;
}

// A clustered Samba prints "vnn:pid".
bool parse_pid_word(std::string_view word, uint32_t* pid) {
  size_t colon = word.rfind(':');
  if (colon != std::string_view::npos) word.remove_prefix(colon + 1);
  return parse_u32(word, pid);
}

bool is_weekday(std::string_view word) {
  static constexpr std::string_view kDays[] = {"Mon", "Tue", "Wed", "Thu", "Fri", "Sat", "Sun"};
  return std::find(std::begin(kDays), std::end(kDays), word) != std::end(kDays);
}

bool all_digits(std::string_view word) {
  return !word.empty() && word.find_first_not_of("0123456789") == std::string_view::npos;
}

}  // namespace

SambaStatus parse_samba_status_json(std::string_view text) {
  SambaStatus status;
  Json root = Json::parse(text.begin(), text.end(), nullptr, /*allow_exceptions=*/false);
  if (!root.is_object()) return status;
  status.read = true;

  for_each_entry(root, "sessions", [&](const std::string& key, const Json& entry) {
    SambaSession session;
    session.session_id = u32_field(entry, "session_id");
    if (session.session_id == 0) parse_u32(key, &session.session_id);
    session.pid = server_pid(entry);
    session.user = text_field(entry, "username");
    session.group = text_field(entry, "groupname");
    session.machine = text_field(entry, "remote_machine");
    session.address = text_field(entry, "hostname");
    session.protocol = text_field(entry, "session_dialect");
    session.encryption = cipher_field(entry, "encryption");
    session.signing = cipher_field(entry, "signing");
    status.sessions.push_back(std::move(session));
  });

  for_each_entry(root, "tcons", [&](const std::string&, const Json& entry) {
    SambaShareConnection share;
    share.share = text_field(entry, "service");
    share.pid = server_pid(entry);
    share.machine = text_field(entry, "machine");
    share.session_id = u32_field(entry, "session_id");
    share.connected_at = text_field(entry, "connected_at");
    status.shares.push_back(std::move(share));
  });
  return status;
}

// Rows look like
//   24      root         root         127.0.0.1 (ipv4:127.0.0.1:47456)   SMB3_11   -   partial(AES-128-GMAC)
// with columns padded but not cut, so they are read by words: the
// parenthesised address ends the machine column, which anchors the rest.
std::vector<SambaSession> parse_samba_sessions_text(std::string_view text) {
  std::vector<SambaSession> sessions;
  std::string_view header;
  for (std::string_view row : table_rows(text, "PID", &header)) {
    std::vector<std::string_view> words = text::split_words(row);
    SambaSession session;
    if (words.size() < 4 || !parse_pid_word(words[0], &session.pid)) continue;

    size_t address = 0;
    for (size_t i = 4; i < words.size() && address == 0; ++i) {
      if (words[i].size() >= 2 && words[i].front() == '(' && words[i].back() == ')') address = i;
    }
    size_t machine = address != 0 ? address - 1 : 3;
    session.user = join_words(words, 1, machine - 1);
    session.group = std::string(words[machine - 1]);
    session.machine = std::string(words[machine]);
    if (address != 0) {
      session.address = std::string(words[address].substr(1, words[address].size() - 2));
      size_t rest = address + 1;
      if (rest < words.size()) session.protocol = std::string(words[rest]);
      if (rest + 1 < words.size()) session.encryption = std::string(words[rest + 1]);
      if (rest + 2 < words.size()) session.signing = std::string(words[rest + 2]);
    }
    sessions.push_back(std::move(session));
  }
  return sessions;
}

// Rows look like
//   scratch share 24      127.0.0.1     Mon Nov 23 21:01:02 2026 UTC     -            -
// Share names may hold spaces and digits, so the pid is the first number
// that is followed by a machine and a weekday; newer versions add the
// encryption and signing columns at the end.
std::vector<SambaShareConnection> parse_samba_shares_text(std::string_view text) {
  std::vector<SambaShareConnection> shares;
  std::string_view header;
  std::vector<std::string_view> rows = table_rows(text, "Service", &header);
  const bool has_crypto_columns = header.find("Encryption") != std::string_view::npos;
  for (std::string_view row : rows) {
    std::vector<std::string_view> words = text::split_words(row);
    size_t pid_at = 0;
    for (size_t i = 1; i + 2 < words.size() && pid_at == 0; ++i) {
      if (all_digits(words[i]) && is_weekday(words[i + 2])) pid_at = i;
    }
    for (size_t i = 1; i + 1 < words.size() && pid_at == 0; ++i) {
      if (all_digits(words[i])) pid_at = i;
    }
    SambaShareConnection share;
    if (pid_at == 0 || !parse_u32(words[pid_at], &share.pid)) continue;
    share.share = join_words(words, 0, pid_at);
    share.machine = std::string(words[pid_at + 1]);
    size_t date_end = words.size();
    if (has_crypto_columns && date_end >= pid_at + 4) date_end -= 2;
    share.connected_at = join_words(words, pid_at + 2, date_end);
    shares.push_back(std::move(share));
  }
  return shares;
}

SambaStatus read_samba_status(Tasks& tasks, const std::vector<std::string>& extra_args, double timeout_seconds) {
  using Clock = std::chrono::steady_clock;
  const Clock::time_point deadline =
      Clock::now() + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(timeout_seconds));
  auto remaining = [&] { return std::chrono::duration<double>(deadline - Clock::now()).count(); };
  auto run = [&](std::initializer_list<const char*> options) -> TaskResult {
    std::vector<std::string> args{"smbstatus"};
    args.insert(args.end(), options.begin(), options.end());
    args.insert(args.end(), extra_args.begin(), extra_args.end());
    double left = remaining();
    if (left <= 0) return TaskResult{};
    return tasks.run(kSambaStatusTool, args, {}, left);
  };

  TaskResult json = run({"--json"});
  if (!json.launched || json.timed_out) return SambaStatus{};
  if (json.exit_status == 0) return parse_samba_status_json(json.out);

  // A Samba without the option prints its usage and fails; anything else
  // failing (a broken configuration, say) would fail the tables too, but
  // trying costs only one more run within the same limit.
  SambaStatus status;
  TaskResult brief = run({"-b"});
  if (!brief.launched || brief.timed_out || brief.exit_status != 0) return SambaStatus{};
  TaskResult shares = run({"-S"});
  if (!shares.launched || shares.timed_out || shares.exit_status != 0) return SambaStatus{};
  status.read = true;
  status.sessions = parse_samba_sessions_text(brief.out);
  status.shares = parse_samba_shares_text(shares.out);
  return status;
}

}  // namespace platform
