// Confined opens below a sandbox root: links that climb out, absolute links,
// linked directories and loops, through the kernel's lookup and our own walk
// alike, and the file helpers built on them.
#include "platform/root_fs.h"

#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <string>

#include "platform/file_util.h"
#include "platform/linux/basics_test_support.h"
#include "platform/unique_fd.h"

namespace platform {
namespace {

namespace fs = std::filesystem;
using testing::RealRoot;
using testing::ScratchRoot;

// A file outside the sandbox that nothing done inside it may read or change.
struct OutsideFile : testing::ScratchDir {
  OutsideFile() { write("/secret", "outside"); }
  std::string secret() const { return path("/secret"); }
};

// What an open found: the file's identity, or the error.
struct Outcome {
  dev_t dev = 0;
  ino_t ino = 0;
  int error = 0;
  bool operator==(const Outcome&) const = default;
};

Outcome outcome_of(int fd) {
  Outcome o;
  if (fd < 0) {
    o.error = errno;
    return o;
  }
  struct stat st;
  ::fstat(fd, &st);
  o.dev = st.st_dev;
  o.ino = st.st_ino;
  ::close(fd);
  return o;
}

Outcome identity(const std::string& path) {
  struct stat st;
  EXPECT_EQ(::stat(path.c_str(), &st), 0) << path;
  return Outcome{st.st_dev, st.st_ino, 0};
}

TEST(RootFsTest, LinksResolveInsideTheRootInBothLookups) {
  ScratchRoot root;
  OutsideFile outside;
  root.write("/secret", "inside");
  root.write("/etc/shadow", "sandbox shadow");
  // Relative links that climb out, absolute links, a directory linked to
  // a folder outside, links that stay inside, and a loop.
  root.link("/var/log/secure.log", "../../../../../../../../etc/shadow");
  root.link("/var/log/escape", "../../../../../../../.." + outside.secret());
  root.link("/etc/absolute", "/secret");
  root.link("/Library/Preferences", outside.dir());
  root.link("/etc/inside", "../var/log/secure.log");
  root.link("/etc/up", "..");
  root.link("/loop/a", "b");
  root.link("/loop/b", "a");

  UniqueFd root_fd(::open(root.path("/").c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
  ASSERT_TRUE(root_fd.valid());
  struct Case {
    std::string relative;
    int flags;
    Outcome expected;
  };
  const Case cases[] = {
      {"var/log/secure.log", O_RDONLY, identity(root.path("/etc/shadow"))},
      {"var/log/escape", O_RDONLY, {0, 0, ENOENT}},
      {"etc/absolute", O_RDONLY, identity(root.path("/secret"))},
      {"Library/Preferences/secret", O_RDONLY, {0, 0, ENOENT}},
      {"etc/inside", O_RDONLY, identity(root.path("/etc/shadow"))},
      {"../../../secret", O_RDONLY, identity(root.path("/secret"))},
      {"etc/up/etc/up/secret", O_RDONLY, identity(root.path("/secret"))},
      {"", O_RDONLY | O_DIRECTORY, identity(root.path("/"))},
      {"loop/a", O_RDONLY, {0, 0, ELOOP}},
      {"etc/absolute", O_RDONLY | O_NOFOLLOW, {0, 0, ELOOP}},
      {"secret/below-a-file", O_RDONLY, {0, 0, ENOTDIR}},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(outcome_of(open_in_root(root_fd.get(), c.relative, c.flags)), c.expected) << c.relative;
    EXPECT_EQ(outcome_of(open_in_root_by_walk(root_fd.get(), c.relative, c.flags)), c.expected) << c.relative;
  }

  // Creating through a link to a missing file creates it inside the root.
  root.link("/etc/dangling", "/var/new-file");
  for (auto opener : {open_in_root, open_in_root_by_walk}) {
    fs::remove(root.path("/var/new-file"));
    UniqueFd fd(opener(root_fd.get(), "etc/dangling", O_WRONLY | O_CREAT, 0600));
    EXPECT_TRUE(fd.valid());
    EXPECT_TRUE(fs::exists(root.path("/var/new-file")));
  }

  // The full paths the rest of the code uses go through the same lookup;
  // outside the root, and at the real root, open() applies as always.
  EXPECT_EQ(outcome_of(open_confined(root.path("/var/log/escape"), O_RDONLY)).error, ENOENT);
  EXPECT_EQ(outcome_of(open_confined(outside.secret(), O_RDONLY)), identity(outside.secret()));
  std::string found_root, rest;
  EXPECT_TRUE(confined_to_root(root.path("//etc/hostname"), &found_root, &rest));
  EXPECT_EQ(rest, "etc/hostname");
  EXPECT_FALSE(confined_to_root(root.path("") + "x/etc/hostname", &found_root, &rest)) << "a sibling, not below";
  testing::ScopedService<Paths> no_root(nullptr);
  EXPECT_EQ(outcome_of(open_confined(root.path("/var/log/escape"), O_RDONLY)), identity(outside.secret()));
  RealRoot real;
  EXPECT_EQ(outcome_of(open_confined(root.path("/var/log/escape"), O_RDONLY)), identity(outside.secret()));
}

TEST(FileUtilTest, WritesNeverLeaveTheRoot) {
  ScratchRoot root;
  OutsideFile outside;
  // A linked folder outside the root: the settings file is not written there.
  root.link("/Library/Preferences", outside.dir());
  EXPECT_FALSE(write_file_atomically(root.path("/Library/Preferences/settings.plist"), "x"));
  EXPECT_FALSE(make_directories(root.path("/Library/Preferences/deeper")));
  EXPECT_EQ(std::distance(fs::directory_iterator(outside.dir()), fs::directory_iterator()), 1);

  // A file that is a link to one outside is replaced, never written through.
  root.link("/etc/passwd", outside.secret());
  EXPECT_TRUE(write_file_atomically(root.path("/etc/passwd"), "sandbox"));
  EXPECT_FALSE(fs::is_symlink(root.path("/etc/passwd")));
  EXPECT_EQ(read_file(root.path("/etc/passwd")), "sandbox");
  EXPECT_EQ(read_file(outside.secret()), "outside");

  // Links within the root work as they would at "/".
  root.link("/var/db", "/srv/db");
  ASSERT_TRUE(make_directories(root.path("/srv/db")));
  EXPECT_TRUE(write_file_atomically(root.path("/var/db/hubwarden/x.plist"), "kept"));
  EXPECT_EQ(read_file(root.path("/srv/db/hubwarden/x.plist")), "kept");
  EXPECT_TRUE(file_exists(root.path("/var/db/hubwarden/x.plist")));
  EXPECT_FALSE(file_exists(root.path("/var/db/hubwarden/y.plist")));

  // A file where a directory should be.
  root.write("/plain", "file");
  EXPECT_FALSE(make_directories(root.path("/plain/sub")));
  EXPECT_FALSE(write_file_atomically(root.path("/plain/sub/x"), "x"));
  EXPECT_FALSE(write_file_atomically(root.path("/"), "x"));
}

TEST(FileUtilTest, ReadsRefuseWhatIsNotASmallRegularFile) {
  ScratchRoot root;
  ReadError why = ReadError::kNone;
  // A FIFO would block a blocking open until a writer came.
  ASSERT_TRUE(make_directories(root.path("/var/db/groups")));
  ASSERT_EQ(::mkfifo(root.path("/var/db/groups/admin.plist").c_str(), 0600), 0);
  EXPECT_FALSE(read_file(root.path("/var/db/groups/admin.plist"), kDefaultReadLimit, &why));
  EXPECT_EQ(why, ReadError::kNotRegular);
  // A settings file linked to an endless device; the link stays in the
  // root, so use the device by its real path without a root.
  {
    RealRoot real;
    root.link("/zero", "/dev/zero");
    EXPECT_FALSE(read_file(root.path("/zero"), kDefaultReadLimit, &why));
    EXPECT_EQ(why, ReadError::kNotRegular);
  }
  EXPECT_FALSE(read_file(root.path("/var/db"), kDefaultReadLimit, &why));
  EXPECT_EQ(why, ReadError::kNotRegular);
  EXPECT_FALSE(read_file(root.path("/absent"), kDefaultReadLimit, &why));
  EXPECT_EQ(why, ReadError::kNotFound);

  // The limit is inclusive, and it holds for files that report no size.
  root.write("/ten", "0123456789");
  EXPECT_EQ(read_file(root.path("/ten"), 10, &why), "0123456789");
  EXPECT_EQ(why, ReadError::kNone);
  EXPECT_FALSE(read_file(root.path("/ten"), 9, &why));
  EXPECT_EQ(why, ReadError::kTooLarge);
  std::optional<std::string> self = read_file("/proc/self/status");
  ASSERT_TRUE(self);
  EXPECT_FALSE(read_file("/proc/self/status", self->size() / 2, &why));
  EXPECT_EQ(why, ReadError::kTooLarge);
}

TEST(FileUtilTest, ADeadWritersTemporaryFilesGoAtTheNextWrite) {
  ScratchRoot root;
  const std::string target = root.path("/Library/Preferences/settings.plist");
  ASSERT_TRUE(write_file_atomically(target, "first"));

  // A writer that dies after creating its temporary file, as one killed
  // mid-write does.
  pid_t writer = ::fork();
  ASSERT_GE(writer, 0);
  if (writer == 0) {
    std::string tmp = target + ".tmp." + std::to_string(::getpid()) + ".0";
    int fd = ::open(tmp.c_str(), O_WRONLY | O_CREAT | O_EXCL, 0644);
    if (fd < 0 || ::write(fd, "half", 4) != 4) ::_exit(1);
    ::_exit(0);
  }
  int status = 0;
  ASSERT_EQ(::waitpid(writer, &status, 0), writer);
  ASSERT_EQ(status, 0);
  const std::string dead = target + ".tmp." + std::to_string(writer) + ".0";
  ASSERT_TRUE(fs::exists(dead));

  // Temporary files of live writers stay, unless they are too old to be
  // a write in progress; files that merely look alike are not touched.
  const std::string ours = target + ".tmp." + std::to_string(::getpid()) + ".999";
  const std::string old = target + ".tmp.1.7";
  const std::string young = target + ".tmp.1.8";
  const std::string unrelated[] = {target + ".tmp.x", target + ".tmp.12", target + ".tmp.1.2.3",
                                   root.path("/Library/Preferences/other.plist.tmp.99999999.0")};
  for (const std::string& p : {ours, old, young}) ASSERT_TRUE(write_file_atomically(p, "x"));
  for (const std::string& p : unrelated) ASSERT_TRUE(write_file_atomically(p, "x"));
  struct timespec times[2] = {{::time(nullptr) - 3600, 0}, {::time(nullptr) - 3600, 0}};
  ASSERT_EQ(::utimensat(AT_FDCWD, old.c_str(), times, 0), 0);

  ASSERT_TRUE(write_file_atomically(target, "second"));
  EXPECT_EQ(read_file(target), "second");
  EXPECT_FALSE(fs::exists(dead));
  EXPECT_FALSE(fs::exists(old));
  EXPECT_TRUE(fs::exists(ours));
  EXPECT_TRUE(fs::exists(young)) << "pid 1 is alive";
  for (const std::string& p : unrelated) EXPECT_TRUE(fs::exists(p)) << p;
}

}  // namespace
}  // namespace platform
