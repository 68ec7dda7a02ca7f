#include "hubwardend/serve/web_sessions.h"

#include <gtest/gtest.h>

namespace hubwardend::serve {
namespace {

using namespace std::chrono_literals;

struct FakeClock {
  WebSessions::Clock::time_point t{};
};

WebSessions::Options options_with(FakeClock* clock, size_t max_sessions = 1000) {
  WebSessions::Options o;
  o.max_sessions = max_sessions;
  o.now = [clock] { return clock->t; };
  return o;
}

std::string cookie(const WebSessions::Session& s) { return std::string(kSessionCookieName) + "=" + s.id; }

TEST(WebSessionsTest, SessionsExpireWhenIdleOrOld) {
  FakeClock clock;
  WebSessions sessions(options_with(&clock));
  auto busy = sessions.create("ann", Tier::kAdmin);
  auto idle = sessions.create("mo", Tier::kMonitor);
  ASSERT_TRUE(busy && idle);
  EXPECT_NE(busy->id, idle->id);
  EXPECT_NE(busy->id, busy->csrf_token);
  EXPECT_EQ(busy->id.size(), 64u);

  // Used every ten minutes, a session outlives the idle limit but not
  // the absolute one.
  for (int i = 0; i < 71; ++i) {
    clock.t += 10min;
    ASSERT_TRUE(sessions.find(cookie(*busy))) << i;
    if (i == 1) {
      EXPECT_FALSE(sessions.find(cookie(*idle)));
    }
  }
  clock.t += 10min;  // 12 h since it began
  EXPECT_FALSE(sessions.find(cookie(*busy)));
  EXPECT_EQ(sessions.size(), 0u);

  auto ended = sessions.create("ann", Tier::kAdmin);
  sessions.end(ended->id);
  EXPECT_FALSE(sessions.find(cookie(*ended)));
}

TEST(WebSessionsTest, TheOldestGoWhenFull) {
  FakeClock clock;
  WebSessions sessions(options_with(&clock, 3));
  std::vector<WebSessions::Session> made;
  for (int i = 0; i < 5; ++i) made.push_back(*sessions.create("u" + std::to_string(i), Tier::kMonitor));
  EXPECT_EQ(sessions.size(), 3u);
  EXPECT_FALSE(sessions.find(cookie(made[0])));
  EXPECT_FALSE(sessions.find(cookie(made[1])));
  auto last = sessions.find("theme=dark; " + cookie(made[4]) + "; lang=en");
  ASSERT_TRUE(last);
  EXPECT_EQ(last->user, "u4");
}

TEST(WebSessionsTest, ForgedMalformedCookiesAndWrongTokensAreRefused) {
  WebSessions sessions;
  auto s = sessions.create("ann", Tier::kAdmin);
  const std::string good = cookie(*s);
  std::string forged = s->id;
  forged[10] = forged[10] == 'a' ? 'b' : 'a';
  std::string upper = s->id;
  for (char& c : upper) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  for (const std::string& header :
       {std::string(), "hw_session=" + forged, "hw_session=" + upper, "hw_session=" + s->id + "0", good + "; " + good,
        "x; " + good, good + ";;a=b", "=v; " + good, " " + good, "hw_session= " + s->id, "hw_session=\"" + s->id + "\"",
        "hw_session_2=" + s->id})
    EXPECT_FALSE(sessions.find(header)) << header;
  EXPECT_TRUE(sessions.find(good + ";"));

  std::string wrong = s->csrf_token;
  wrong.back() = wrong.back() == '0' ? '1' : '0';
  EXPECT_TRUE(WebSessions::token_matches(*s, s->csrf_token));
  EXPECT_FALSE(WebSessions::token_matches(*s, wrong));
  EXPECT_FALSE(WebSessions::token_matches(*s, ""));
  EXPECT_FALSE(WebSessions::token_matches(*s, s->csrf_token.substr(1)));
}

}  // namespace
}  // namespace hubwardend::serve
