// Remembers passwords that PAM accepted, for a short while, so a console
// polling every few seconds over keep-alive connections does not pay a
// password hash (tens of milliseconds of CPU) per request. Only a keyed
// hash of name and password is kept (HMAC-SHA-256 with a key made at
// start), never the password. Failures are never remembered: a changed or
// locked account is asked again at the latest when an entry expires.
// Safe from any thread.
#pragma once

#include <array>
#include <chrono>
#include <cstddef>
#include <map>
#include <mutex>
#include <string>

namespace hubwardend::serve {

class CredentialCache {
 public:
  using Clock = std::chrono::steady_clock;

  CredentialCache(std::chrono::seconds lifetime = std::chrono::seconds(60), size_t max_entries = 1024);
  CredentialCache(const CredentialCache&) = delete;
  CredentialCache& operator=(const CredentialCache&) = delete;

  // True when this name and password were accepted within the lifetime.
  bool accepted_recently(const std::string& user, const std::string& password, Clock::time_point now = Clock::now());
  // Notes an accepted pair; the oldest entry goes when the cache is full.
  void remember(const std::string& user, const std::string& password, Clock::time_point now = Clock::now());
  // Forgets everything (configuration reload: PAM may have changed).
  void clear();

 private:
  using Digest = std::array<unsigned char, 32>;
  Digest digest(const std::string& user, const std::string& password) const;

  const std::chrono::seconds lifetime_;
  const size_t max_entries_;
  std::array<unsigned char, 32> key_;
  std::mutex mu_;
  std::map<Digest, Clock::time_point> accepted_;  // guarded by mu_
};

}  // namespace hubwardend::serve
