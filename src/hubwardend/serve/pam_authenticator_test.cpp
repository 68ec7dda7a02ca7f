#include "hubwardend/serve/pam_authenticator.h"

#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <stdlib.h>

#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "hubwardend/serve/pam_test_support.h"

namespace hubwardend::serve {
namespace {

std::string basic(std::string_view credentials) {
  std::string encoded(4 * ((credentials.size() + 2) / 3) + 1, '\0');
  int n =
      EVP_EncodeBlock(reinterpret_cast<unsigned char*>(encoded.data()),
                      reinterpret_cast<const unsigned char*>(credentials.data()), static_cast<int>(credentials.size()));
  encoded.resize(static_cast<size_t>(n));
  return "Basic " + encoded;
}

TEST(ParseBasicAuthorizationTest, AcceptsWellFormedCredentials) {
  struct Case {
    std::string header;
    std::string user, password;
  };
  const std::vector<Case> cases = {
      {basic("alice:secret"), "alice", "secret"},
      // Only the first colon separates: passwords may hold colons.
      {basic("alice:a:b:c"), "alice", "a:b:c"},
      {basic("alice:"), "alice", ""},
      // Every padding length.
      {basic("bo:x"), "bo", "x"},
      {basic("bob:xy"), "bob", "xy"},
      {basic("bob:xyz"), "bob", "xyz"},
      // The scheme is case-insensitive; spaces around the token are allowed.
      {"  bAsIc \t" + basic("józef:hasło").substr(6) + "  ", "józef", "hasło"},
  };
  for (const Case& c : cases) {
    auto parsed = parse_basic_authorization(c.header);
    ASSERT_TRUE(parsed.has_value()) << c.header;
    EXPECT_EQ(parsed->first, c.user) << c.header;
    EXPECT_EQ(parsed->second, c.password) << c.header;
  }
}

TEST(ParseBasicAuthorizationTest, RefusesWhatCannotNameAUser) {
  const std::vector<std::string> refused = {
      "",
      "Basic",
      "Basic ",
      "Bearer " + basic("alice:secret").substr(6),
      "Basicx " + basic("alice:secret").substr(6),
      basic("alice secret"),      // no colon
      basic(":secret"),           // empty name
      basic("al\x01ice:secret"),  // control character
      basic("al\x7f"
            "ice:secret"),                       // DEL
      basic("al\xc2\x85ice:secret"),             // a C1 control (NEL)
      basic("\xff\xfe:secret"),                  // not UTF-8
      basic("\xc3:secret"),                      // truncated sequence
      basic(std::string("alice:sec\0ret", 13)),  // NUL would cut the password short for PAM
      basic(std::string(kMaxUserNameBytes + 1, 'a') + ":x"),
      "Basic YWxpY2U6c2VjcmV0MQ",     // unpadded (needs "==")
      "Basic YWxp!2U6c2VjcmV0=",      // not base64
      "Basic YWxpY2U6c2VjcmV0=====",  // too much padding
      "Basic YWxp Y2U6c2VjcmV0",      // a space inside
      "Basic " + std::string(kMaxAuthorizationHeaderBytes, 'A'),
  };
  for (const std::string& header : refused) {
    EXPECT_FALSE(parse_basic_authorization(header).has_value()) << header;
  }
  // The longest name accepted still is.
  EXPECT_TRUE(parse_basic_authorization(basic(std::string(kMaxUserNameBytes, 'a') + ":x")).has_value());
}

// Runs in a process of its own with the wrapper preloaded (see below).
void check_against_test_stack() {
  PamPasswordChecker checker(testing::pam_stack_service());
  EXPECT_TRUE(checker.check("alice", "right horse battery"));
  EXPECT_TRUE(checker.check("józef", "hasło zażółć"));
  EXPECT_FALSE(checker.check("alice", "wrong"));
  EXPECT_FALSE(checker.check("alice", ""));
  EXPECT_FALSE(checker.check("alice", "right horse battery "));
  EXPECT_FALSE(checker.check("nobody", "right horse battery"));
  EXPECT_FALSE(checker.check("", "right horse battery"));
  // The password is right but the account check refuses the service.
  EXPECT_FALSE(checker.check("carol", "carols password"));
  // A service with no file behind it fails closed.
  PamPasswordChecker missing("hubwarden-no-such-service");
  EXPECT_FALSE(missing.check("alice", "right horse battery"));

  // Every check has its own handle: threads mixing good and bad passwords
  // each get their own answer.
  std::vector<std::thread> threads;
  std::vector<int> wrong_answers(8, 0);
  for (int t = 0; t < 8; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < 25; ++i) {
        bool good = (i + t) % 2 == 0;
        if (checker.check("alice", good ? "right horse battery" : "wrong") != good) ++wrong_answers[t];
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  for (int t = 0; t < 8; ++t) EXPECT_EQ(wrong_answers[t], 0) << "thread " << t;
}

TEST(PamPasswordCheckerTest, ChecksPasswordsAndAccountsThroughPam) {
  if (testing::running_under_pam_stack()) {
    check_against_test_stack();
    return;
  }
  if (std::string reason = testing::PamTestStack::unusable_reason(); !reason.empty()) GTEST_SKIP() << reason;
  std::string dir = (std::filesystem::temp_directory_path() / "hubwarden-pam-XXXXXX").string();
  ASSERT_NE(mkdtemp(dir.data()), nullptr);
  {
    testing::PamTestStack stack(dir, "hubwardend-test",
                                {{"alice", "right horse battery", ""},
                                 {"józef", "hasło zażółć", ""},
                                 {"carol", "carols password", "some-other-service"}});
    EXPECT_EQ(testing::rerun_self_with_pam_stack(stack, "PamPasswordCheckerTest.ChecksPasswordsAndAccountsThroughPam"),
              0);
  }
  std::filesystem::remove_all(dir);
}

}  // namespace
}  // namespace hubwardend::serve
