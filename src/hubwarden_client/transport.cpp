#include "hubwarden_client/transport.h"

#include <curl/curl.h>

#include <cstring>
#include <memory>
#include <utility>

namespace hubwarden_client {

namespace {

// Replies larger than this are cut off: the biggest real reply (a tail of
// 1 MiB, or every process) is far smaller.
constexpr size_t kMaxReplyBytes = 64u << 20;

struct CurlUrlDeleter {
  void operator()(CURLU* u) const { curl_url_cleanup(u); }
};
struct CurlStringDeleter {
  void operator()(char* s) const { curl_free(s); }
};
using CurlString = std::unique_ptr<char, CurlStringDeleter>;

CurlString get_part(CURLU* u, CURLUPart part) {
  char* value = nullptr;
  if (curl_url_get(u, part, &value, 0) != CURLUE_OK) return nullptr;
  return CurlString(value);
}

size_t collect(char* data, size_t size, size_t count, void* user) {
  auto* body = static_cast<std::string*>(user);
  size_t n = size * count;
  if (body->size() + n > kMaxReplyBytes) return 0;  // makes curl fail the transfer
  body->append(data, n);
  return n;
}

class CurlTransport : public Transport {
 public:
  explicit CurlTransport(Endpoint endpoint) : endpoint_(std::move(endpoint)), handle_(curl_easy_init()) {}
  ~CurlTransport() override {
    if (handle_) curl_easy_cleanup(handle_);
  }
  CurlTransport(const CurlTransport&) = delete;
  CurlTransport& operator=(const CurlTransport&) = delete;

  PostResult post(const std::string& module, const std::string& content_type, const std::string& body) override {
    PostResult result;
    if (!handle_) {
      result.error = "cannot start the HTTP library";
      return result;
    }
    CURL* h = handle_;
    curl_easy_reset(h);
    std::string url;
    if (!endpoint_.socket_path.empty()) {
      // The host part only fills the Host header; the socket decides.
      url = "http://localhost/commands/" + module;
      curl_easy_setopt(h, CURLOPT_UNIX_SOCKET_PATH, endpoint_.socket_path.c_str());
      curl_easy_setopt(h, CURLOPT_PROTOCOLS_STR, "http");
    } else {
      url = endpoint_.url + "/commands/" + module;
      curl_easy_setopt(h, CURLOPT_PROTOCOLS_STR, "https");
      curl_easy_setopt(h, CURLOPT_SSLVERSION, static_cast<long>(CURL_SSLVERSION_TLSv1_2));
      curl_easy_setopt(h, CURLOPT_HTTPAUTH, static_cast<long>(CURLAUTH_BASIC));
      curl_easy_setopt(h, CURLOPT_USERNAME, endpoint_.user.c_str());
      curl_easy_setopt(h, CURLOPT_PASSWORD, endpoint_.password.c_str());
      if (endpoint_.insecure) {
        curl_easy_setopt(h, CURLOPT_SSL_VERIFYPEER, 0L);
        curl_easy_setopt(h, CURLOPT_SSL_VERIFYHOST, 0L);
      }
      if (!endpoint_.ca_file.empty()) curl_easy_setopt(h, CURLOPT_CAINFO, endpoint_.ca_file.c_str());
    }
    curl_easy_setopt(h, CURLOPT_URL, url.c_str());
    curl_easy_setopt(h, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(h, CURLOPT_CONNECTTIMEOUT, 10L);
    curl_easy_setopt(h, CURLOPT_TIMEOUT, endpoint_.timeout_seconds);
    curl_easy_setopt(h, CURLOPT_USERAGENT, "hubwarden");
    curl_easy_setopt(h, CURLOPT_POST, 1L);
    curl_easy_setopt(h, CURLOPT_POSTFIELDS, body.data());
    curl_easy_setopt(h, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(body.size()));
    curl_easy_setopt(h, CURLOPT_WRITEFUNCTION, collect);
    curl_easy_setopt(h, CURLOPT_WRITEDATA, &result.reply.body);
    char error_buffer[CURL_ERROR_SIZE] = {};
    curl_easy_setopt(h, CURLOPT_ERRORBUFFER, error_buffer);

    std::string type_header = "Content-Type: " + content_type;
    std::string accept_header = "Accept: " + content_type;
    curl_slist* headers = nullptr;
    headers = curl_slist_append(headers, type_header.c_str());
    headers = curl_slist_append(headers, accept_header.c_str());
    headers = curl_slist_append(headers, "Expect:");  // no 100-continue round trip
    curl_easy_setopt(h, CURLOPT_HTTPHEADER, headers);

    CURLcode code = curl_easy_perform(h);
    curl_slist_free_all(headers);
    if (code != CURLE_OK) {
      result.error = error_buffer[0] ? error_buffer : curl_easy_strerror(code);
      long os_error = 0;
      if (code == CURLE_COULDNT_CONNECT && !endpoint_.socket_path.empty() &&
          curl_easy_getinfo(h, CURLINFO_OS_ERRNO, &os_error) == CURLE_OK && os_error != 0)
        // curl's own text names a port, which means nothing for a socket.
        result.error = std::string("cannot connect: ") + std::strerror(static_cast<int>(os_error));
      if (code == CURLE_WRITE_ERROR) result.error = "reply larger than " + std::to_string(kMaxReplyBytes) + " bytes";
      result.reply = {};
      return result;
    }
    curl_easy_getinfo(h, CURLINFO_RESPONSE_CODE, &result.reply.status);
    char* type = nullptr;
    if (curl_easy_getinfo(h, CURLINFO_CONTENT_TYPE, &type) == CURLE_OK && type) result.reply.content_type = type;
    result.ok = true;
    return result;
  }

 private:
  const Endpoint endpoint_;
  CURL* handle_;
};

}  // namespace

std::unique_ptr<Transport> make_curl_transport(Endpoint endpoint) {
  return std::make_unique<CurlTransport>(std::move(endpoint));
}

bool normalize_url(const std::string& text, std::string* url, std::string* error) {
  std::unique_ptr<CURLU, CurlUrlDeleter> u(curl_url());
  if (!u || curl_url_set(u.get(), CURLUPART_URL, text.c_str(), CURLU_DEFAULT_SCHEME) != CURLUE_OK) {
    *error = "not a usable URL: " + text;
    return false;
  }
  CurlString scheme = get_part(u.get(), CURLUPART_SCHEME);
  if (!scheme || std::string(scheme.get()) != "https") {
    *error = "only https URLs are accepted: " + text;
    return false;
  }
  if (CurlString query = get_part(u.get(), CURLUPART_QUERY)) {
    *error = "a URL with a query cannot be used: " + text;
    return false;
  }
  CurlString port = get_part(u.get(), CURLUPART_PORT);
  if (!port) curl_url_set(u.get(), CURLUPART_PORT, std::to_string(kDefaultPort).c_str(), 0);
  CurlString full = get_part(u.get(), CURLUPART_URL);
  if (!full) {
    *error = "not a usable URL: " + text;
    return false;
  }
  std::string out = full.get();
  while (!out.empty() && out.back() == '/') out.pop_back();
  *url = out;
  return true;
}

bool is_valid_module_name(const std::string& name) {
  if (name.empty() || name == "." || name == "..") return false;
  for (char c : name) {
    bool ok =
        (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_' || c == '-' || c == '.';
    if (!ok) return false;
  }
  return true;
}

std::string describe(const Endpoint& endpoint) {
  return endpoint.socket_path.empty() ? endpoint.url : "socket " + endpoint.socket_path;
}

}  // namespace hubwarden_client
