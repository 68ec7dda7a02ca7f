// Basic credentials and their check through PAM.
#include "hubwardend/serve/pam_authenticator.h"

#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <security/pam_appl.h>
#include <string.h>

#include <cstdlib>
#include <string>
#include <utility>
#include <vector>

#include "platform/log.h"
#include "platform/utf8.h"

namespace hubwardend::serve {

namespace {

// What the conversation needs: the one answer it may give.
struct Conversation {
  const std::string* password;
  bool answered = false;
};

void free_replies(pam_response* replies, int count) {
  for (int i = 0; i < count; ++i) {
    if (replies[i].resp != nullptr) {
      OPENSSL_cleanse(replies[i].resp, strlen(replies[i].resp));
      free(replies[i].resp);
    }
  }
  free(replies);
}

// Answers the first password prompt with the password and lets notices
// through. A second password prompt (a stack that wants a new password) or
// a visible prompt (it wants a user name or something else we cannot know)
// ends the conversation with an error, which fails the check.
int converse(int count, const struct pam_message** messages, struct pam_response** out, void* data) {
  auto* conversation = static_cast<Conversation*>(data);
  if (count <= 0 || count > PAM_MAX_NUM_MSG || conversation == nullptr) return PAM_CONV_ERR;
  auto* replies = static_cast<pam_response*>(calloc(static_cast<size_t>(count), sizeof(pam_response)));
  if (replies == nullptr) return PAM_BUF_ERR;
  for (int i = 0; i < count; ++i) {
    switch (messages[i]->msg_style) {
      case PAM_PROMPT_ECHO_OFF:
        if (conversation->answered) {
          free_replies(replies, count);
          return PAM_CONV_ERR;
        }
        conversation->answered = true;
        replies[i].resp = strdup(conversation->password->c_str());
        if (replies[i].resp == nullptr) {
          free_replies(replies, count);
          return PAM_BUF_ERR;
        }
        break;
      case PAM_TEXT_INFO:
      case PAM_ERROR_MSG:
        break;
      default:
        free_replies(replies, count);
        return PAM_CONV_ERR;
    }
  }
  *out = replies;
  return PAM_SUCCESS;
}

// Replaces PAM's sleep after a failed attempt.
void no_fail_delay(int /*status*/, unsigned /*microseconds*/, void* /*data*/) {}

bool is_failed_credential(int status) {
  return status == PAM_AUTH_ERR || status == PAM_USER_UNKNOWN || status == PAM_MAXTRIES || status == PAM_PERM_DENIED ||
         status == PAM_CRED_INSUFFICIENT;
}

bool is_control_character(std::string_view name, size_t i) {
  auto byte = static_cast<unsigned char>(name[i]);
  if (byte < 0x20 || byte == 0x7f) return true;
  // U+0080..U+009F, the second set of controls, encoded as C2 80..C2 9F.
  return byte == 0xc2 && i + 1 < name.size() && static_cast<unsigned char>(name[i + 1]) <= 0x9f;
}

bool is_acceptable_user_name(std::string_view name) {
  if (name.empty() || name.size() > kMaxUserNameBytes || !platform::is_valid_utf8(name)) return false;
  for (size_t i = 0; i < name.size(); ++i) {
    if (is_control_character(name, i)) return false;
  }
  return true;
}

bool is_base64_character(char c) {
  return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '+' || c == '/';
}

std::string_view trim_spaces(std::string_view s) {
  while (!s.empty() && (s.front() == ' ' || s.front() == '\t')) s.remove_prefix(1);
  while (!s.empty() && (s.back() == ' ' || s.back() == '\t')) s.remove_suffix(1);
  return s;
}

bool equals_ignoring_case(std::string_view a, std::string_view b) {
  if (a.size() != b.size()) return false;
  for (size_t i = 0; i < a.size(); ++i) {
    char x = a[i], y = b[i];
    if (x >= 'A' && x <= 'Z') x = static_cast<char>(x - 'A' + 'a');
    if (y >= 'A' && y <= 'Z') y = static_cast<char>(y - 'A' + 'a');
    if (x != y) return false;
  }
  return true;
}

// Decodes padded base64 into *out; false when it is not that.
bool decode_base64(std::string_view encoded, std::vector<unsigned char>* out) {
  if (encoded.empty() || encoded.size() % 4 != 0) return false;
  size_t padding = 0;
  while (padding < 2 && encoded[encoded.size() - 1 - padding] == '=') ++padding;
  for (size_t i = 0; i + padding < encoded.size(); ++i) {
    if (!is_base64_character(encoded[i])) return false;
  }
  out->assign(encoded.size() / 4 * 3, 0);
  int decoded = EVP_DecodeBlock(out->data(), reinterpret_cast<const unsigned char*>(encoded.data()),
                                static_cast<int>(encoded.size()));
  if (decoded < 0 || static_cast<size_t>(decoded) < padding) return false;
  out->resize(static_cast<size_t>(decoded) - padding);
  return true;
}

}  // namespace

PamPasswordChecker::PamPasswordChecker(std::string service) : service_(std::move(service)) {}

bool PamPasswordChecker::check(const std::string& user, const std::string& password) {
  Conversation conversation{&password};
  const struct pam_conv pam_conversation = {converse, &conversation};
  pam_handle_t* handle = nullptr;
  int status = pam_start(service_.c_str(), user.c_str(), &pam_conversation, &handle);
  if (status != PAM_SUCCESS) {
    platform::log_error("hubwardend: cannot start PAM service " + service_ + ": " +
                        (handle != nullptr ? pam_strerror(handle, status) : "no handle"));
    if (handle != nullptr) pam_end(handle, status);
    return false;
  }
  status = pam_set_item(handle, PAM_FAIL_DELAY, reinterpret_cast<const void*>(&no_fail_delay));
  if (status == PAM_SUCCESS) status = pam_authenticate(handle, PAM_SILENT | PAM_DISALLOW_NULL_AUTHTOK);
  if (status == PAM_SUCCESS) status = pam_acct_mgmt(handle, PAM_SILENT | PAM_DISALLOW_NULL_AUTHTOK);
  if (status == PAM_SUCCESS) {
    // A stack that maps the name would leave us applying the tier rules to
    // someone other than the one it authenticated.
    const void* item = nullptr;
    if (pam_get_item(handle, PAM_USER, &item) != PAM_SUCCESS || item == nullptr ||
        user != static_cast<const char*>(item)) {
      platform::log_error("hubwardend: PAM service " + service_ + " changed the user name of " +
                          platform::escape_for_log(user) + "; refused");
      status = PAM_PERM_DENIED;
    }
  } else if (!is_failed_credential(status)) {
    platform::log_error("hubwardend: PAM service " + service_ + " failed for " + platform::escape_for_log(user) + ": " +
                        pam_strerror(handle, status));
  }
  pam_end(handle, status);
  return status == PAM_SUCCESS;
}

std::optional<std::pair<std::string, std::string>> parse_basic_authorization(std::string_view header) {
  if (header.size() > kMaxAuthorizationHeaderBytes) return std::nullopt;
  header = trim_spaces(header);
  size_t space = header.find_first_of(" \t");
  if (space == std::string_view::npos || !equals_ignoring_case(header.substr(0, space), "basic")) {
    return std::nullopt;
  }
  std::vector<unsigned char> decoded;
  if (!decode_base64(trim_spaces(header.substr(space)), &decoded)) {
    OPENSSL_cleanse(decoded.data(), decoded.size());
    return std::nullopt;
  }
  std::string_view credentials(reinterpret_cast<const char*>(decoded.data()), decoded.size());
  std::optional<std::pair<std::string, std::string>> result;
  size_t colon = credentials.find(':');
  if (colon != std::string_view::npos) {
    std::string_view user = credentials.substr(0, colon);
    std::string_view password = credentials.substr(colon + 1);
    if (is_acceptable_user_name(user) && password.find('\0') == std::string_view::npos) {
      result.emplace(std::string(user), std::string(password));
    }
  }
  OPENSSL_cleanse(decoded.data(), decoded.size());
  return result;
}

}  // namespace hubwardend::serve
