#include "hubwardend/serve/command_router.h"

#include <pwd.h>
#include <unistd.h>

#include <chrono>
#include <vector>

#include "platform/log.h"
#include "plist/codec.h"
#include "plist/json.h"

namespace hubwardend::serve {
namespace {

constexpr const char kCommandsPrefix[] = "/commands/";
constexpr const char kInfoModule[] = "hubwarden_info";

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

HttpResponse busy() {
  HttpResponse r = text_response(503, "busy, try again");
  r.headers.emplace_back("Retry-After", "1");
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

}  // namespace

struct CommandRouter::Call {
  HttpRequest request;
  Respond respond;
  std::chrono::steady_clock::time_point started = std::chrono::steady_clock::now();
  std::string user;
  bool is_root = false;
  std::string command = "other";  // the metrics label
  bool answered = false;

  void answer(HttpResponse response, Metrics* metrics) {
    if (answered) return;
    answered = true;
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
        return c->answer(text_response(403, "not allowed"), parts_.metrics);
      }
      serve_metrics(c);
    });
  }

  if (target.compare(0, sizeof kCommandsPrefix - 1, kCommandsPrefix) != 0) {
    const std::string& method = call->request.method;
    if (parts_.files && (method == "GET" || method == "HEAD")) {
      return call->answer(parts_.files->serve(call->request), parts_.metrics);
    }
    return call->answer(text_response(404, "no such resource"), parts_.metrics);
  }
  std::string module = target.substr(sizeof kCommandsPrefix - 1);
  if (!is_usable_module_name(module)) return call->answer(text_response(404, "no such module"), parts_.metrics);
  if (call->request.method != "POST") {
    HttpResponse r = text_response(405, "use POST");
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
  std::optional<std::pair<std::string, std::string>> basic = parse_basic_authorization(call->request.authorization);
  if (!basic) return call->answer(unauthorized(), parts_.metrics);
  if (logins_.accepted_recently(basic->first, basic->second)) {
    call->user = basic->first;
    return next(std::move(call));
  }
  std::optional<std::chrono::milliseconds> wait = parts_.throttle->admit(call->request.peer_address);
  if (!wait) {
    HttpResponse r = text_response(429, "too many failed logins from this address; try again later");
    r.headers.emplace_back("Retry-After", "60");
    return call->answer(std::move(r), parts_.metrics);
  }
  std::chrono::milliseconds delay = *wait;
  if (delay.count() > 0 && parts_.loop) {
    auto user = std::make_shared<std::string>(std::move(basic->first));
    auto password = std::make_shared<std::string>(std::move(basic->second));
    platform::RunLoop::Id timer = parts_.loop->add_timer(delay, [this, call, user, password, next] {
      check_password(call, std::move(*user), std::move(*password), next);
    });
    if (timer == 0) call->answer(busy(), parts_.metrics);
    return;
  }
  check_password(std::move(call), std::move(basic->first), std::move(basic->second), std::move(next));
}

void CommandRouter::check_password(std::shared_ptr<Call> call, std::string user, std::string password,
                                   std::function<void(std::shared_ptr<Call>)> next) {
  bool queued = parts_.logins->submit([this, call, user = std::move(user), password = std::move(password), next] {
    const std::string& address = call->request.peer_address;
    if (!parts_.passwords->check(user, password)) {
      parts_.throttle->record_failure(address);
      if (parts_.metrics) parts_.metrics->count_error("authentication");
      return call->answer(unauthorized(), parts_.metrics);
    }
    parts_.throttle->record_success(address);
    logins_.remember(user, password);
    call->user = user;
    next(call);
  });
  if (!queued) call->answer(busy(), parts_.metrics);
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
  if (!queued) call->answer(busy(), parts_.metrics);
}

void CommandRouter::run_command(std::shared_ptr<Call> call) {
  const HttpRequest& http = call->request;
  const bool json = is_json(http.content_type);
  plist::Parsed parsed = json ? plist::parse_json(http.body) : plist::parse_any(http.body);
  if (!parsed.ok())
    return call->answer(text_response(400, "the body is not a property list: " + parsed.error), parts_.metrics);
  const plist::Dict* request = parsed.value.as_dict();
  if (!request) return call->answer(text_response(400, "the request is not a dictionary"), parts_.metrics);

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
  if (!known) return call->answer(text_response(404, "no such module"), parts_.metrics);

  Tier tier = tier_of(*call);
  std::optional<std::string> refusal =
      parts_.access_groups ? refusal_for(*request, tier, *parts_.access_groups) : refusal_for(*request, tier);
  if (refusal) {
    platform::log_notice("hubwardend: refused " + call->command + " from " + call->user + ": " + *refusal);
    return call->answer(text_response(403, *refusal), parts_.metrics);
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
  if (!queued) call->answer(busy(), parts_.metrics);
}

}  // namespace hubwardend::serve
