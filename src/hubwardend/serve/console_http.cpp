#include "hubwardend/serve/console_http.h"

#include <charconv>

#include "hubwardend/serve/console_headers.h"
#include "plist/json.h"

namespace hubwardend::serve {
namespace {

constexpr size_t kMaxUserBytes = 256;

int hex_value(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

std::optional<std::string> form_decode(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  for (size_t i = 0; i < text.size(); ++i) {
    char c = text[i];
    if (c == '+') {
      c = ' ';
    } else if (c == '%') {
      int high = i + 2 < text.size() ? hex_value(text[i + 1]) : -1;
      int low = high >= 0 ? hex_value(text[i + 2]) : -1;
      if (low < 0) return std::nullopt;
      c = static_cast<char>(high * 16 + low);
      i += 2;
    }
    out.push_back(c);
  }
  return out;
}

HttpResponse json_reply(int status, std::string body) {
  HttpResponse r;
  r.status = status;
  r.content_type = "application/json";
  r.body = std::move(body);
  r.headers.emplace_back("Cache-Control", "no-store");
  add_console_headers(&r);
  return r;
}

}  // namespace

HttpResponse console_error(int status, std::string_view text) {
  plist::Dict d;
  d.set("error", std::string(text));
  return json_reply(status, plist::write_json(plist::Value(std::move(d))));
}

HttpResponse console_session_reply(const WebSessions::Session& session) {
  plist::Dict d;
  d.set("user", session.user);
  d.set("tier", std::string(session.tier == Tier::kAdmin ? "admin" : "monitor"));
  d.set("csrf", session.csrf_token);
  return json_reply(200, plist::write_json(plist::Value(std::move(d))));
}

std::string session_cookie(const std::string& id) {
  return std::string(kSessionCookieName) + "=" + id + "; Path=/; HttpOnly; Secure; SameSite=Strict";
}

std::string cleared_session_cookie() {
  return std::string(kSessionCookieName) + "=; Path=/; Max-Age=0; HttpOnly; Secure; SameSite=Strict";
}

std::optional<std::pair<std::string, std::string>> parse_console_login(std::string_view body) {
  plist::Parsed parsed = plist::parse_json(body);
  const plist::Dict* d = parsed.ok() ? parsed.value.as_dict() : nullptr;
  const std::string* user = d ? d->find_string("user") : nullptr;
  const std::string* password = d ? d->find_string("password") : nullptr;
  if (!user || !password || user->empty() || user->size() > kMaxUserBytes) return std::nullopt;
  for (char c : *user)
    if (static_cast<unsigned char>(c) < 0x20 || c == 0x7f) return std::nullopt;
  if (password->find('\0') != std::string::npos) return std::nullopt;
  return std::make_pair(*user, *password);
}

std::optional<CityQuery> parse_city_query(std::string_view target) {
  CityQuery query;
  size_t question = target.find('?');
  if (question == std::string_view::npos) return query;
  std::string_view rest = target.substr(question + 1);
  while (!rest.empty()) {
    size_t amp = rest.find('&');
    std::string_view pair = rest.substr(0, amp);
    rest = amp == std::string_view::npos ? std::string_view() : rest.substr(amp + 1);
    size_t eq = pair.find('=');
    std::string_view name = pair.substr(0, eq);
    std::optional<std::string> value = form_decode(eq == std::string_view::npos ? "" : pair.substr(eq + 1));
    if (!value) return std::nullopt;
    if (name == "q") {
      query.text = std::move(*value);
    } else if (name == "limit") {
      unsigned long long n = 0;
      auto [end, ec] = std::from_chars(value->data(), value->data() + value->size(), n);
      if (ec == std::errc::result_out_of_range) {
        n = kMaxCityResults;
      } else if (ec != std::errc() || end != value->data() + value->size()) {
        return std::nullopt;
      }
      query.limit = n < 1 ? 1 : n > kMaxCityResults ? kMaxCityResults : static_cast<size_t>(n);
    }
  }
  return query;
}

std::string cities_json(const std::vector<platform::City>& cities) {
  plist::Array list;
  for (const platform::City& city : cities) {
    plist::Dict d;
    d.set("geonameid", static_cast<int64_t>(city.geonameid));
    d.set("name", city.name);
    d.set("country", city.country_code);
    d.set("admin", city.admin_code);
    d.set("zone", city.time_zone);
    d.set("population", static_cast<int64_t>(city.population));
    list.push_back(plist::Value(std::move(d)));
  }
  return plist::write_json(plist::Value(std::move(list)));
}

}  // namespace hubwardend::serve
