#include "hubwardend/serve/command_router.h"

#include <pwd.h>
#include <unistd.h>

#include <chrono>
#include <vector>

#include "hubwardend/serve/console_headers.h"
#include "hubwardend/serve/console_http.h"
#include "platform/log.h"
#include "plist/codec.h"
#include "plist/json.h"

namespace hubwardend::serve {
namespace {

constexpr const char kCommandsPrefix[] = "/commands/";
constexpr const char kInfoModule[] = "hubwarden_info";
constexpr const char kSessionPath[] = "/session";
constexpr const char kCitiesPath[] = "/console/cities";

HttpResponse text_response(int status, std::string text) {
  HttpResponse r;
  r.status = status;
  r.content_type = "text/plain; charset=utf-8";
  r.body = std::move(text) + "\n";
  return r;
}

HttpResponse unauthorized() {
  HttpResponse r = text_response(401, "authentication required");
  r.headers.emplace_back("WWW-Authenticate", "Basic realm=\"hubwardend\", charset=\"UTF-8\"");
  return r;
}

bool is_json(std::string_view content_type) {
  std::string_view base = content_type.substr(0, content_type.find(';'));
  while (!base.empty() && base.back() == ' ') base.remove_suffix(1);
  return base == "application/json";
}

// Calls that pause on purpose get their own workers, so that a handful of
// them cannot take every worker from the quick ones.
bool is_slow_command(std::string_view command) { return command == "listProcesses" || command == "writeSettings"; }

std::string_view path_of(std::string_view target) { return target.substr(0, target.find('?')); }

bool has_header(const HttpResponse& r, std::string_view name) {
  for (const auto& header : r.headers)
    if (header.first == name) return true;
  return false;
}

}  // namespace

struct CommandRouter::Call {
  HttpRequest request;
  Respond respond;
  std::chrono::steady_clock::time_point started = std::chrono::steady_clock::now();
  std::string user;
  bool is_root = false;
  std::string command = "other";  // the metrics label
  // The console's: errors go back as JSON, with its security headers.
  bool console = false;
  std::optional<WebSessions::Session> session;
  bool answered = false;

  void answer(HttpResponse response, Metrics* metrics) {
    if (answered) return;
    answered = true;
    if (console && !has_header(response, "Content-Security-Policy")) add_console_headers(&response);
    if (metrics) {
      double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
      metrics->count_request(command, response.status, seconds);
    }
    respond(std::move(response));
  }
};

std::string user_name_for_uid(uid_t uid) {
  std::vector<char> buffer(16384);
  struct passwd entry, *found = nullptr;
  if (getpwuid_r(uid, &entry, buffer.data(), buffer.size(), &found) == 0 && found && found->pw_name)
    return found->pw_name;
  return std::to_string(uid);
}

bool is_usable_module_name(std::string_view name) {
  if (name.empty() || name.size() > 64 || name.front() == '.') return false;
  for (char c : name) {
    bool ok =
        (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_' || c == '-' || c == '.';
    if (!ok) return false;
  }
  return name.find("..") == std::string_view::npos;
}

void CommandRouter::handle(HttpRequest request, Respond respond) {
  auto call = std::make_shared<Call>();
  call->request = std::move(request);
  call->respond = std::move(respond);
  const std::string& target = call->request.target;
  const std::string_view path = path_of(target);
  // The cookie decides for the console's requests; Basic and the socket's
  // credentials are for other clients. A console page whose cookie is gone
  // (logged out in another tab) still sends its token, and must get the
  // console's answer rather than the browser's own password dialog.
  call->console = parts_.sessions && call->request.entrance == Entrance::kHttps &&
                  (call->request.cookie.find(std::string(kSessionCookieName) + "=") != std::string::npos ||
                   !call->request.csrf_token.empty());

  if (parts_.sessions && path == kSessionPath) {
    call->console = true;
    return serve_session(call);
  }
  if (parts_.sessions && path == kCitiesPath) {
    call->console = true;
    return serve_cities(call);
  }

  if (target == "/metrics") {
    call->command = "metrics";
    if (call->request.method != "GET" && call->request.method != "HEAD") {
      HttpResponse r = text_response(405, "use GET");
      r.headers.emplace_back("Allow", "GET");
      return call->answer(std::move(r), parts_.metrics);
    }
    if (!parts_.metrics_need_authentication) return serve_metrics(call);
    return authenticate(call, [this](std::shared_ptr<Call> c) {
      if (tier_of(*c) == Tier::kNone) {
        platform::log_notice("hubwardend: " + c->user + " may not read the metrics");
        return refuse(c, 403, "not allowed");
      }
      serve_metrics(c);
    });
  }

  if (target.compare(0, sizeof kCommandsPrefix - 1, kCommandsPrefix) != 0) {
    const std::string& method = call->request.method;
    if (parts_.files && (method == "GET" || method == "HEAD")) {
      return call->answer(parts_.files->serve(call->request), parts_.metrics);
    }
    return refuse(call, 404, "no such resource");
  }
  std::string module = target.substr(sizeof kCommandsPrefix - 1);
  if (!is_usable_module_name(module)) return refuse(call, 404, "no such module");
  if (call->request.method != "POST") {
    HttpResponse r = call->console ? console_error(405, "use POST") : text_response(405, "use POST");
    r.headers.emplace_back("Allow", "POST");
    return call->answer(std::move(r), parts_.metrics);
  }
  authenticate(call, [this](std::shared_ptr<Call> c) { run_command(std::move(c)); });
}

Tier CommandRouter::tier_of(const Call& call) const {
  return parts_.is_member ? tier_for(call.user, call.is_root, parts_.is_member) : tier_for(call.user, call.is_root);
}

void CommandRouter::authenticate(std::shared_ptr<Call> call, std::function<void(std::shared_ptr<Call>)> next) {
  if (call->request.entrance == Entrance::kUnixSocket) {
    if (!call->request.peer_uid) return call->answer(unauthorized(), parts_.metrics);
    call->is_root = *call->request.peer_uid == 0;
    call->user = call->is_root ? "root" : user_name_for_uid(*call->request.peer_uid);
    return next(std::move(call));
  }
  if (call->console) {
    call->session = parts_.sessions->find(call->request.cookie);
    if (!call->session) return refuse(call, 401, "session expired");
    // A page of another site can make the browser send the cookie, but it
    // cannot read the token: every change must carry it.
    if (call->request.method != "GET" && call->request.method != "HEAD" &&
        !WebSessions::token_matches(*call->session, call->request.csrf_token))
      return refuse(call, 403, "missing or wrong anti-forgery token");
    call->user = call->session->user;
    return next(std::move(call));
  }
  std::optional<std::pair<std::string, std::string>> basic = parse_basic_authorization(call->request.authorization);
  if (!basic) return call->answer(unauthorized(), parts_.metrics);
  if (logins_.accepted_recently(basic->first, basic->second)) {
    call->user = basic->first;
    return next(std::move(call));
  }
  admit_login(std::move(call), std::move(basic->first), std::move(basic->second), std::move(next));
}

void CommandRouter::admit_login(std::shared_ptr<Call> call, std::string user, std::string password,
                                std::function<void(std::shared_ptr<Call>)> next) {
  std::optional<std::chrono::milliseconds> wait = parts_.throttle->admit(call->request.peer_address);
  if (!wait) {
    HttpResponse r = call->console ? console_error(429, "too many failed logins from this address; try again later")
                                   : text_response(429, "too many failed logins from this address; try again later");
    r.headers.emplace_back("Retry-After", "60");
    return call->answer(std::move(r), parts_.metrics);
  }
  std::chrono::milliseconds delay = *wait;
  if (delay.count() > 0 && parts_.loop) {
    auto shared_user = std::make_shared<std::string>(std::move(user));
    auto shared_password = std::make_shared<std::string>(std::move(password));
    platform::RunLoop::Id timer = parts_.loop->add_timer(delay, [this, call, shared_user, shared_password, next] {
      check_password(call, std::move(*shared_user), std::move(*shared_password), next);
    });
    if (timer == 0) refuse(call, 503, "busy, try again");
    return;
  }
  check_password(std::move(call), std::move(user), std::move(password), std::move(next));
}

void CommandRouter::check_password(std::shared_ptr<Call> call, std::string user, std::string password,
                                   std::function<void(std::shared_ptr<Call>)> next) {
  bool queued = parts_.logins->submit([this, call, user = std::move(user), password = std::move(password), next] {
    const std::string& address = call->request.peer_address;
    if (!parts_.passwords->check(user, password)) {
      parts_.throttle->record_failure(address);
      if (parts_.metrics) parts_.metrics->count_error("authentication");
      if (call->console) return refuse(call, 401, "wrong user name or password");
      return call->answer(unauthorized(), parts_.metrics);
    }
    parts_.throttle->record_success(address);
    logins_.remember(user, password);
    call->user = user;
    next(call);
  });
  if (!queued) refuse(call, 503, "busy, try again");
}

void CommandRouter::serve_metrics(std::shared_ptr<Call> call) {
  bool queued = parts_.requests->submit([this, call] {
    Metrics::Snapshot snapshot = parts_.snapshot ? parts_.snapshot() : Metrics::Snapshot{};
    HttpResponse r;
    r.content_type = kMetricsContentType;
    r.body = parts_.metrics->render(snapshot);
    r.headers.emplace_back("Cache-Control", "no-store");
    call->answer(std::move(r), parts_.metrics);
  });
  if (!queued) refuse(call, 503, "busy, try again");
}

void CommandRouter::run_command(std::shared_ptr<Call> call) {
  const HttpRequest& http = call->request;
  const bool json = is_json(http.content_type);
  plist::Parsed parsed = json ? plist::parse_json(http.body) : plist::parse_any(http.body);
  if (!parsed.ok()) return refuse(call, 400, "the body is not a property list: " + parsed.error);
  const plist::Dict* request = parsed.value.as_dict();
  if (!request) return refuse(call, 400, "the request is not a dictionary");

  const std::string module = http.target.substr(sizeof kCommandsPrefix - 1);
  if (module == kInfoModule) {
    // The metrics keep only the commands they know, so a client cannot
    // grow their label set.
    if (const std::string* command = request->find_string("command")) call->command = *command;
  } else {
    call->command = "module";
  }

  std::vector<std::string> names = parts_.modules->module_names();
  bool known = false;
  for (const std::string& name : names) known = known || name == module;
  if (!known) return refuse(call, 404, "no such module");

  Tier tier = tier_of(*call);
  std::optional<std::string> refusal =
      parts_.access_groups ? refusal_for(*request, tier, *parts_.access_groups) : refusal_for(*request, tier);
  if (refusal) {
    platform::log_notice("hubwardend: refused " + call->command + " from " + call->user + ": " + *refusal);
    return refuse(call, 403, *refusal);
  }

  const std::string* command = request->find_string("command");
  WorkerPool* pool = command && is_slow_command(*command) ? parts_.slow_requests : parts_.requests;
  auto body = std::make_shared<plist::Dict>(std::move(*parsed.value.as_dict()));
  bool queued = pool->submit([this, call, body, module, json] {
    std::optional<plist::Dict> reply = parts_.modules->do_command(*body, module, call->user);
    if (parts_.after_call) parts_.after_call();
    HttpResponse r;
    r.headers.emplace_back("Cache-Control", "no-store");
    if (!reply) {
      r.status = 204;
    } else if (json) {
      r.content_type = "application/json";
      r.body = plist::write_json(plist::Value(std::move(*reply)));
    } else {
      r.content_type = "application/xml; charset=utf-8";
      r.body = plist::write_xml(plist::Value(std::move(*reply)));
    }
    call->answer(std::move(r), parts_.metrics);
  });
  if (!queued) refuse(call, 503, "busy, try again");
}

void CommandRouter::refuse(std::shared_ptr<Call> call, int status, const std::string& text) {
  HttpResponse r = call->console ? console_error(status, text) : text_response(status, text);
  if (status == 503) r.headers.emplace_back("Retry-After", "1");
  call->answer(std::move(r), parts_.metrics);
}

void CommandRouter::serve_session(std::shared_ptr<Call> call) {
  const std::string& method = call->request.method;
  call->command = "session";
  if (method == "GET") {
    std::optional<WebSessions::Session> session = parts_.sessions->find(call->request.cookie);
    if (!session) return refuse(call, 401, "not logged in");
    return call->answer(console_session_reply(*session), parts_.metrics);
  }
  if (method == "DELETE") {
    std::optional<WebSessions::Session> session = parts_.sessions->find(call->request.cookie);
    if (!session) return refuse(call, 401, "not logged in");
    if (!WebSessions::token_matches(*session, call->request.csrf_token))
      return refuse(call, 403, "missing or wrong anti-forgery token");
    parts_.sessions->end(session->id);
    HttpResponse r;
    r.status = 204;
    r.headers.emplace_back("Set-Cookie", cleared_session_cookie());
    r.headers.emplace_back("Cache-Control", "no-store");
    return call->answer(std::move(r), parts_.metrics);
  }
  if (method != "POST") {
    HttpResponse r = console_error(405, "use GET, POST or DELETE");
    r.headers.emplace_back("Allow", "GET, POST, DELETE");
    return call->answer(std::move(r), parts_.metrics);
  }
  // The server does not know the name it is reached by, so a login from a
  // page of another https site is not told apart here: SameSite=Strict and
  // the token keep such a page from using the session it would make. What
  // is refused is a page served without TLS, which could be anyone's.
  const std::string& origin = call->request.origin;
  if (!origin.empty() && origin.compare(0, 8, "https://") != 0)
    return refuse(call, 403, "logins are accepted from the console's own pages only");
  std::optional<std::pair<std::string, std::string>> login = parse_console_login(call->request.body);
  if (!login) return refuse(call, 400, "the login needs a user name and a password");
  admit_login(call, std::move(login->first), std::move(login->second), [this](std::shared_ptr<Call> c) {
    Tier tier = tier_of(*c);
    if (tier == Tier::kNone) {
      platform::log_notice("hubwardend: " + c->user + " may not use the console");
      return refuse(c, 403, "this account may not use the console");
    }
    std::optional<WebSessions::Session> session = parts_.sessions->create(c->user, tier);
    if (!session) return refuse(c, 503, "busy, try again");
    HttpResponse r = console_session_reply(*session);
    r.headers.emplace_back("Set-Cookie", session_cookie(session->id));
    c->answer(std::move(r), parts_.metrics);
  });
}

void CommandRouter::serve_cities(std::shared_ptr<Call> call) {
  if (call->request.method != "GET" && call->request.method != "HEAD") {
    HttpResponse r = console_error(405, "use GET");
    r.headers.emplace_back("Allow", "GET");
    return call->answer(std::move(r), parts_.metrics);
  }
  if (!parts_.sessions->find(call->request.cookie))
    return refuse(call, 401, call->request.cookie.empty() ? "not logged in" : "session expired");
  std::optional<CityQuery> query = parse_city_query(call->request.target);
  if (!query) return refuse(call, 400, "the city search needs a text and a number");
  // A scan of every city takes milliseconds: not on an I/O thread.
  bool queued = parts_.requests->submit([this, call, query = std::move(*query)] {
    std::vector<platform::City> found =
        parts_.cities ? parts_.cities->search(query.text, query.limit) : std::vector<platform::City>{};
    HttpResponse r;
    r.content_type = "application/json";
    r.body = cities_json(found);
    r.headers.emplace_back("Cache-Control", "no-store");
    call->answer(std::move(r), parts_.metrics);
  });
  if (!queued) refuse(call, 503, "busy, try again");
}

}  // namespace hubwardend::serve
