// Turns each HTTP request of the entrances into a module call: picks the
// module from the path, works out the user (peer credentials on the local
// socket, HTTP Basic checked by PAM over HTTPS), refuses what the user's
// tier does not allow, decodes the body (XML property list, or JSON), runs
// the call on a worker and encodes the reply in the form the request came
// in. GET /metrics gives the Prometheus text; any other GET or HEAD is a
// file of the web console.
//
// The console logs in with POST /session and then sends its session cookie
// instead of a password. A request that carries the cookie is judged by
// the cookie alone (an Authorization header beside it is ignored), must
// send the session's anti-forgery token with every POST and DELETE, and
// gets its errors as JSON {"error": ...}, never with a WWW-Authenticate
// challenge that would make the browser ask for a password itself.
//
// Nothing blocks the I/O thread that calls handle(): password checks and
// module calls run on worker pools, and the slowing-down of repeated
// failures is a timer on the run loop. Safe from any thread.
#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "hubwardend/serve/authorization.h"
#include "hubwardend/serve/credential_cache.h"
#include "hubwardend/serve/http_types.h"
#include "hubwardend/serve/login_throttle.h"
#include "hubwardend/serve/metrics.h"
#include "hubwardend/serve/pam_authenticator.h"
#include "hubwardend/serve/static_files.h"
#include "hubwardend/serve/web_sessions.h"
#include "hubwardend/serve/worker_pool.h"
#include "platform/city_database.h"
#include "platform/host_services.h"
#include "platform/run_loop.h"
#include "plist/value.h"

namespace hubwardend::serve {

struct RouterParts {
  platform::ModuleManager* modules = nullptr;  // answers the calls
  PasswordChecker* passwords = nullptr;        // HTTPS logins
  LoginThrottle* throttle = nullptr;
  Metrics* metrics = nullptr;
  platform::RunLoop* loop = nullptr;    // timers for slowed-down logins
  WorkerPool* requests = nullptr;       // module calls
  WorkerPool* slow_requests = nullptr;  // calls known to pause (listProcesses)
  WorkerPool* logins = nullptr;         // PAM conversations
  // The figures /metrics shows besides the request counters.
  std::function<Metrics::Snapshot()> snapshot;
  // Called on the worker after every module call (the daemon stores a
  // context marked dirty).
  std::function<void()> after_call;
  bool metrics_need_authentication = true;
  // Stand-ins for the directory and the module's group lists (tests);
  // unset, the platform's are used.
  MembershipTest is_member;
  std::optional<AccessListGroups> access_groups;
  // The web console's files, for every GET or HEAD that names no other
  // resource; null: those answer 404.
  StaticFiles* files = nullptr;
  // The console's logins (/session and the hw_session cookie) and its city
  // search; null: those paths answer 404 and cookies are not looked at.
  WebSessions* sessions = nullptr;
  platform::CityDatabase* cities = nullptr;
};

class CommandRouter : public RequestHandler {
 public:
  explicit CommandRouter(RouterParts parts) : parts_(std::move(parts)) {}
  CommandRouter(const CommandRouter&) = delete;
  CommandRouter& operator=(const CommandRouter&) = delete;

  void handle(HttpRequest request, Respond respond) override;

  // Forgets remembered passwords (after a configuration reload).
  void forget_logins() { logins_.clear(); }

 private:
  struct Call;
  // Works out the caller, then continues with next(user) or answers 401.
  void authenticate(std::shared_ptr<Call> call, std::function<void(std::shared_ptr<Call>)> next);
  // Checks a password, slowed down by the throttle, and continues with
  // next(user) when it is right.
  void admit_login(std::shared_ptr<Call> call, std::string user, std::string password,
                   std::function<void(std::shared_ptr<Call>)> next);
  void check_password(std::shared_ptr<Call> call, std::string user, std::string password,
                      std::function<void(std::shared_ptr<Call>)> next);
  // Answers with the status and text, as JSON for the console.
  void refuse(std::shared_ptr<Call> call, int status, const std::string& text);
  void serve_session(std::shared_ptr<Call> call);
  void serve_cities(std::shared_ptr<Call> call);
  void serve_metrics(std::shared_ptr<Call> call);
  void run_command(std::shared_ptr<Call> call);
  Tier tier_of(const Call& call) const;

  RouterParts parts_;
  CredentialCache logins_;
};

// The name of the local user uid, or its decimal form when the user
// database has no entry.
std::string user_name_for_uid(uid_t uid);

// A module name as it may appear in a path: letters, digits, "_", "-" and
// "." (not leading), at most 64 bytes.
bool is_usable_module_name(std::string_view name);

}  // namespace hubwardend::serve
