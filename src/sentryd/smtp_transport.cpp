// Delivery to an SMTP relay through libcurl, which speaks the protocol
// (dot-stuffing included); this file only sets the envelope and the limits.
#include <curl/curl.h>

#include <cstring>

#include "sentryd/transport.h"

namespace sentryd {
namespace {

struct Upload {
  const std::string* text;
  size_t offset = 0;
};

size_t read_upload(char* buffer, size_t size, size_t count, void* user) {
  auto* upload = static_cast<Upload*>(user);
  size_t n = std::min(size * count, upload->text->size() - upload->offset);
  std::memcpy(buffer, upload->text->data() + upload->offset, n);
  upload->offset += n;
  return n;
}

// libcurl calls this about once a second while it waits, which is how a
// cancelled delivery stops without waiting out its limit.
int check_cancel(void* user, curl_off_t, curl_off_t, curl_off_t, curl_off_t) {
  return static_cast<const std::atomic<bool>*>(user)->load() ? 1 : 0;
}

class SmtpTransport : public Transport {
 public:
  SmtpTransport(std::string relay, std::chrono::seconds connect_limit, std::chrono::seconds total_limit)
      : url_(relay.find("://") == std::string::npos ? "smtp://" + relay : relay),
        connect_limit_(connect_limit),
        total_limit_(total_limit) {}

  std::string send(const OutgoingMail& mail, const std::atomic<bool>& cancel) override {
    CURL* curl = curl_easy_init();
    if (!curl) return "cannot start libcurl";
    struct curl_slist* recipients = nullptr;
    for (const std::string& to : mail.to) recipients = curl_slist_append(recipients, ("<" + to + ">").c_str());
    std::string from = "<" + mail.from + ">";
    Upload upload{&mail.message};
    char error[CURL_ERROR_SIZE] = {};
    curl_easy_setopt(curl, CURLOPT_URL, url_.c_str());
    curl_easy_setopt(curl, CURLOPT_PROTOCOLS_STR, "smtp,smtps");
    curl_easy_setopt(curl, CURLOPT_MAIL_FROM, from.c_str());
    curl_easy_setopt(curl, CURLOPT_MAIL_RCPT, recipients);
    curl_easy_setopt(curl, CURLOPT_UPLOAD, 1L);
    curl_easy_setopt(curl, CURLOPT_READFUNCTION, read_upload);
    curl_easy_setopt(curl, CURLOPT_READDATA, &upload);
    curl_easy_setopt(curl, CURLOPT_INFILESIZE_LARGE, static_cast<curl_off_t>(mail.message.size()));
    curl_easy_setopt(curl, CURLOPT_CONNECTTIMEOUT, static_cast<long>(connect_limit_.count()));
    curl_easy_setopt(curl, CURLOPT_TIMEOUT, static_cast<long>(total_limit_.count()));
    curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(curl, CURLOPT_NOPROGRESS, 0L);
    curl_easy_setopt(curl, CURLOPT_XFERINFOFUNCTION, check_cancel);
    curl_easy_setopt(curl, CURLOPT_XFERINFODATA, &cancel);
    curl_easy_setopt(curl, CURLOPT_ERRORBUFFER, error);
    CURLcode code = curl_easy_perform(curl);
    curl_slist_free_all(recipients);
    curl_easy_cleanup(curl);
    if (code == CURLE_OK) return "";
    if (code == CURLE_ABORTED_BY_CALLBACK) return "cancelled at exit";
    return "relay " + url_ + ": " + (error[0] ? std::string(error) : std::string(curl_easy_strerror(code)));
  }

 private:
  std::string url_;
  std::chrono::seconds connect_limit_;
  std::chrono::seconds total_limit_;
};

}  // namespace

std::unique_ptr<Transport> make_smtp_transport(std::string relay, std::chrono::seconds connect_limit,
                                               std::chrono::seconds total_limit) {
  curl_global_init(CURL_GLOBAL_DEFAULT);
  return std::make_unique<SmtpTransport>(std::move(relay), connect_limit, total_limit);
}

}  // namespace sentryd
