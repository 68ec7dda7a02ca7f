// Test support: scratch directories that vanish with their contents, one
// of them installed as the platform root to hold proc/sys fixtures, unit
// files, links and a fake process table; the machine's own root for tests
// that need the real thing; a log that keeps what it is told. Header-only: used by *_test.cpp files
// alone. Not thread-safe: construct and use from the test's thread.
#pragma once

#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <filesystem>
#include <set>
#include <string>

#include "platform/fake/fake_log.h"
#include "platform/file_util.h"
#include "platform/paths.h"
#include "platform/registry.h"

namespace platform::testing {

// A fresh directory under the temporary folder. Helpers take paths that are
// absolute within it ("/etc/hostname"); a failed write or link fails the test.
class ScratchDir {
 public:
  ScratchDir() {
    std::string tmpl = (std::filesystem::temp_directory_path() / "hubwarden-test-XXXXXX").string();
    if (!::mkdtemp(tmpl.data())) abort();
    dir_ = tmpl;
  }
  ~ScratchDir() {
    std::error_code ec;
    std::filesystem::remove_all(dir_, ec);
  }
  ScratchDir(const ScratchDir&) = delete;
  ScratchDir& operator=(const ScratchDir&) = delete;

  const std::string& dir() const { return dir_; }
  std::string path(const std::string& absolute) const { return dir_ + absolute; }

  void write(const std::string& absolute, const std::string& contents) const {
    if (!write_file_atomically(path(absolute), contents)) ADD_FAILURE() << "cannot write " << absolute;
  }
  // The directory absolute, made with its parents; returns its full path.
  std::string mkdir(const std::string& absolute) const {
    std::error_code ec;
    std::filesystem::create_directories(path(absolute), ec);
    return path(absolute);
  }
  // A link at absolute whose text is target, verbatim, in place of whatever
  // was there.
  void link(const std::string& absolute, const std::string& target) const {
    std::string p = path(absolute);
    mkdir(absolute.substr(0, absolute.find_last_of('/')));
    ::unlink(p.c_str());
    if (::symlink(target.c_str(), p.c_str()) != 0) ADD_FAILURE() << "cannot link " << absolute;
  }
  // There is something at absolute, if only a dangling link.
  bool exists(const std::string& absolute) const {
    std::error_code ec;
    return std::filesystem::is_symlink(path(absolute), ec) || std::filesystem::exists(path(absolute), ec);
  }
  std::string link_target(const std::string& absolute) const {
    std::error_code ec;
    return std::filesystem::read_symlink(path(absolute), ec).string();
  }

 private:
  std::string dir_;
};

// A scratch directory installed as the platform root while it lives.
class ScratchRoot : public ScratchDir {
 public:
  ScratchRoot() : paths_(dir()), installed_(&paths_) {}

  // A process of the fake process table, in state ('S' sleeping, 'Z' zombie).
  void add_process(int pid, const std::string& comm, char state = 'S') const {
    std::string dir = "/proc/" + std::to_string(pid);
    write(dir + "/comm", comm + "\n");
    write(dir + "/stat", std::to_string(pid) + " (" + comm + ") " + state + " 1 1 1 0 -1\n");
  }

 private:
  Paths paths_;
  ScopedService<Paths> installed_;
};

// The machine's own root installed while it lives, whatever was before.
class RealRoot {
 public:
  RealRoot() : installed_(&real_) {}
  RealRoot(const RealRoot&) = delete;
  RealRoot& operator=(const RealRoot&) = delete;

 private:
  Paths real_{"/"};
  ScopedService<Paths> installed_;
};

// A fake log installed as the platform's log while it lives.
class CapturedLog : public FakeLog {
 public:
  CapturedLog() : installed_(this) {}

 private:
  ScopedService<Log> installed_;
};

// The names in directory dir, for checking that nothing was added to or
// taken from a folder a test must leave alone.
inline std::set<std::string> entry_names(const std::string& dir) {
  std::set<std::string> names;
  for (const std::filesystem::directory_entry& e : std::filesystem::directory_iterator(dir))
    names.insert(e.path().filename().string());
  return names;
}

// The host configuration file shipped in the source tree.
inline std::string shipped_host_config_path() {
  std::string here = __FILE__;
  return here.substr(0, here.rfind("/platform/linux/")) + "/hubwardend/config/hubwardend.conf.plist";
}

}  // namespace platform::testing
