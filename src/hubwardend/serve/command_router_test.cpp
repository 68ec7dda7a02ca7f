#include "hubwardend/serve/command_router.h"

#include <gtest/gtest.h>

#include <future>
#include <mutex>

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
    return (user == "ann" && password == "pw") || (user == "mo" && password == "pw");
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

  EchoModules modules_;
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

}  // namespace
}  // namespace hubwardend::serve
