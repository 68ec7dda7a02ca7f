// Tests of the whole program against a daemon played by the test: the
// request each command line sends, where it goes, what is printed, and the
// exit status of every kind of outcome.
#include "hubwarden_client/client.h"

#include <gtest/gtest.h>

#include <deque>
#include <map>
#include <sstream>

#include "plist/codec.h"
#include "plist/json.h"

namespace hubwarden_client {
namespace {

// Answers each post with the reply the test queued (200 with an XML body
// unless it set a status), or 204 when nothing is queued.
struct FakeDaemon {
  struct Canned {
    long status = 200;
    std::string body;
    std::string error;  // a transport failure instead of an answer
  };
  std::vector<plist::Dict> requests;
  std::vector<std::string> modules;
  std::vector<Endpoint> endpoints;
  std::deque<Canned> replies;
  std::function<plist::Dict(const plist::Dict&)> answer;  // used when nothing is queued

  void reply(const plist::Dict& d) { replies.push_back({200, plist::write_xml(plist::Value(d)), ""}); }
  void status(long code, std::string body = "") { replies.push_back({code, std::move(body), ""}); }
  void fail(std::string error) { replies.push_back({0, "", std::move(error)}); }

  PostResult post(const std::string& module, const std::string& type, const std::string& body) {
    EXPECT_EQ(type, "application/xml");
    plist::Parsed parsed = plist::parse_xml(body);
    EXPECT_TRUE(parsed.ok()) << parsed.error;
    requests.push_back(parsed.value.as_dict() ? *parsed.value.as_dict() : plist::Dict{});
    modules.push_back(module);
    PostResult result;
    if (replies.empty()) {
      result.ok = true;
      if (answer) {
        result.reply = {200, "application/xml", plist::write_xml(plist::Value(answer(requests.back())))};
      } else {
        result.reply.status = 204;
      }
      return result;
    }
    Canned canned = replies.front();
    replies.pop_front();
    if (!canned.error.empty()) {
      result.error = canned.error;
      return result;
    }
    result.ok = true;
    result.reply = {canned.status, "application/xml", canned.body};
    return result;
  }
};

class FakeTransport : public Transport {
 public:
  explicit FakeTransport(FakeDaemon& daemon) : daemon_(daemon) {}
  PostResult post(const std::string& module, const std::string& type, const std::string& body) override {
    return daemon_.post(module, type, body);
  }

 private:
  FakeDaemon& daemon_;
};

class ClientTest : public ::testing::Test {
 protected:
  ClientTest() {
    io_.env = [this](const std::string& name) -> std::optional<std::string> {
      auto it = env_.find(name);
      if (it == env_.end()) return std::nullopt;
      return it->second;
    };
    io_.read_stdin = [this] { return stdin_; };
    io_.read_password = [this](const std::string& prompt) {
      prompts_.push_back(prompt);
      return typed_password_;
    };
    io_.connect = [this](const Endpoint& endpoint) {
      daemon_.endpoints.push_back(endpoint);
      return std::make_unique<FakeTransport>(daemon_);
    };
    io_.pause = [this](int) { return polls_left_-- > 0; };
    io_.local_user = [] { return std::string("alice"); };
    io_.out = &out_;
    io_.err = &err_;
  }

  int run(std::vector<std::string> args) {
    out_.str("");
    err_.str("");
    return run_client(args, io_);
  }
  const plist::Dict& last_request() { return daemon_.requests.back(); }

  FakeDaemon daemon_;
  ClientIo io_;
  std::map<std::string, std::string> env_;
  std::optional<std::string> stdin_;
  std::optional<std::string> typed_password_;
  std::vector<std::string> prompts_;
  int polls_left_ = 0;
  std::ostringstream out_;
  std::ostringstream err_;
};

TEST_F(ClientTest, CommandLinesBecomeRequests) {
  EXPECT_EQ(run({"getHistory", "timeScale=60", "variant=v1"}), kExitErrorReply);  // 204: no reply
  EXPECT_EQ(*last_request().find_string("command"), "getHistory");
  EXPECT_EQ(*last_request().find("timeScale")->as_integer(), 60);
  EXPECT_EQ(daemon_.modules.back(), "hubwarden_info");
  EXPECT_NE(err_.str().find("getHistory: no reply"), std::string::npos) << err_.str();

  // "command" typed as an argument cannot replace the command word.
  daemon_.reply(plist::Dict{{"ok", true}});
  EXPECT_EQ(run({"--module", "hubwarden_dns", "getState", "command=reboot", "list:=[1,\"a\"]"}), kExitOk);
  EXPECT_EQ(*last_request().find_string("command"), "getState");
  EXPECT_EQ(last_request().find_array("list")->size(), 2u);
  EXPECT_EQ(daemon_.modules.back(), "hubwarden_dns");
  EXPECT_EQ(out_.str(), "ok  true\n");

  daemon_.reply(plist::Dict{});
  EXPECT_EQ(run({"ps", "--sort", "ResidentSize", "-n", "5"}), kExitOk);
  EXPECT_EQ(*last_request().find_string("primarySortKey"), "ResidentSize");
  EXPECT_EQ(*last_request().find("limit")->as_integer(), 5);

  daemon_.reply(plist::Dict{{"killedAllProcesses", true}, {"killResults", plist::Dict{{"7", "SUCCESS"}}}});
  EXPECT_EQ(run({"kill", "7"}), kExitOk);
  EXPECT_EQ(*last_request().find_array("pids")->at(0).as_integer(), 7);

  daemon_.reply(plist::Dict{{"writeStatus", 0u}});
  EXPECT_EQ(run({"settings", "set", "enableSSH=false", "computerName=box"}), kExitOk);
  EXPECT_EQ(out_.str(), "settings written\n");
  EXPECT_EQ(*last_request().find_string("command"), "writeSettings");
  EXPECT_EQ(last_request().find_dict("configuration")->size(), 2u);

  daemon_.reply(plist::Dict{});
  EXPECT_EQ(run({"history", "disk", "--scale", "1d"}), kExitOk);
  EXPECT_EQ(*last_request().find("timeScale")->as_integer(), 86400);

  stdin_ = "{\"command\": \"getSystemLogPaths\"}";
  daemon_.reply(plist::Dict{{"systemLog", "/var/log/syslog"}});
  EXPECT_EQ(run({"request", "-"}), kExitOk);
  EXPECT_EQ(*last_request().find_string("command"), "getSystemLogPaths");
  EXPECT_EQ(out_.str(), "systemLog  /var/log/syslog\n");
}

TEST_F(ClientTest, BadUsageSendsNothing) {
  size_t sent = daemon_.requests.size();
  for (std::vector<std::string> args : {std::vector<std::string>{},
                                        {"--bogus", "status"},
                                        {"ps", "-n", "many"},
                                        {"ps", "-n", "-3"},
                                        {"kill"},
                                        {"kill", "abc"},
                                        {"history", "memory"},
                                        {"history", "--scale", "1y"},
                                        {"settings", "set"},
                                        {"settings", "get"},
                                        {"settings", "set", "novalue"},
                                        {"getState", "x:=[1,"},
                                        {"a=b"},
                                        {"--json", "--xml", "status"},
                                        {"--socket", "/s", "--url", "https://h", "status"},
                                        {"--url", "http://h", "status"},
                                        {"--socket", "/s", "--user", "bob", "status"},
                                        {"--module", "../etc", "status"},
                                        {"request", "/nonexistent/file"},
                                        {"--timeout", "0", "status"}}) {
    std::string line;
    for (const auto& a : args) line += a + " ";
    EXPECT_EQ(run(args), kExitUsage) << line;
    EXPECT_TRUE(out_.str().empty()) << line;
    EXPECT_TRUE(err_.str().starts_with("hubwarden: ")) << line << ": " << err_.str();
  }
  stdin_ = "[1]";
  EXPECT_EQ(run({"request", "-"}), kExitUsage);
  EXPECT_EQ(daemon_.requests.size(), sent);

  EXPECT_EQ(run({"--help"}), kExitOk);
  EXPECT_NE(out_.str().find("settings set KEY=VALUE"), std::string::npos);
  EXPECT_EQ(run({"ps", "--help"}), kExitOk);
  EXPECT_NE(out_.str().find("--sort"), std::string::npos);
}

TEST_F(ClientTest, OutcomesAndExitStatuses) {
  daemon_.reply(plist::Dict{{"error", "UNKNOWN_SORT_KEY_ERR"}});
  EXPECT_EQ(run({"ps", "--sort", "Bogus"}), kExitErrorReply);
  EXPECT_EQ(err_.str(), "hubwarden: listProcesses: UNKNOWN_SORT_KEY_ERR\n");
  EXPECT_EQ(out_.str(), "");

  // Raw modes print the reply even when it is an error, for scripts.
  daemon_.reply(plist::Dict{{"error", "CANNOT_MALLOC_ERR"}});
  EXPECT_EQ(run({"--json", "status"}), kExitErrorReply);
  EXPECT_EQ(out_.str(), "{\n  \"error\": \"CANNOT_MALLOC_ERR\"\n}\n");

  daemon_.reply(plist::Dict{{"count", 18446744073709551615ull}});
  EXPECT_EQ(run({"getThing", "--xml"}), kExitOk);
  EXPECT_NE(out_.str().find("<integer>18446744073709551615</integer>"), std::string::npos) << out_.str();

  daemon_.reply(plist::Dict{{"killedAllProcesses", false}, {"killResults", plist::Dict{{"1", "FAILURE"}}}});
  EXPECT_EQ(run({"kill", "1"}), kExitErrorReply);

  daemon_.reply(plist::Dict{{"writeStatus", 100010u}});
  EXPECT_EQ(run({"settings", "set", "computerName=a:b"}), kExitErrorReply);
  EXPECT_NE(err_.str().find("invalid computer name"), std::string::npos);

  daemon_.status(403);
  EXPECT_EQ(run({"settings", "set", "enableSSH=true"}), kExitTransport);
  EXPECT_EQ(err_.str(), "hubwarden: socket /run/hubwarden/hubwardend.sock: not allowed for alice (HTTP 403)\n");

  daemon_.status(400, "the body is not a property list\n");
  EXPECT_EQ(run({"status"}), kExitTransport);
  EXPECT_NE(err_.str().find("the body is not a property list (HTTP 400)"), std::string::npos) << err_.str();

  daemon_.status(200, "<plist><dict>");
  EXPECT_EQ(run({"status"}), kExitTransport);
  EXPECT_NE(err_.str().find("unreadable reply"), std::string::npos);

  daemon_.status(200, plist::write_xml(plist::Value(plist::Array{})));
  EXPECT_EQ(run({"status"}), kExitTransport);

  daemon_.fail("cannot connect: Connection refused");
  EXPECT_EQ(run({"--socket", "/tmp/x.sock", "status"}), kExitTransport);
  EXPECT_EQ(err_.str(), "hubwarden: socket /tmp/x.sock: cannot connect: Connection refused\n");
}

TEST_F(ClientTest, EndpointsAndPasswords) {
  env_["HUBWARDEN_SOCKET"] = "/env.sock";
  run({"status"});
  EXPECT_EQ(daemon_.endpoints.back().socket_path, "/env.sock");
  run({"--socket", "/arg.sock", "status"});
  EXPECT_EQ(daemon_.endpoints.back().socket_path, "/arg.sock");

  // HTTPS: the password comes from the environment, then the terminal.
  env_["HUBWARDEN_URL"] = "server.example";
  env_["HUBWARDEN_PASSWORD"] = "s3cret";
  run({"status"});
  const Endpoint& from_env = daemon_.endpoints.back();
  EXPECT_EQ(from_env.url, "https://server.example:311");
  EXPECT_EQ(from_env.socket_path, "");
  EXPECT_EQ(from_env.user, "alice");
  EXPECT_EQ(from_env.password, "s3cret");
  EXPECT_TRUE(prompts_.empty());

  env_.erase("HUBWARDEN_PASSWORD");
  typed_password_ = "typed";
  daemon_.status(401);
  EXPECT_EQ(run({"--url", "https://h.example:8443/", "--user", "bob", "--insecure", "status"}), kExitTransport);
  const Endpoint& typed = daemon_.endpoints.back();
  EXPECT_EQ(typed.url, "https://h.example:8443");
  EXPECT_EQ(typed.user, "bob");
  EXPECT_EQ(typed.password, "typed");
  EXPECT_TRUE(typed.insecure);
  ASSERT_EQ(prompts_.size(), 1u);
  EXPECT_NE(prompts_[0].find("bob"), std::string::npos);
  EXPECT_EQ(err_.str(), "hubwarden: https://h.example:8443: authentication failed (HTTP 401)\n");

  // No terminal and no variable: nothing is sent.
  typed_password_.reset();
  size_t connections = daemon_.endpoints.size();
  EXPECT_EQ(run({"status"}), kExitUsage);
  EXPECT_EQ(daemon_.endpoints.size(), connections);
}

TEST_F(ClientTest, LogsShowTheEndAndFollowAppends) {
  // A log that grows between polls; the daemon clamps like the tail service.
  std::string log;
  for (int i = 1; i <= 50; ++i) log += "line " + std::to_string(i) + "\n";
  std::vector<std::string> appends = {"line 51\n", "", "line 52\nline 53\n"};
  size_t polls = 0;
  daemon_.answer = [&](const plist::Dict& request) {
    const std::string& command = *request.find_string("command");
    if (command == "getSystemLogPaths")
      return plist::Dict{{"systemLog", "/var/log/system.log"}, {"kernelLog", "/var/log/kernel.log"}};
    int64_t offset = *request.find("offset")->to_int64();
    int64_t amount = *request.find("amount")->to_int64();
    if (offset > 0 && amount > 4096 && polls < appends.size()) log += appends[polls++];
    offset = std::clamp<int64_t>(offset, 0, static_cast<int64_t>(log.size()));
    amount = std::clamp<int64_t>(amount, 0, static_cast<int64_t>(log.size()) - offset);
    return plist::Dict{{"identifier", *request.find_string("identifier")},
                       {"path", "/var/log/system.log"},
                       {"offset", offset},
                       {"amount", amount},
                       {"tailContents", log.substr(static_cast<size_t>(offset), static_cast<size_t>(amount))}};
  };

  EXPECT_EQ(run({"logs", "-n", "3"}), kExitOk);
  EXPECT_EQ(out_.str(), "line 48\nline 49\nline 50\n");
  EXPECT_EQ(*last_request().find_string("identifier"), "systemLog");

  polls_left_ = 3;
  EXPECT_EQ(run({"logs", "system", "-n", "1", "-f"}), kExitOk);
  EXPECT_EQ(out_.str(), "line 50\nline 51\nline 52\nline 53\n");

  EXPECT_EQ(run({"logs", "-n", "0"}), kExitOk);
  EXPECT_EQ(out_.str(), "");

  EXPECT_EQ(run({"logs", "secure"}), kExitUsage);
  EXPECT_NE(err_.str().find("known: system, kernel"), std::string::npos) << err_.str();
}

}  // namespace
}  // namespace hubwarden_client
