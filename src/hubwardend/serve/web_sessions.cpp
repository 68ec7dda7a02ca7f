#include "hubwardend/serve/web_sessions.h"

#include <openssl/crypto.h>
#include <openssl/rand.h>

#include <array>
#include <utility>

namespace hubwardend::serve {
namespace {

constexpr size_t kRandomBytes = 32;
constexpr size_t kIdLength = kRandomBytes * 2;

std::optional<std::string> random_hex() {
  std::array<unsigned char, kRandomBytes> bytes;
  if (RAND_bytes(bytes.data(), static_cast<int>(bytes.size())) != 1) return std::nullopt;
  static constexpr char kDigits[] = "0123456789abcdef";
  std::string hex;
  hex.reserve(kIdLength);
  for (unsigned char b : bytes) {
    hex.push_back(kDigits[b >> 4]);
    hex.push_back(kDigits[b & 15]);
  }
  OPENSSL_cleanse(bytes.data(), bytes.size());
  return hex;
}

bool is_session_id(std::string_view value) {
  if (value.size() != kIdLength) return false;
  for (char c : value)
    if (!((c >= '0' && c <= '9') || (c >= 'a' && c <= 'f'))) return false;
  return true;
}

}  // namespace

std::optional<std::string> session_cookie_value(std::string_view header) {
  std::optional<std::string> found;
  size_t pos = 0;
  while (pos <= header.size()) {
    size_t end = header.find(';', pos);
    std::string_view pair = header.substr(pos, end == std::string_view::npos ? std::string_view::npos : end - pos);
    // Browsers separate pairs with "; "; a lone trailing ";" is tolerated.
    if (pos > 0) {
      if (pair.empty() && end == std::string_view::npos) break;
      if (pair.substr(0, 1) != " ") return std::nullopt;
      pair.remove_prefix(1);
    }
    size_t eq = pair.find('=');
    if (eq == 0 || eq == std::string_view::npos) return std::nullopt;
    if (pair.substr(0, eq) == kSessionCookieName) {
      if (found) return std::nullopt;  // two sessions: trust neither
      std::string_view value = pair.substr(eq + 1);
      if (!is_session_id(value)) return std::nullopt;
      found = std::string(value);
    }
    if (end == std::string_view::npos) break;
    pos = end + 1;
  }
  return found;
}

WebSessions::WebSessions() : WebSessions(Options{}) {}
WebSessions::WebSessions(Options options) : options_(std::move(options)) {}

std::optional<WebSessions::Session> WebSessions::create(const std::string& user, Tier tier) {
  std::optional<std::string> id = random_hex();
  std::optional<std::string> token = random_hex();
  if (!id || !token) return std::nullopt;
  Entry entry;
  entry.session = Session{*id, user, tier, *token};
  entry.created = entry.last_used = now();
  std::lock_guard<std::mutex> lock(mu_);
  while (!sessions_.empty() && sessions_.size() >= options_.max_sessions) erase(sessions_.find(by_age_.front()));
  entry.age = by_age_.insert(by_age_.end(), *id);
  sessions_.emplace(*id, std::move(entry));
  return sessions_.at(*id).session;
}

std::optional<WebSessions::Session> WebSessions::find(std::string_view cookie_header) {
  std::optional<std::string> id = session_cookie_value(cookie_header);
  if (!id) return std::nullopt;
  const Clock::time_point t = now();
  std::lock_guard<std::mutex> lock(mu_);
  auto it = sessions_.find(*id);
  if (it == sessions_.end()) return std::nullopt;
  Entry& entry = it->second;
  if (t - entry.last_used >= options_.idle_expiry || t - entry.created >= options_.absolute_expiry) {
    erase(it);
    return std::nullopt;
  }
  entry.last_used = t;
  return entry.session;
}

bool WebSessions::token_matches(const Session& session, std::string_view token) {
  const std::string& expected = session.csrf_token;
  if (token.size() != expected.size() || expected.empty()) return false;
  return CRYPTO_memcmp(token.data(), expected.data(), expected.size()) == 0;
}

void WebSessions::end(const std::string& id) {
  std::lock_guard<std::mutex> lock(mu_);
  auto it = sessions_.find(id);
  if (it != sessions_.end()) erase(it);
}

size_t WebSessions::size() const {
  std::lock_guard<std::mutex> lock(mu_);
  return sessions_.size();
}

void WebSessions::erase(std::unordered_map<std::string, Entry>::iterator it) {
  by_age_.erase(it->second.age);
  sessions_.erase(it);
}

}  // namespace hubwardend::serve
