#include "hubwardend/tail_service.h"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>

#include <filesystem>
#include <limits>
#include <memory>

#include "platform/file_util.h"
#include "platform/paths.h"
#include "platform/registry.h"

namespace hubwardend {
namespace {

struct TailResult {
  ErrorName error = nullptr;
  std::optional<std::string> path;
  plist::Value offset;
  plist::Value amount;
  std::optional<std::string> contents;
};

class TailServiceTest : public ::testing::Test {
 protected:
  void SetUp() override {
    std::string tmpl = (std::filesystem::temp_directory_path() / "hubwardend-tail-XXXXXX").string();
    root_ = ::mkdtemp(tmpl.data());
    paths_ = std::make_unique<platform::Paths>(root_);
    previous_ = platform::slot<platform::Paths>();
    platform::install<platform::Paths>(paths_.get());
    table_.set("systemLog", "/var/log/system.log");
    table_.set("secureLog", "/var/log/secure.log");
    table_.set("relativeLog", "var/log/system.log");
  }
  void TearDown() override {
    platform::install<platform::Paths>(previous_);
    std::filesystem::remove_all(root_);
  }

  void write_log(const std::string& contents) {
    ASSERT_TRUE(platform::write_file_atomically(root_ + "/var/log/system.log", contents));
  }

  TailResult tail(const std::string& identifier, plist::Value offset, plist::Value amount) {
    TailResult r;
    r.offset = std::move(offset);
    r.amount = std::move(amount);
    plist::Dict context;
    r.error = service_.tail(identifier, table_, &r.path, &r.offset, &r.amount, &r.contents, &context, plist::Dict());
    return r;
  }

  std::string root_;
  std::unique_ptr<platform::Paths> paths_;
  platform::Paths* previous_ = nullptr;
  plist::Dict table_;
  FileTailService service_;
};

TEST_F(TailServiceTest, OnlyTableIdentifiersWithExistingFilesAreRead) {
  write_log("line\n");
  // An identifier outside the table is refused even when it names a file
  // that exists under the root; nothing is filled in.
  for (const char* identifier : {"../../var/log/system.log", "/var/log/system.log", "", "relativeLog"}) {
    TailResult r = tail(identifier, 0, 10);
    EXPECT_TRUE(same_error(r.error, kUnknownLogIdentifierErr)) << identifier;
    EXPECT_FALSE(r.path) << identifier;
    EXPECT_FALSE(r.contents) << identifier;
    EXPECT_EQ(r.offset, plist::Value(0)) << identifier;
  }

  TailResult missing = tail("secureLog", 0, 10);
  EXPECT_TRUE(same_error(missing.error, kLogFileNotFoundErr));
  EXPECT_FALSE(missing.contents);

  ASSERT_TRUE(platform::make_directories(root_ + "/var/log/secure.log"));
  EXPECT_TRUE(same_error(tail("secureLog", 0, 10).error, kLogFileNotFoundErr)) << "a directory is no log";

  TailResult found = tail("systemLog", 0, 100);
  ASSERT_EQ(found.error, nullptr);
  EXPECT_EQ(found.path, "/var/log/system.log") << "the path as the client knows it, without the root";
  EXPECT_EQ(found.contents, "line\n");
}

TEST_F(TailServiceTest, OffsetsAndAmountsAreClampedToTheFile) {
  write_log("0123456789");
  struct Case {
    plist::Value offset, amount;
    int64_t used_offset, read;
    std::string text;
  };
  const int64_t most = std::numeric_limits<int64_t>::max();
  const int64_t least = std::numeric_limits<int64_t>::min();
  const Case cases[] = {
      {2, 3, 2, 3, "234"},
      {-4, 100, 6, 4, "6789"},  // from the end, like tail -c
      {-100, 3, 0, 3, "012"},   // further back than the start
      {100, 5, 10, 0, ""},      // beyond the end
      {10, 5, 10, 0, ""},
      {3, -5, 3, 0, ""},        // a negative amount reads nothing
      {2.9, 3.7, 2, 3, "234"},  // reals are truncated
      {-2.5, 1.0, 8, 1, "8"},
      {plist::Value(uint64_t{18446744073709551615u}), 1, 10, 0, ""},  // saturates, never wraps to -1
      {least, 2, 0, 2, "01"},
      {most, most, 10, 0, ""},
      {0, 1e300, 0, 10, "0123456789"},
      {0, -1e300, 0, 0, ""},
      {true, 2, 1, 2, "12"},
  };
  for (const Case& c : cases) {
    TailResult r = tail("systemLog", c.offset, c.amount);
    ASSERT_EQ(r.error, nullptr);
    EXPECT_EQ(r.offset, plist::Value(c.used_offset)) << c.text;
    EXPECT_NE(r.offset.as_integer(), nullptr) << "offsets come back as integers";
    EXPECT_EQ(r.amount, plist::Value(c.read)) << c.text;
    EXPECT_EQ(r.contents, c.text);
  }
}

TEST_F(TailServiceTest, NoRequestReadsMoreThanTheLimit) {
  std::string big(static_cast<size_t>(kMaxTailAmount) + 4096, 'x');
  big.back() = 'y';
  write_log(big);
  TailResult r = tail("systemLog", -static_cast<int64_t>(big.size()), std::numeric_limits<int64_t>::max());
  ASSERT_EQ(r.error, nullptr);
  EXPECT_EQ(r.amount, plist::Value(kMaxTailAmount));
  ASSERT_TRUE(r.contents);
  EXPECT_EQ(r.contents->size(), static_cast<size_t>(kMaxTailAmount));

  TailResult end = tail("systemLog", -1, 1);
  EXPECT_EQ(end.contents, "y");
}

TEST_F(TailServiceTest, InvalidUtf8IsReplacedNotDropped) {
  // Cutting into a multi-byte character leaves a stray continuation byte.
  write_log("caf\xC3\xA9 \xFF!");
  EXPECT_EQ(tail("systemLog", 4, 100).contents, "\xEF\xBF\xBD \xEF\xBF\xBD!");
  EXPECT_EQ(tail("systemLog", 0, 5).contents, "caf\xC3\xA9");

  const std::string fffd = "\xEF\xBF\xBD";
  EXPECT_EQ(decode_utf8_lossy("plain \xF0\x9F\x98\x80 \xE2\x82\xAC"), "plain \xF0\x9F\x98\x80 \xE2\x82\xAC");
  EXPECT_EQ(decode_utf8_lossy("\xC0\x80"), fffd + fffd);                        // overlong
  EXPECT_EQ(decode_utf8_lossy("\xED\xA0\x80"), fffd + fffd + fffd);             // surrogate
  EXPECT_EQ(decode_utf8_lossy("\xF4\x90\x80\x80"), fffd + fffd + fffd + fffd);  // beyond U+10FFFF
  EXPECT_EQ(decode_utf8_lossy("a\xE2\x82"), "a" + fffd);                        // truncated at the end
  EXPECT_EQ(decode_utf8_lossy("\xE2\x82x"), fffd + "x");
  EXPECT_EQ(decode_utf8_lossy(std::string("a\0b", 3)), std::string("a\0b", 3));
}

}  // namespace
}  // namespace hubwardend
