#include "hubwarden_client/session.h"

#include <utility>

#include "plist/codec.h"
#include "plist/json.h"
#include "plist/text_util.h"

namespace hubwarden_client {

namespace {

// The daemon's error bodies are one short line; anything else (an HTML
// page from a proxy) is not worth repeating.
std::string short_text(const std::string& body) {
  std::string_view text = text::trim(body);
  if (text.empty() || text.size() > 200 || text.find('\n') != std::string_view::npos || text.starts_with('<'))
    return "";
  return std::string(text);
}

}  // namespace

std::string describe_http_status(long status, const std::string& body, const std::string& module,
                                 const std::string& user) {
  std::string message;
  switch (status) {
    case 400:
      message = "the daemon could not use the request";
      break;
    case 401:
      message = "authentication failed";
      break;
    case 403:
      message = "not allowed for " + user;
      break;
    case 404:
      message = "no module " + module;
      break;
    case 405:
      message = "method not allowed";
      break;
    case 413:
      message = "the request is too large";
      break;
    case 503:
      message = "the daemon is stopping";
      break;
    default:
      message = "unexpected answer";
  }
  std::string detail = short_text(body);
  if (!detail.empty() && status != 401 && status != 403) message += ": " + detail;
  return message + " (HTTP " + std::to_string(status) + ")";
}

Session::Session(Transport& transport, std::string where, std::string module, std::string user)
    : transport_(transport), where_(std::move(where)), module_(std::move(module)), user_(std::move(user)) {}

Answer Session::send(const plist::Dict& request) {
  Answer answer;
  PostResult posted = transport_.post(module_, "application/xml", plist::write_xml(plist::Value(request)));
  if (!posted.ok) {
    answer.message = where_ + ": " + posted.error;
    return answer;
  }
  const HttpReply& http = posted.reply;
  if (http.status == 204) {
    answer.kind = Answer::Kind::kNoReply;
    return answer;
  }
  if (http.status != 200) {
    answer.message = where_ + ": " + describe_http_status(http.status, http.body, module_, user_);
    return answer;
  }
  bool json = http.content_type.starts_with("application/json");
  plist::Parsed parsed = json ? plist::parse_json(http.body) : plist::parse_xml(http.body);
  if (!parsed.ok()) {
    answer.message = where_ + ": unreadable reply: " + parsed.error;
    return answer;
  }
  plist::Dict* reply = parsed.value.as_dict();
  if (!reply) {
    answer.message = where_ + ": the reply is not a dictionary";
    return answer;
  }
  answer.kind = Answer::Kind::kReply;
  answer.reply = std::move(*reply);
  return answer;
}

}  // namespace hubwarden_client
