// Password checks for the network entrance: the user name and password of an
// HTTP Basic "Authorization" header, and a checker that asks the system's
// PAM stack whether they are good.
//
// Thread-safety: parse_basic_authorization is a pure function. A
// PamPasswordChecker may be shared by any number of threads: every check
// opens, uses and closes its own PAM handle. A check can take as long as
// the PAM stack takes (a directory lookup, say), so call it from a worker
// thread, never from an I/O thread.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <utility>

namespace hubwardend::serve {

// Decides whether a password is right for a user.
class PasswordChecker {
 public:
  PasswordChecker() = default;
  PasswordChecker(const PasswordChecker&) = delete;
  PasswordChecker& operator=(const PasswordChecker&) = delete;
  virtual ~PasswordChecker() = default;

  // True when user may log in with password (the password is right and the
  // account is usable now). False for every failure, including an
  // unavailable authentication service; the reason goes to the system log
  // when it is not simply a wrong password.
  virtual bool check(const std::string& user, const std::string& password) = 0;
};

// Checks passwords through PAM with the named service ("hubwardend" reads
// /etc/pam.d/hubwardend): authentication, then account management. The
// conversation answers the password prompt alone, once; any other question
// fails the check. An account whose password has expired is refused: it
// cannot be changed through this entrance. PAM's own delay after a failure
// is switched off; slowing down guessers is the login throttle's job, and a
// sleeping PAM call would hold a worker thread for seconds.
class PamPasswordChecker final : public PasswordChecker {
 public:
  explicit PamPasswordChecker(std::string service);

  bool check(const std::string& user, const std::string& password) override;

 private:
  const std::string service_;
};

// The longest Authorization header value looked at; longer ones are refused
// without decoding.
inline constexpr size_t kMaxAuthorizationHeaderBytes = 4096;
// The longest user name accepted, in bytes.
inline constexpr size_t kMaxUserNameBytes = 256;

// Parses the value of an Authorization header in the Basic scheme
// ("Basic " followed by the base64 of "user:password"). Returns the user and
// password, or nullopt when the header is of another scheme, longer than
// kMaxAuthorizationHeaderBytes, not padded base64, has no ':', or names a
// user that is empty, longer than kMaxUserNameBytes, not UTF-8 or holds a
// control character; a password holding a NUL byte is refused too (PAM would
// see only what comes before it). The decoded bytes are wiped from the
// temporary buffer before returning.
std::optional<std::pair<std::string, std::string>> parse_basic_authorization(std::string_view header);

}  // namespace hubwardend::serve
