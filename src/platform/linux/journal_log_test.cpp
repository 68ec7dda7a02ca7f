// The journal as syslog text, read from journal files written by the real
// journal tools.
#include "platform/linux/journal_log.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <time.h>

#include <optional>

#include "platform/linux/basics_test_support.h"
#include "platform/linux/journal_test_support.h"

namespace platform {
namespace {

using testing::ExportEntry;

constexpr uint64_t kNov14 = 1700000000000000;  // 2023-11-14 22:13:20 UTC

std::vector<ExportEntry> sample_entries() {
  return {
      {kNov14,
       {{"MESSAGE", "Accepted publickey for root"},
        {"_HOSTNAME", "box"},
        {"SYSLOG_IDENTIFIER", "sshd"},
        {"SYSLOG_PID", "42"},
        {"SYSLOG_FACILITY", "4"}}},
      {kNov14 + 1000000,
       {{"MESSAGE", "usb 1-1: new device"},
        {"_HOSTNAME", "box"},
        {"_TRANSPORT", "kernel"},
        {"SYSLOG_IDENTIFIER", "kernel"},
        {"SYSLOG_FACILITY", "0"}}},
      {kNov14 + 2000000,
       {{"MESSAGE", std::string("bin\0ary", 7)}, {"_HOSTNAME", "box"}, {"SYSLOG_IDENTIFIER", "blob"}, {"_PID", "9"}}},
      {kNov14 + 3000000, {{"_HOSTNAME", "box"}, {"_COMM", "cron"}, {"_PID", "7"}}},
      {kNov14 + 4000000, {{"MESSAGE", "first\nsecond\n"}, {"SYSLOG_IDENTIFIER", "sudo"}, {"SYSLOG_FACILITY", "10"}}},
      {kNov14 + 5000000, {{"MESSAGE", "caf\xE9"}, {"_HOSTNAME", "box"}, {"SYSLOG_IDENTIFIER", "app"}}},
      {1704413045000000,  // 2024-01-05 00:04:05 UTC
       {{"MESSAGE", "a\tb\x1B[1m"}, {"_HOSTNAME", "box"}, {"SYSLOG_IDENTIFIER", "esc"}}},
  };
}

const std::string kLines[] = {
    "Nov 14 22:13:20 box sshd[42]: Accepted publickey for root\n",
    "Nov 14 22:13:21 box kernel: usb 1-1: new device\n",
    "Nov 14 22:13:22 box blob[9]: [7 bytes of binary data]\n",
    "Nov 14 22:13:23 box cron[7]: [no message]\n",
    "Nov 14 22:13:24 - sudo: first#012second\n",
    "Nov 14 22:13:25 box app: caf\xE9\n",
    "Jan  5 00:04:05 box esc: a\tb#033[1m\n",
};

class JournalLogTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (const char* tz = ::getenv("TZ")) saved_tz_ = tz;
    if (!testing::have_journal_remote()) GTEST_SKIP() << "systemd-journal-remote is not installed (scripts/setup)";
    ::setenv("TZ", "UTC", 1);
    ::tzset();
  }
  void TearDown() override {
    if (saved_tz_)
      ::setenv("TZ", saved_tz_->c_str(), 1);
    else
      ::unsetenv("TZ");
    ::tzset();
  }

  std::unique_ptr<JournalLog> open(const std::string& directory) {
    std::string error;
    auto log = JournalLog::open_directory(::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC), &error);
    EXPECT_TRUE(log) << error;
    return log;
  }

  std::unique_ptr<JournalLog> open_sample() {
    EXPECT_TRUE(testing::write_journal(scratch_.path("/sample.journal"), sample_entries()));
    return open(scratch_.dir());
  }

  std::optional<std::string> saved_tz_;
  testing::ScratchDir scratch_;
};

std::string all_lines() {
  std::string text;
  for (const std::string& line : kLines) text += line;
  return text;
}

// The rendering without a journal in between; the sample journal below
// covers the fields a journal supplies.
TEST_F(JournalLogTest, BareEntriesAndControlCharacters) {
  JournalEntry bare;
  bare.realtime_usec = kNov14;
  EXPECT_EQ(render_journal_line(bare), "Nov 14 22:13:20 -: [no message]\n");
  bare.message = std::string("\0", 1);
  EXPECT_EQ(render_journal_line(bare), "Nov 14 22:13:20 -: [1 bytes of binary data]\n");
  bare.identifier = "x\ny";
  bare.message = "\r\x7F";
  EXPECT_EQ(render_journal_line(bare), "Nov 14 22:13:20 - x#012y: #015#177\n");
}

// Every entry becomes one syslog line, and windows cut that text as a file.
TEST_F(JournalLogTest, WindowsCutTheRenderingLikeAFile) {
  auto log = open_sample();
  ASSERT_TRUE(log);
  const std::string text = all_lines();
  const int64_t size = static_cast<int64_t>(text.size());
  const int64_t first_line = static_cast<int64_t>(kLines[0].size());
  for (int64_t offset = -size - 3; offset <= size + 3; ++offset) {
    for (int64_t amount : {int64_t{0}, int64_t{1}, int64_t{13}, size + 5}) {
      JournalWindow w = log->read(offset, amount);
      int64_t start = offset >= 0 ? std::min(offset, size) : std::max<int64_t>(0, size + offset);
      ASSERT_EQ(w.bytes, text.substr(static_cast<size_t>(start), static_cast<size_t>(amount)))
          << "offset " << offset << " amount " << amount;
      // Counted from the end, the start is only known once the walk back
      // reaches the first entry.
      int64_t reported = offset < 0 && start >= first_line ? offset : start;
      ASSERT_EQ(w.offset, reported) << "offset " << offset << " amount " << amount;
    }
  }
  JournalWindow extreme = log->read(std::numeric_limits<int64_t>::min(), 5);
  EXPECT_EQ(extreme.offset, 0);
  EXPECT_EQ(extreme.bytes, text.substr(0, 5));
  EXPECT_EQ(log->read(std::numeric_limits<int64_t>::max(), 5).offset, size);
}

TEST_F(JournalLogTest, MatchesSelectEntries) {
  auto log = open_sample();
  ASSERT_TRUE(log);
  std::string error;
  ASSERT_TRUE(log->restrict_to({"_TRANSPORT=kernel"}, &error)) << error;
  EXPECT_EQ(log->read(0, 1000).bytes, kLines[1]);
  EXPECT_EQ(log->read(-5, 1000).bytes, "vice\n");

  ASSERT_TRUE(log->restrict_to({"SYSLOG_FACILITY=4", "SYSLOG_FACILITY=10"}, &error)) << error;
  EXPECT_EQ(log->read(0, 1000).bytes, kLines[0] + kLines[4]);

  ASSERT_TRUE(log->restrict_to({"SYSLOG_IDENTIFIER=sshd", "+", "_COMM=cron"}, &error)) << error;
  EXPECT_EQ(log->read(0, 1000).bytes, kLines[0] + kLines[3]);

  ASSERT_TRUE(log->restrict_to({"SYSLOG_IDENTIFIER=nobody"}, &error));
  JournalWindow none = log->read(-10, 10);
  EXPECT_EQ(none.offset, 0);
  EXPECT_EQ(none.bytes, "");

  for (const char* bad : {"lower=x", "NOEQUALS", "=x", "1ABC=x", "A B=x", ""}) {
    EXPECT_FALSE(is_valid_journal_match(bad)) << bad;
    EXPECT_FALSE(log->restrict_to({bad}, &error)) << bad;
  }
  EXPECT_TRUE(is_valid_journal_match("_SYSTEMD_UNIT=a=b"));
}

TEST_F(JournalLogTest, MachineDirectoriesAndEmptyDirectoriesOpen) {
  // Journals keep their files in a directory named by the machine id.
  scratch_.mkdir("/journal/0123456789abcdef0123456789abcdef");
  scratch_.mkdir("/empty");
  ASSERT_TRUE(testing::write_journal(scratch_.path("/journal/0123456789abcdef0123456789abcdef/system.journal"),
                                     {sample_entries()[0]}));
  auto nested = open(scratch_.path("/journal"));
  ASSERT_TRUE(nested);
  EXPECT_EQ(nested->read(0, 1000).bytes, kLines[0]);

  EXPECT_TRUE(nested->has_files());
  auto empty = open(scratch_.path("/empty"));
  ASSERT_TRUE(empty);
  EXPECT_FALSE(empty->has_files());
  JournalWindow nothing = empty->read(-100, 100);
  EXPECT_EQ(nothing.offset, 0);
  EXPECT_EQ(nothing.bytes, "");

  std::string error;
  EXPECT_FALSE(JournalLog::open_directory(-1, &error));
  EXPECT_FALSE(error.empty());
}

}  // namespace
}  // namespace platform
