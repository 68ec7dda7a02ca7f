#include "hubwardend/serve/login_throttle.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace hubwardend::serve {
namespace {

using std::chrono::milliseconds;
using std::chrono::minutes;
using std::chrono::seconds;

class LoginThrottleTest : public ::testing::Test {
 protected:
  LoginThrottle::Options options() {
    LoginThrottle::Options o;
    o.now = [this] { return now_; };
    o.log = [this](std::string_view line) { logged_.emplace_back(line); };
    return o;
  }
  // A guesser that fails every attempt, waiting as told; returns the waits.
  std::vector<milliseconds> fail_attempts(LoginThrottle& throttle, const std::string& address, int attempts) {
    std::vector<milliseconds> waits;
    for (int i = 0; i < attempts; ++i) {
      auto wait = throttle.admit(address);
      EXPECT_TRUE(wait.has_value());
      if (!wait) break;
      waits.push_back(*wait);
      now_ += *wait;
      throttle.record_failure(address);
    }
    return waits;
  }

  LoginThrottle::Clock::time_point now_{seconds(1000)};
  std::vector<std::string> logged_;
};

TEST_F(LoginThrottleTest, DelaysGrowAfterThreeFailuresAndASuccessClearsThem) {
  LoginThrottle throttle(options());
  std::vector<milliseconds> expected = {
      milliseconds(0),    milliseconds(0),    milliseconds(0),     milliseconds(1000),  milliseconds(2000),
      milliseconds(4000), milliseconds(8000), milliseconds(16000), milliseconds(30000), milliseconds(30000)};
  EXPECT_EQ(fail_attempts(throttle, "192.0.2.7", 10), expected);
  EXPECT_EQ(logged_, std::vector<std::string>{"hubwardend: repeated authentication failures from 192.0.2.7"});

  // Another address is not held up by the first.
  EXPECT_EQ(throttle.admit("192.0.2.8"), milliseconds(0));

  // The right password (after the wait) clears the address.
  ASSERT_EQ(throttle.admit("192.0.2.7"), milliseconds(30000));
  now_ += seconds(30);
  throttle.record_success("192.0.2.7");
  EXPECT_EQ(throttle.admit("192.0.2.7"), milliseconds(0));
  EXPECT_EQ(throttle.tracked_addresses(), 0u);
}

TEST_F(LoginThrottleTest, FailuresFurtherApartThanTheWindowStartAgainAndAreLoggedAgain) {
  LoginThrottle throttle(options());
  fail_attempts(throttle, "192.0.2.7", 2);
  now_ += minutes(11);
  // Two old failures and one new do not make three.
  fail_attempts(throttle, "192.0.2.7", 1);
  EXPECT_EQ(throttle.admit("192.0.2.7"), milliseconds(0));
  EXPECT_TRUE(logged_.empty());

  fail_attempts(throttle, "192.0.2.7", 3);
  EXPECT_EQ(logged_.size(), 1u);
  // Failures every few minutes keep the address throttled and the log quiet.
  for (int i = 0; i < 5; ++i) {
    now_ += minutes(9);
    fail_attempts(throttle, "192.0.2.7", 1);
  }
  EXPECT_EQ(throttle.admit("192.0.2.7"), milliseconds(30000));
  EXPECT_EQ(logged_.size(), 1u);

  now_ += minutes(11);
  fail_attempts(throttle, "192.0.2.7", 3);
  EXPECT_EQ(logged_.size(), 2u);
}

TEST_F(LoginThrottleTest, AttemptsArrivingTogetherQueueAndTheQueueIsBounded) {
  LoginThrottle throttle(options());
  fail_attempts(throttle, "192.0.2.7", 3);
  // Sixty connections at once, none of them checked yet: each waits one
  // second longer than the one before, and beyond a minute they are refused.
  int admitted = 0, refused = 0;
  for (int i = 0; i < 70; ++i) {
    auto wait = throttle.admit("192.0.2.7");
    if (!wait) {
      ++refused;
      continue;
    }
    ++admitted;
    EXPECT_EQ(*wait, milliseconds(1000 * admitted));
  }
  EXPECT_EQ(admitted, 60);
  EXPECT_EQ(refused, 10);
  // Once the queue has drained, attempts are admitted again, still slowed.
  now_ += seconds(61);
  EXPECT_EQ(throttle.admit("192.0.2.7"), milliseconds(1000));
  now_ += minutes(10);
  EXPECT_EQ(throttle.admit("192.0.2.7"), milliseconds(0));
}

TEST_F(LoginThrottleTest, CountsIpv6PerNetworkAndMappedAddressesAsIpv4) {
  EXPECT_EQ(throttle_key("192.0.2.7"), "192.0.2.7");
  EXPECT_EQ(throttle_key("2001:db8:1:2:aaaa:bbbb:cccc:dddd"), "2001:db8:1:2::/64");
  EXPECT_EQ(throttle_key("[2001:db8:1:2::1]"), "2001:db8:1:2::/64");
  EXPECT_EQ(throttle_key("fe80::1%eth0"), "fe80::/64");
  EXPECT_EQ(throttle_key("::ffff:192.0.2.7"), "192.0.2.7");
  EXPECT_EQ(throttle_key("not an address"), "not an address");

  LoginThrottle throttle(options());
  fail_attempts(throttle, "2001:db8:1:2::1", 1);
  fail_attempts(throttle, "2001:db8:1:2::2", 1);
  fail_attempts(throttle, "2001:db8:1:2:ffff::3", 1);
  EXPECT_EQ(throttle.admit("2001:db8:1:2::4"), milliseconds(1000));
  EXPECT_EQ(throttle.admit("2001:db8:1:3::1"), milliseconds(0));
  EXPECT_EQ(logged_, std::vector<std::string>{"hubwardend: repeated authentication failures from 2001:db8:1:2::/64"});

  fail_attempts(throttle, "::ffff:192.0.2.9", 3);
  EXPECT_EQ(throttle.admit("192.0.2.9"), milliseconds(1000));
}

TEST_F(LoginThrottleTest, RemembersAtMostMaxAddressesForgettingTheOldestFirst) {
  LoginThrottle::Options o = options();
  o.max_addresses = 100;
  LoginThrottle throttle(o);
  fail_attempts(throttle, "198.51.100.1", 3);
  for (int i = 0; i < 5000; ++i) {
    throttle.record_failure("10." + std::to_string(i / 65536) + "." + std::to_string(i / 256 % 256) + "." +
                            std::to_string(i % 256));
    // The throttled address keeps failing, so it is never the oldest.
    if (i % 50 == 0) throttle.record_failure("198.51.100.1");
  }
  EXPECT_EQ(throttle.tracked_addresses(), 100u);
  EXPECT_GT(*throttle.admit("198.51.100.1"), milliseconds(0));
  throttle.record_failure("10.0.19.135");  // the latest is still there
  EXPECT_EQ(throttle.admit("10.0.19.135"), milliseconds(0));
  throttle.record_failure("10.0.19.135");
  EXPECT_EQ(throttle.admit("10.0.19.135"), milliseconds(1000));
  throttle.record_failure("10.0.0.1");  // long forgotten: starts again at one
  EXPECT_EQ(throttle.admit("10.0.0.1"), milliseconds(0));
}

}  // namespace
}  // namespace hubwardend::serve
