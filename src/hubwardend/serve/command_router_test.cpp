#include "hubwardend/serve/command_router.h"

#include <gtest/gtest.h>

#include <future>
#include <mutex>

#include "platform/fake/fake_cities.h"
#include "plist/codec.h"
#include "plist/json.h"

namespace hubwardend::serve {
namespace {

// Answers every call with the command and user it was sent for; "silent"
// gives no reply.
class EchoModules : public platform::ModuleManager {
 public:
  std::vector<std::string> module_names() override { return {"hubwarden_info", "hubwarden_dns"}; }
  std::optional<plist::Dict> do_command(const plist::Dict& request, const std::string& module,
                                        const std::string& user) override {
    std::lock_guard<std::mutex> lock(mu_);
    ++calls;
    const std::string* command = request.find_string("command");
    if (command && *command == "silent") return std::nullopt;
    plist::Dict reply;
    reply.set("module", module);
    reply.set("user", user);
    reply.set("count", uint64_t{18446744073709551615u});
    return reply;
  }
  plist::Dict* get_and_lock_context(const std::string&, int*, bool*) override { return nullptr; }
  void set_and_unlock_context(plist::Dict*, const std::string&, int*) override {}
  std::mutex mu_;
  int calls = 0;
};

class Passwords : public PasswordChecker {
 public:
  bool check(const std::string& user, const std::string& password) override {
    ++checks;
    return (user == "ann" || user == "mo" || user == "zed") && password == "pw";
  }
  std::atomic<int> checks{0};
};

class CommandRouterTest : public ::testing::Test {
 protected:
  CommandRouterTest() : requests_("t-req", 2, 16), slow_("t-slow", 1, 4), logins_("t-login", 1, 16) {
    RouterParts parts;
    parts.modules = &modules_;
    parts.passwords = &passwords_;
    parts.throttle = &throttle_;
    parts.metrics = &metrics_;
    parts.requests = &requests_;
    parts.slow_requests = &slow_;
    parts.logins = &logins_;
    parts.is_member = [](const std::string& user, const std::string& group) {
      return (user == "ann" && group == "admin") || (user == "mo" && group == "com.marlo.monitor_info");
    };
    parts.access_groups = AccessListGroups{{"com.marlo.access_ssh"}, {"com.marlo.admin_ssh"}, {}};
    parts.sessions = &sessions_;
    parts.cities = &cities_;
    cities_.add(platform::fake_paris());
    cities_.add(platform::fake_los_angeles());
    cities_.add(platform::City{4717560, "Paris", "Paris", "US", "TX", 33.66, -95.55, 24782, "America/Chicago"});
    cities_.add(platform::City{2657896, "Zürich", "Zurich", "CH", "ZH", 47.37, 8.55, 341730, "Europe/Zurich"});
    router_ = std::make_unique<CommandRouter>(std::move(parts));
  }

  HttpResponse send(HttpRequest request) {
    std::promise<HttpResponse> answer;
    router_->handle(std::move(request), [&answer](HttpResponse r) { answer.set_value(std::move(r)); });
    return answer.get_future().get();
  }
  static HttpRequest over_https(std::string target, std::string body, std::string credentials) {
    HttpRequest r;
    r.entrance = Entrance::kHttps;
    r.method = "POST";
    r.target = std::move(target);
    r.body = std::move(body);
    r.peer_address = "192.0.2.7";
    if (!credentials.empty()) r.authorization = "Basic " + credentials;
    return r;
  }
  static std::string command(const char* name) {
    plist::Dict d;
    d.set("command", std::string(name));
    return plist::write_xml(plist::Value(std::move(d)));
  }

  // Logs in through the console; returns the reply.
  HttpResponse login(const std::string& user, const std::string& password) {
    HttpRequest r = over_https("/session", R"({"user": ")" + user + R"(", "password": ")" + password + R"("})", "");
    r.content_type = "application/json";
    r.origin = "https://server.example:311";
    return send(r);
  }
  static HttpRequest with_cookie(HttpRequest r, const std::string& cookie, const std::string& token) {
    r.cookie = cookie;
    r.csrf_token = token;
    r.content_type = "application/json";
    return r;
  }

  EchoModules modules_;
  WebSessions sessions_;
  platform::FakeCityDatabase cities_;
  Passwords passwords_;
  LoginThrottle throttle_;
  Metrics metrics_;
  WorkerPool requests_, slow_, logins_;
  std::unique_ptr<CommandRouter> router_;
};

constexpr const char kAnn[] = "YW5uOnB3";  // ann:pw
constexpr const char kMo[] = "bW86cHc=";   // mo:pw
constexpr const char kBad[] = "YW5uOng=";  // ann:x

TEST_F(CommandRouterTest, EachRefusalHasItsStatusAndNeverReachesTheModule) {
  EXPECT_EQ(send(over_https("/commands/hubwarden_info", command("getState"), "")).status, 401);
  EXPECT_EQ(send(over_https("/commands/hubwarden_info", command("getState"), kBad)).status, 401);
  EXPECT_EQ(send(over_https("/commands/nope", command("getState"), kAnn)).status, 404);
  for (const char* target : {"/commands/../x", "/commands/", "/commands/a/b", "/other", "/commands/.hidden"})
    EXPECT_EQ(send(over_https(target, command("getState"), kAnn)).status, 404) << target;
  HttpRequest get = over_https("/commands/hubwarden_info", "", kAnn);
  get.method = "GET";
  EXPECT_EQ(send(get).status, 405);
  EXPECT_EQ(send(over_https("/commands/hubwarden_info", "<plist><dict>", kAnn)).status, 400);
  EXPECT_EQ(send(over_https("/commands/hubwarden_info", "<plist><array/></plist>", kAnn)).status, 400);
  // A monitor reads but does not write; access lists never name "admin".
  EXPECT_EQ(send(over_https("/commands/hubwarden_info", command("writeSettings"), kMo)).status, 403);
  plist::Dict record, configuration, write;
  record.set("_id_", std::string("admin"));
  configuration.set("accessControlLists", plist::Array{plist::Value(record)});
  write.set("command", std::string("writeSettings"));
  write.set("configuration", configuration);
  EXPECT_EQ(send(over_https("/commands/hubwarden_info", plist::write_xml(plist::Value(write)), kAnn)).status, 403);
  EXPECT_EQ(modules_.calls, 0);
}

TEST_F(CommandRouterTest, AnswersInTheRequestsFormAndRemembersLogins) {
  HttpResponse xml = send(over_https("/commands/hubwarden_info", command("getState"), kAnn));
  ASSERT_EQ(xml.status, 200);
  plist::Parsed reply = plist::parse_xml(xml.body);
  ASSERT_TRUE(reply.ok());
  EXPECT_EQ(*reply.value.as_dict()->find_string("user"), "ann");

  HttpRequest json = over_https("/commands/hubwarden_dns", R"({"command":"getState"})", kAnn);
  json.content_type = "application/json; charset=utf-8";
  HttpResponse answer = send(json);
  ASSERT_EQ(answer.status, 200);
  EXPECT_EQ(answer.content_type, "application/json");
  plist::Parsed parsed = plist::parse_json(answer.body);
  ASSERT_TRUE(parsed.ok()) << answer.body;
  EXPECT_EQ(*parsed.value.as_dict()->find_string("module"), "hubwarden_dns");
  const uint64_t* count = parsed.value.as_dict()->find("count")->as_unsigned();
  ASSERT_NE(count, nullptr);
  EXPECT_EQ(*count, 18446744073709551615u);

  EXPECT_EQ(send(over_https("/commands/hubwarden_info", command("silent"), kAnn)).status, 204);
  // One password check for ann, however many requests she sends.
  EXPECT_EQ(passwords_.checks.load(), 1);
}

TEST_F(CommandRouterTest, TheLocalSocketNamesItsPeerWithoutAPassword) {
  HttpRequest local = over_https("/commands/hubwarden_info", command("writeSettings"), "");
  local.entrance = Entrance::kUnixSocket;
  local.peer_uid = 0;
  HttpResponse root = send(local);
  ASSERT_EQ(root.status, 200);
  EXPECT_NE(root.body.find("<string>root</string>"), std::string::npos);
  // A uid with no tier is refused; a peer without credentials is not served.
  local.peer_uid = 4000000000u;
  EXPECT_EQ(send(local).status, 403);
  local.peer_uid.reset();
  EXPECT_EQ(send(local).status, 401);
  EXPECT_EQ(passwords_.checks.load(), 0);
}

std::string header(const HttpResponse& r, const std::string& name) {
  for (const auto& [key, value] : r.headers)
    if (key == name) return value;
  return "";
}

TEST_F(CommandRouterTest, ConsoleLoginsGiveSessionsToThoseWithATier) {
  HttpResponse ok = login("ann", "pw");
  ASSERT_EQ(ok.status, 200) << ok.body;
  plist::Parsed reply = plist::parse_json(ok.body);
  ASSERT_TRUE(reply.ok());
  const plist::Dict& d = *reply.value.as_dict();
  EXPECT_EQ(*d.find_string("user"), "ann");
  EXPECT_EQ(*d.find_string("tier"), "admin");
  const std::string cookie = header(ok, "Set-Cookie");
  EXPECT_NE(cookie.find("; Path=/; HttpOnly; Secure; SameSite=Strict"), std::string::npos);
  EXPECT_EQ(header(ok, "X-Content-Type-Options"), "nosniff");

  HttpRequest again = over_https("/session", "", "");
  again.method = "GET";
  again.cookie = cookie.substr(0, cookie.find(';'));
  HttpResponse picked_up = send(again);
  EXPECT_EQ(picked_up.status, 200);
  EXPECT_EQ(plist::parse_json(picked_up.body).value.as_dict()->find_string("csrf")->size(), 64u);

  HttpResponse wrong = login("ann", "nope");
  EXPECT_EQ(wrong.status, 401);
  EXPECT_EQ(wrong.body, R"({"error":"wrong user name or password"})");
  EXPECT_EQ(header(wrong, "WWW-Authenticate"), "");
  HttpResponse outsider = login("zed", "pw");
  EXPECT_EQ(outsider.status, 403);
  EXPECT_EQ(header(outsider, "Set-Cookie"), "");
  EXPECT_EQ(sessions_.size(), 1u);

  HttpRequest plain_page = over_https("/session", R"({"user":"ann","password":"pw"})", "");
  plain_page.origin = "http://evil.example";
  EXPECT_EQ(send(plain_page).status, 403);
  EXPECT_EQ(send(over_https("/session", R"({"user":"ann"})", "")).status, 400);
}

TEST_F(CommandRouterTest, CookieRequestsNeedTheTokenAndALiveSession) {
  HttpResponse ann = login("ann", "pw");
  const std::string cookie = header(ann, "Set-Cookie").substr(0, header(ann, "Set-Cookie").find(';'));
  const std::string token = *plist::parse_json(ann.body).value.as_dict()->find_string("csrf");
  const HttpRequest state = over_https("/commands/hubwarden_info", R"({"command":"getState"})", "");

  std::string wrong = token;
  wrong[0] = wrong[0] == 'a' ? 'b' : 'a';
  for (const std::string& t : {std::string(), wrong}) {
    HttpResponse refused = send(with_cookie(state, cookie, t));
    EXPECT_EQ(refused.status, 403);
    EXPECT_EQ(refused.body, R"({"error":"missing or wrong anti-forgery token"})");
  }
  EXPECT_EQ(modules_.calls, 0);

  // The cookie decides, whatever Basic header comes with it.
  HttpRequest both = with_cookie(state, cookie, token);
  both.authorization = std::string("Basic ") + kMo;
  HttpResponse served = send(both);
  ASSERT_EQ(served.status, 200);
  EXPECT_EQ(*plist::parse_json(served.body).value.as_dict()->find_string("user"), "ann");
  EXPECT_FALSE(header(served, "Content-Security-Policy").empty());

  HttpResponse mo = login("mo", "pw");
  const std::string mo_cookie = header(mo, "Set-Cookie").substr(0, header(mo, "Set-Cookie").find(';'));
  const std::string mo_token = *plist::parse_json(mo.body).value.as_dict()->find_string("csrf");
  HttpRequest write = over_https("/commands/hubwarden_info", R"({"command":"writeSettings"})", "");
  HttpResponse monitor = send(with_cookie(write, mo_cookie, mo_token));
  EXPECT_EQ(monitor.status, 403);
  EXPECT_EQ(monitor.body.front(), '{');
  EXPECT_EQ(send(with_cookie(state, mo_cookie, token)).status, 403);  // another session's token

  // Logging out needs the token too; afterwards the cookie is worthless.
  HttpRequest logout = with_cookie(over_https("/session", "", ""), cookie, "");
  logout.method = "DELETE";
  EXPECT_EQ(send(logout).status, 403);
  logout.csrf_token = token;
  HttpResponse out = send(logout);
  EXPECT_EQ(out.status, 204);
  EXPECT_NE(header(out, "Set-Cookie").find("Max-Age=0"), std::string::npos);
  HttpResponse expired = send(with_cookie(state, cookie, token));
  EXPECT_EQ(expired.status, 401);
  EXPECT_EQ(expired.body, R"({"error":"session expired"})");
  EXPECT_EQ(header(expired, "WWW-Authenticate"), "");
  HttpResponse forged = send(with_cookie(state, "hw_session=" + std::string(64, '0'), token));
  EXPECT_EQ(forged.status, 401);
  // The browser dropped the cookie (a logout in another tab); the page's
  // token alone still marks it as the console.
  HttpResponse cookieless = send(with_cookie(state, "", token));
  EXPECT_EQ(cookieless.status, 401);
  EXPECT_EQ(header(cookieless, "WWW-Authenticate"), "");

  // Basic clients are served as before.
  HttpResponse basic = send(over_https("/commands/hubwarden_info", command("getState"), kAnn));
  EXPECT_EQ(basic.status, 200);
  EXPECT_EQ(basic.content_type, "application/xml; charset=utf-8");
}

TEST_F(CommandRouterTest, CitySearchNeedsASessionAndRanksPrefixesByPopulation) {
  HttpResponse ann = login("ann", "pw");
  const std::string cookie = header(ann, "Set-Cookie").substr(0, header(ann, "Set-Cookie").find(';'));
  auto search = [&](const std::string& query, const std::string& with_cookie) {
    HttpRequest r = over_https("/console/cities?" + query, "", "");
    r.method = "GET";
    r.cookie = with_cookie;
    return send(r);
  };
  HttpResponse paris = search("q=PAR&limit=5", cookie);
  ASSERT_EQ(paris.status, 200);
  EXPECT_EQ(paris.body, R"([{"geonameid":2988507,"name":"Paris","country":"FR","admin":"11","zone":"Europe/Paris",)"
                        R"("population":2138551},{"geonameid":4717560,"name":"Paris","country":"US","admin":"TX",)"
                        R"("zone":"America/Chicago","population":24782}])");
  EXPECT_EQ(search("q=paris&limit=1", cookie).body.find("Chicago"), std::string::npos);
  EXPECT_NE(search("q=zurich", cookie).body.find("Z\u00fcrich"), std::string::npos) << search("q=zurich", cookie).body;
  EXPECT_NE(search("q=angeles", cookie).body.find("Los Angeles"), std::string::npos);
  EXPECT_EQ(search("q=", cookie).body, "[]");
  EXPECT_EQ(search("q=p&limit=x", cookie).status, 400);
  EXPECT_EQ(search("q=par", "").status, 401);
}

}  // namespace
}  // namespace hubwardend::serve
