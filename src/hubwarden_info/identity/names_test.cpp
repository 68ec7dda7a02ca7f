#include "identity/names.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <optional>
#include <string>
#include <vector>

#include "platform/fake/fake_store_watcher.h"
#include "platform/fake/fake_sysconfig.h"
#include "platform/linux/basics_test_support.h"
#include "platform/registry.h"
#include "platform/utf8.h"

namespace hubwarden {
namespace {

using platform::StoreKey;

std::string repeat(const std::string& s, int n) {
  std::string out;
  for (int i = 0; i < n; ++i) out += s;
  return out;
}

TEST(NamesTest, ByteFilterKeepsLettersDigitsAndInnerHyphens) {
  struct Case {
    std::string in;
    std::optional<std::string> out;
  };
  const std::vector<Case> cases = {
      {"Mary's Server", "Marys-Server"},
      {"Mary\xE2\x80\x99s Server", "Marys-Server"},
      {"2nd Floor", "nd-Floor"},
      {"--Lab--", "Lab"},
      {"a--b", "a--b"},
      {"a -b", "a--b"},  // a literal hyphen follows even a made one
      {"a  b!", "a-b"},
      {"a-", "a"},
      {"Caf\xC3\xA9 Royal", "Caf-Royal"},
      {"Caf\xC3\xA9", "Caf"},
      {std::string("a\0b", 3), "a-b"},
      {"a\xFF\xFE"
       "b",
       "a-b"},               // invalid UTF-8 is just bytes
      {"ab\xE2\x80", "ab"},  // a cut-off quotation mark
      {"a\xE2\x80\x98"
       "b",
       "a-b"},  // the left quotation mark is not an apostrophe
      {"''\xE2\x80\x99x", "x"},
      {"", std::nullopt},
      {"123 -- 456", std::nullopt},
      {"\xD0\x9C\xD0\xB8\xD1\x80", std::nullopt},  // Cyrillic only
      // The length byte wraps: 260 bytes are filtered as 4, 256 as none.
      {"abcd" + repeat("z", 256), "abcd"},
      {repeat("q", 256), std::nullopt},
      {repeat("a", 255), repeat("a", 255)},
      {repeat("b", 1000), repeat("b", 1000 % 256)},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(get_zero_conf_name_from_computer_name(c.in), c.out) << platform::escape_for_log(c.in);
  }
}

TEST(NamesTest, ByteFilterStopsWritingAtCapacity) {
  auto filter = [](const std::string& text, size_t capacity) {
    unsigned char in[256] = {static_cast<unsigned char>(text.size())};
    text.copy(reinterpret_cast<char*>(in + 1), text.size());
    std::vector<unsigned char> out(capacity + 1 + 8, 0xAA);
    get_plain_ascii_name(in, out.data(), capacity);
    for (size_t i = capacity + 1; i < out.size(); ++i) EXPECT_EQ(out[i], 0xAA) << "wrote past capacity";
    return std::string(reinterpret_cast<const char*>(out.data() + 1), out[0]);
  };
  EXPECT_EQ(filter("abcdef", 3), "abc");
  EXPECT_EQ(filter("ab cd", 3), "ab");  // the cut leaves a hyphen, which goes
  EXPECT_EQ(filter("a'b'c'd", 3), "abc");
  EXPECT_EQ(filter("anything", 0), "");
}

TEST(NamesTest, ComputerNameValidityCountsUtf16Units) {
  const std::string emoji = "\xF0\x9F\x98\x80";  // two UTF-16 units
  const std::string e_acute = "\xC3\xA9";        // one unit, two bytes
  EXPECT_FALSE(is_computer_name_valid(nullptr));
  const std::vector<std::pair<std::string, bool>> cases = {
      {"", false},
      {"x", true},
      {repeat("a", 63), true},
      {repeat("a", 64), false},
      {repeat("a", 1000), false},
      {repeat(e_acute, 63), true},
      {repeat(emoji, 31) + "a", true},
      {repeat(emoji, 32), false},
      {"Lab: west", false},
      {"a=b", false},
      {"a*b", false},
      {"ops@hub", false},
      {"Mary's Server", true},
      {std::string("a\0b", 3), true},
      {"bad\xFF", false},
      {"\xC0\xAF", false},  // overlong
  };
  for (const auto& [name, valid] : cases) EXPECT_EQ(is_computer_name_valid(&name), valid) << name;
}

TEST(NamesTest, MungeFallsBackToTransliterationThenHostbox) {
  const std::vector<std::pair<std::string, std::string>> cases = {
      {"", "Hostbox"},
      {"Mary's Server", "Marys-Server"},
      {"\xD0\x9F\xD1\x80\xD0\xB8\xD0\xB2\xD0\xB5\xD1\x82 \xD0\xBC\xD0\xB8\xD1\x80", "Privet-mir"},  // Привет мир
      {"\xD0\x9C\xD0\xBE\xD1\x81\xD0\xBA\xD0\xB2\xD0\xB0 2", "Moskva-2"},                           // Москва 2
      {"\xCE\x91\xCE\xB8\xCE\xAE\xCE\xBD\xCE\xB1", "Athena"},                                       // Αθήνα
      {"\xE5\x8C\x97\xE4\xBA\xAC", "bei-jing"},                                                     // 北京
      {"\xF0\x9F\x98\x80\xE2\x98\x83", "Hostbox"},  // emoji and a snowman have no Latin form
      {"12345", "Hostbox"},
      {repeat("a", 63), repeat("a", 63)},
      {repeat("a", 64), "Hostbox"},  // longer than a DNS label
      {repeat("a", 1000), "Hostbox"},
      {repeat("a", 256 + 10), repeat("a", 10)},
  };
  for (const auto& [name, local] : cases) EXPECT_EQ(munge_name_into_legal_localcast_name(name), local) << name;
}

class NameChangeTest : public ::testing::Test {
 protected:
  NameChangeTest() : config_service_(&config_), watcher_service_(&watcher_) {}

  // The store announces a change of key while the caller waits.
  void announce(StoreKey key) {
    watcher_.on_wait([this, key](std::chrono::milliseconds) { watcher_.change(key); });
  }

  platform::testing::CapturedLog log_;
  platform::FakeSystemConfiguration config_;
  platform::FakeStoreWatcher watcher_;

 private:
  platform::testing::ScopedService<platform::SystemConfiguration> config_service_;
  platform::testing::ScopedService<platform::StoreWatcher> watcher_service_;
};

TEST_F(NameChangeTest, AnnouncedChangeSucceedsAfterOneFullWait) {
  announce(StoreKey::kComputerName);
  EXPECT_EQ(set_computer_name("North Wing"), 0);
  EXPECT_EQ(config_.computer, "North Wing");
  EXPECT_EQ(config_.calls(), (std::vector<std::string>{"open hubwarden_info", "lock", "set_computer_name North Wing",
                                                       "commit", "apply", "unlock"}));
  ASSERT_EQ(watcher_.opened().size(), 1u);
  EXPECT_EQ(watcher_.opened()[0].client_name, "BravuraAdmin");
  EXPECT_EQ(watcher_.opened()[0].keys, (std::vector<StoreKey>{StoreKey::kComputerName, StoreKey::kHostNames}));
  EXPECT_EQ(watcher_.waits(), std::vector<std::chrono::milliseconds>{kNameChangeWait});
  EXPECT_EQ(watcher_.live_sessions(), 0);

  announce(StoreKey::kHostNames);
  EXPECT_EQ(set_localcast_name("Mary's Server"), 0);
  EXPECT_EQ(config_.local_host, "Marys-Server");
  EXPECT_TRUE(log_.lines().empty());
}

TEST_F(NameChangeTest, UnannouncedChangeKeepsTheNameButReportsIt) {
  announce(StoreKey::kComputerName);
  ASSERT_EQ(set_computer_name("First"), 0);
  watcher_.on_wait(nullptr);  // the flag of the last change must not carry over
  EXPECT_EQ(set_computer_name("Second"), kNameChangeNotSeenErr);
  EXPECT_EQ(config_.computer, "Second");
  EXPECT_TRUE(log_.contains(platform::Priority::Notice,
                            "hubwarden_info: [" + std::to_string(::getpid()) + "] run loop did not receive"));
  EXPECT_EQ(set_localcast_name(""), kNameChangeNotSeenErr);
  EXPECT_EQ(config_.local_host, "Hostbox");
  EXPECT_EQ(watcher_.live_sessions(), 0);
}

TEST_F(NameChangeTest, RefusedNamesAndFailedStepsGiveTheirCodes) {
  for (const std::string& bad : {std::string(""), repeat("n", 64), std::string("a:b")}) {
    EXPECT_EQ(set_computer_name(bad), kInvalidComputerNameErr);
  }
  EXPECT_TRUE(config_.calls().empty());
  EXPECT_TRUE(watcher_.opened().empty());

  announce(StoreKey::kComputerName);
  config_.fail_at = platform::FakeSystemConfiguration::Step::kLock;
  EXPECT_EQ(set_computer_name("Locked"), kCannotSetComputerNameErr);
  EXPECT_EQ(set_localcast_name("locked"), kCannotSetLocalcastNameErr);
  for (const std::string& call : config_.calls()) EXPECT_NE(call, "unlock");

  for (auto step : {platform::FakeSystemConfiguration::Step::kSet, platform::FakeSystemConfiguration::Step::kCommit,
                    platform::FakeSystemConfiguration::Step::kApply}) {
    config_.fail_at = step;
    EXPECT_EQ(set_computer_name("Broken"), kCannotSetComputerNameErr);
    EXPECT_EQ(set_localcast_name("broken"), kCannotSetLocalcastNameErr);
    EXPECT_EQ(config_.calls().back(), "unlock");
  }
  EXPECT_EQ(watcher_.waits().size(), 0u) << "a failed write must not wait";

  config_.fail_at = platform::FakeSystemConfiguration::Step::kNone;
  config_.preferences_available = false;
  EXPECT_EQ(set_computer_name("Nobody"), kCannotSetComputerNameErr);
  EXPECT_EQ(set_localcast_name("nobody"), kCannotSetComputerNameErr);

  config_.preferences_available = true;
  watcher_.fail_at(platform::StoreWatchFailure::kRegisterKeys);
  size_t calls_before = config_.calls().size();
  EXPECT_EQ(set_computer_name("Unwatched"), kNameChangeNotSeenErr);
  EXPECT_EQ(config_.calls().size(), calls_before) << "nothing is written without a watch";
  EXPECT_TRUE(log_.contains(platform::Priority::Notice, "] could not register the keys"));
}

TEST_F(NameChangeTest, MissingWatcherServiceIsAFailedWatch) {
  platform::testing::ScopedService<platform::StoreWatcher> none(nullptr);
  EXPECT_EQ(set_localcast_name("hub"), kNameChangeNotSeenErr);
  EXPECT_TRUE(log_.contains("could not create the store session"));
}

}  // namespace
}  // namespace hubwarden
