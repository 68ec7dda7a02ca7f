// The pieces of the web console's HTTP exchange that are plain text work:
// its JSON replies, its cookie headers and the city search's query. Kept
// apart from the router so that the router reads as decisions only.
//
// Thread-safety: pure functions.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "hubwardend/serve/http_types.h"
#include "hubwardend/serve/web_sessions.h"
#include "platform/city_database.h"

namespace hubwardend::serve {

// A reply with body {"error": text} and the console's security headers.
HttpResponse console_error(int status, std::string_view text);

// 200 with {"user": ..., "tier": "admin"|"monitor", "csrf": ...}.
HttpResponse console_session_reply(const WebSessions::Session& session);

// Set-Cookie values that give the browser the session and take it away.
std::string session_cookie(const std::string& id);
std::string cleared_session_cookie();

// The user name and password of a login body {"user": ..., "password":
// ...}; nullopt when the body is no such JSON object, or the name is empty,
// longer than 256 bytes or holds a control character, or the password
// holds a NUL.
std::optional<std::pair<std::string, std::string>> parse_console_login(std::string_view body);

struct CityQuery {
  std::string text;
  size_t limit = 20;
};
inline constexpr size_t kMaxCityResults = 50;

// The q and limit parameters of a /console/cities target (percent escapes
// and "+" decoded; limit clamped to 1..kMaxCityResults). nullopt when an
// escape is malformed or limit is not a number.
std::optional<CityQuery> parse_city_query(std::string_view target);

// The JSON array the city search answers with.
std::string cities_json(const std::vector<platform::City>& cities);

}  // namespace hubwardend::serve
