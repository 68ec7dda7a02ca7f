#include "hubwardend/tail_service.h"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>

#include <filesystem>
#include <limits>
#include <memory>

#include "hubwardend/log_file.h"
#include "platform/file_util.h"
#include "platform/linux/basics_test_support.h"
#include "platform/linux/journal_test_support.h"

namespace hubwardend {
namespace {

struct TailResult {
  ErrorName error = nullptr;
  std::optional<std::string> path;
  plist::Value offset;
  plist::Value amount;
  std::optional<std::string> contents;
};

// Journal times are rendered in local time; the expectations are in UTC.
struct UtcZone {
  UtcZone() : saved(::getenv("TZ") ? std::optional<std::string>(::getenv("TZ")) : std::nullopt) {
    ::setenv("TZ", "UTC", 1);
    ::tzset();
  }
  ~UtcZone() {
    saved ? ::setenv("TZ", saved->c_str(), 1) : ::unsetenv("TZ");
    ::tzset();
  }
  std::optional<std::string> saved;
};

class TailServiceTest : public ::testing::Test {
 protected:
  void SetUp() override {
    table_.set("systemLog", "/var/log/system.log");
    table_.set("secureLog", "/var/log/secure.log");
    table_.set("kernelLog", "/var/log/kernel.log");
    table_.set("relativeLog", "var/log/system.log");
    table_.set("plainLog", "/var/log/plain.log");
  }

  void write_log(const std::string& contents) { root_.write("/var/log/system.log", contents); }

  TailResult tail(const std::string& identifier, plist::Value offset, plist::Value amount,
                  FileTailService* service = nullptr) {
    TailResult r;
    r.offset = std::move(offset);
    r.amount = std::move(amount);
    plist::Dict context;
    r.error = (service ? service : &service_)
                  ->tail(identifier, table_, &r.path, &r.offset, &r.amount, &r.contents, &context, plist::Dict());
    return r;
  }

  platform::testing::ScratchRoot root_;
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

  ASSERT_TRUE(platform::make_directories(root_.path("/var/log/secure.log")));
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
      {3, -5, 3, 0, ""},        // a negative amount reads nothing
      {2.9, 3.7, 2, 3, "234"},  // reals are truncated
      {-2.5, 1.0, 8, 1, "8"},
      {plist::Value(uint64_t{18446744073709551615u}), 1, 10, 0, ""},  // saturates, never wraps to -1
      {least, 2, 0, 2, "01"},
      {most, most, 10, 0, ""},
      {0, 1e300, 0, 10, "0123456789"},
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

TEST_F(TailServiceTest, LogsComeFromTheFirstFilePresentElseTheSandboxJournal) {
  // No file of its own: what rsyslog writes stands in, under its own name.
  root_.write("/var/log/auth.log", "sshd: accepted\n");
  TailResult auth = tail("secureLog", -9, 100);
  ASSERT_EQ(auth.error, nullptr);
  EXPECT_EQ(auth.path, "/var/log/auth.log");
  EXPECT_EQ(auth.offset, plist::Value(6));
  EXPECT_EQ(auth.contents, "accepted\n");
  // A log the configuration does not know is read from the table's path only.
  root_.write("/var/log/plain.log", "plain");
  EXPECT_EQ(tail("plainLog", 0, 100).contents, "plain");

  if (!platform::testing::have_journal_remote()) GTEST_SKIP() << "systemd-journal-remote is not installed";
  UtcZone utc;
  ASSERT_TRUE(platform::make_directories(root_.path("/var/log/journal")));
  EXPECT_TRUE(same_error(tail("kernelLog", 0, 10).error, kLogFileNotFoundErr)) << "a journal without files";
  // Entries of host "box", a second apart from Nov 14 22:13:20 UTC.
  std::vector<platform::testing::ExportEntry> entries;
  auto add = [&entries](const char* identifier, std::string message, std::pair<const char*, const char*> extra) {
    entries.push_back({1700000000000000 + 1000000 * entries.size(),
                       {{"MESSAGE", message}, {"_HOSTNAME", "box"}, {"SYSLOG_IDENTIFIER", identifier}, extra}});
  };
  add("sshd", "Accepted password", {"SYSLOG_FACILITY", "4"});
  entries[0].fields.push_back({"SYSLOG_PID", "42"});
  add("kernel", "usb 1-1: new device", {"_TRANSPORT", "kernel"});
  add("blob", std::string("\xFF\0x", 3), {"SYSLOG_FACILITY", "10"});
  add("su", "caf\xC3", {"SYSLOG_FACILITY", "10"});
  ASSERT_TRUE(platform::testing::write_journal(root_.path("/var/log/journal/system.journal"), entries));
  ::unlink(root_.path("/var/log/auth.log").c_str());

  const std::string secure =
      "Nov 14 22:13:20 box sshd[42]: Accepted password\n"
      "Nov 14 22:13:22 box blob: [3 bytes of binary data]\n"
      "Nov 14 22:13:23 box su: caf\xC3\n";
  TailResult all = tail("secureLog", 0, 1000);
  ASSERT_EQ(all.error, nullptr);
  EXPECT_EQ(all.path, "/var/log/secure.log") << "the journal keeps the name the console knows";
  EXPECT_EQ(all.amount, plist::Value(static_cast<int64_t>(secure.size())));
  EXPECT_EQ(all.contents, decode_utf8_lossy(secure));

  // Counted from the end, in bytes of that rendering.
  TailResult last = tail("secureLog", -12, 4);
  EXPECT_EQ(last.offset, plist::Value(-12));
  EXPECT_EQ(last.amount, plist::Value(4));
  EXPECT_EQ(last.contents, secure.substr(secure.size() - 12, 4));
  TailResult far = tail("secureLog", -100000, 20);
  EXPECT_EQ(far.offset, plist::Value(0));
  EXPECT_EQ(far.contents, secure.substr(0, 20));

  EXPECT_EQ(tail("kernelLog", 0, 1000).contents, "Nov 14 22:13:21 box kernel: usb 1-1: new device\n");
  // A file, once there, is preferred to the journal.
  write_log("from the file\n");
  EXPECT_EQ(tail("systemLog", 0, 1000).contents, "from the file\n");

  // Without a journal entry in its source, a log has no journal to fall back on.
  LogSources sources = default_log_sources();
  sources["kernelLog"].journal.reset();
  FileTailService no_journal(sources);
  EXPECT_TRUE(same_error(tail("kernelLog", 0, 10, &no_journal).error, kLogFileNotFoundErr));
}

TEST_F(TailServiceTest, LinksNeverLeadOutOfTheSandbox) {
  // A secret outside the sandbox, reachable by a path that climbs out of it.
  std::string outside = root_.path("") + "-outside";
  ASSERT_TRUE(platform::write_file_atomically(outside + "/etc/shadow", "root:SECRET:19000::::::\n"));
  const std::string climb = "../../../../../../../../../.." + outside + "/etc/shadow";
  for (const std::string& target :
       {climb, outside + "/etc/shadow", std::string("/proc/self/root") + outside + "/etc/shadow"}) {
    root_.link("/var/log/secure.log", target);
    TailResult r = tail("secureLog", 0, 1000);
    EXPECT_TRUE(same_error(r.error, kLogFileNotFoundErr)) << target;
    EXPECT_FALSE(r.contents && r.contents->find("SECRET") != std::string::npos) << target;
  }
  // A link through another link, and a linked directory, are resolved
  // inside the sandbox too.
  root_.link("/var/log/secure.log", "auth.log");
  root_.link("/var/log/auth.log", outside + "/etc/shadow");
  EXPECT_TRUE(same_error(tail("secureLog", 0, 1000).error, kLogFileNotFoundErr));
  std::filesystem::remove_all(root_.path("/var/log"));
  root_.link("/var/log", outside + "/etc");
  EXPECT_TRUE(same_error(tail("systemLog", 0, 1000).error, kLogFileNotFoundErr));
  std::filesystem::remove(root_.path("/var/log"));

  // Inside the sandbox the same link text reaches the sandbox's own file,
  // as it would at the real root.
  root_.write("/etc/shadow", "sandbox shadow\n");
  root_.link("/var/log/secure.log", "../../../../etc/shadow");
  EXPECT_EQ(tail("secureLog", 0, 1000).contents, "sandbox shadow\n");
  std::filesystem::remove_all(outside);
}

TEST_F(TailServiceTest, OnlyRegularFilesAreServedAndNothingBlocks) {
  // A FIFO would block a plain open until a writer came; a refused file
  // does not send the reader on to the next candidate either.
  ASSERT_TRUE(platform::make_directories(root_.path("/var/log")));
  ASSERT_EQ(::mkfifo(root_.path("/var/log/system.log").c_str(), 0600), 0);
  root_.write("/var/log/syslog", "fallback\n");
  TailResult fifo = tail("systemLog", 0, 100);
  EXPECT_TRUE(same_error(fifo.error, kLogFileNotFoundErr));
  EXPECT_FALSE(fifo.contents);
  root_.link("/var/log/secure.log", "/dev/zero");  // missing in the sandbox: next candidate
  root_.write("/var/log/auth.log", "auth\n");
  EXPECT_EQ(tail("secureLog", 0, 100).contents, "auth\n");
}

TEST(LogFile, AtTheRealRootOnlyRootOrTheLogGroupOwnsALog) {
  platform::testing::ScratchDir dir;
  platform::testing::RealRoot real;
  const std::string file = dir.path("/x.log");
  dir.write("/x.log", "log line\n");
  dir.link("/link.log", file);
  const gid_t adm = log_group_id();
  EXPECT_EQ(open_log_file(dir.path("/link.log"), adm).outcome, LogFileOpen::kRefused) << "a link as the last part";
  EXPECT_EQ(open_log_file(dir.path("/missing.log"), adm).outcome, LogFileOpen::kMissing);
  struct stat st {};
  st.st_uid = 1000;
  st.st_gid = static_cast<gid_t>(-1);
  EXPECT_FALSE(is_trusted_log_owner(st, static_cast<gid_t>(-1))) << "no log group matches nothing";

  if (::geteuid() != 0) GTEST_SKIP() << "giving a file away needs root";
  ASSERT_EQ(::chown(file.c_str(), 65534, 65534), 0);
  EXPECT_EQ(open_log_file(file, adm).outcome, LogFileOpen::kRefused) << "a user's own file";
  if (adm != static_cast<gid_t>(-1)) {
    ASSERT_EQ(::chown(file.c_str(), 65534, adm), 0);
    EXPECT_EQ(open_log_file(file, adm).outcome, LogFileOpen::kOpened) << "group adm, as rsyslog writes";
  }
  ASSERT_EQ(::chown(file.c_str(), 0, 65534), 0);
  LogFileOpen opened = open_log_file(file, adm);
  EXPECT_EQ(opened.outcome, LogFileOpen::kOpened);
  EXPECT_TRUE(opened.fd.valid());
}

}  // namespace
}  // namespace hubwardend
