#include "hubwardend/serve/credential_cache.h"

#include <openssl/evp.h>
#include <openssl/hmac.h>
#include <openssl/rand.h>

#include <algorithm>

namespace hubwardend::serve {

CredentialCache::CredentialCache(std::chrono::seconds lifetime, size_t max_entries)
    : lifetime_(lifetime), max_entries_(std::max<size_t>(max_entries, 1)) {
  // Without a random key the cache would only be as good as a plain hash;
  // with no randomness to be had, nothing is ever remembered.
  if (RAND_bytes(key_.data(), static_cast<int>(key_.size())) != 1) key_.fill(0);
}

CredentialCache::Digest CredentialCache::digest(const std::string& user, const std::string& password) const {
  // The name's length goes first so that ("ab", "c") and ("a", "bc") differ.
  std::string message = std::to_string(user.size()) + ":" + user + password;
  Digest out{};
  unsigned int length = 0;
  HMAC(EVP_sha256(), key_.data(), static_cast<int>(key_.size()), reinterpret_cast<const unsigned char*>(message.data()),
       message.size(), out.data(), &length);
  OPENSSL_cleanse(message.data(), message.size());
  return out;
}

bool CredentialCache::accepted_recently(const std::string& user, const std::string& password, Clock::time_point now) {
  if (key_ == Digest{}) return false;
  Digest d = digest(user, password);
  std::lock_guard<std::mutex> lock(mu_);
  auto it = accepted_.find(d);
  if (it == accepted_.end()) return false;
  if (now - it->second >= lifetime_) {
    accepted_.erase(it);
    return false;
  }
  return true;
}

void CredentialCache::remember(const std::string& user, const std::string& password, Clock::time_point now) {
  if (key_ == Digest{}) return;
  Digest d = digest(user, password);
  std::lock_guard<std::mutex> lock(mu_);
  if (accepted_.size() >= max_entries_ && !accepted_.count(d)) {
    auto oldest = std::min_element(accepted_.begin(), accepted_.end(),
                                   [](const auto& a, const auto& b) { return a.second < b.second; });
    accepted_.erase(oldest);
  }
  accepted_[d] = now;
}

void CredentialCache::clear() {
  std::lock_guard<std::mutex> lock(mu_);
  accepted_.clear();
}

}  // namespace hubwardend::serve
