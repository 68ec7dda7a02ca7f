// The web console's logins: a session per successful password check,
// known by a random id that travels in the "hw_session" cookie, with its
// own random anti-forgery token that the page sends back in a header. A
// session ends when it has been idle too long, when it has lived its
// absolute lifetime, on logout, or when too many are live (the oldest
// goes first), so memory stays bounded whatever a client does.
//
// Ids and tokens are 256 random bits from OpenSSL's generator, in hex.
// Tokens are compared in constant time.
//
// Thread-safety: every method may be called from any thread.
#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <list>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>

#include "hubwardend/serve/authorization.h"

namespace hubwardend::serve {

// The cookie's name.
inline constexpr char kSessionCookieName[] = "hw_session";

class WebSessions {
 public:
  using Clock = std::chrono::steady_clock;

  struct Options {
    Clock::duration idle_expiry = std::chrono::minutes(15);
    Clock::duration absolute_expiry = std::chrono::hours(12);
    size_t max_sessions = 1000;
    std::function<Clock::time_point()> now;  // default Clock::now
  };

  struct Session {
    std::string id;
    std::string user;
    Tier tier = Tier::kNone;
    std::string csrf_token;
  };

  WebSessions();
  explicit WebSessions(Options options);
  WebSessions(const WebSessions&) = delete;
  WebSessions& operator=(const WebSessions&) = delete;

  // Starts a session for user. Returns nullopt only when the random
  // generator fails (nothing is stored then).
  std::optional<Session> create(const std::string& user, Tier tier);

  // The live session the Cookie header names, which counts as use (its
  // idle time starts again); nullopt when the header holds no well-formed
  // hw_session cookie, names no session, or names one that has expired
  // (which is then forgotten).
  std::optional<Session> find(std::string_view cookie_header);

  // Whether token is the session's anti-forgery token.
  static bool token_matches(const Session& session, std::string_view token);

  // Forgets the session; nothing happens for an unknown id.
  void end(const std::string& id);

  // Live sessions (expired ones not yet noticed included).
  size_t size() const;

 private:
  struct Entry {
    Session session;
    Clock::time_point created;
    Clock::time_point last_used;
    std::list<std::string>::iterator age;
  };
  Clock::time_point now() const { return options_.now ? options_.now() : Clock::now(); }
  void erase(std::unordered_map<std::string, Entry>::iterator it);  // REQUIRES: mu_ held

  const Options options_;
  mutable std::mutex mu_;
  std::unordered_map<std::string, Entry> sessions_;  // guarded by mu_
  std::list<std::string> by_age_;                    // oldest first; guarded by mu_
};

// The value of the hw_session cookie in a Cookie header: "name=value" pairs
// separated by "; ". Returns nullopt when the header does not parse (a
// pair without "=", an empty name, a stray separator), holds hw_session
// more than once, or its value is not 64 lower-case hex digits.
std::optional<std::string> session_cookie_value(std::string_view cookie_header);

}  // namespace hubwardend::serve
