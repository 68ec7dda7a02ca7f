// Test support for the unit-file code: a sandbox directory installed as the
// platform root, with helpers to lay out unit files, links and a fake
// process table inside it. Header-only: used by *_test.cpp files alone.
#pragma once

#include <stdlib.h>
#include <unistd.h>

#include <filesystem>
#include <memory>
#include <string>

#include "platform/file_util.h"
#include "platform/paths.h"
#include "platform/registry.h"

namespace platform::testing {

class UnitSandbox {
 public:
  UnitSandbox() {
    std::string tmpl = (std::filesystem::temp_directory_path() / "hubwarden-units-XXXXXX").string();
    dir_ = ::mkdtemp(tmpl.data());
    paths_ = std::make_unique<Paths>(dir_);
    previous_ = slot<Paths>();
    install<Paths>(paths_.get());
  }
  ~UnitSandbox() {
    install<Paths>(previous_);
    std::error_code ec;
    std::filesystem::remove_all(dir_, ec);
  }
  UnitSandbox(const UnitSandbox&) = delete;
  UnitSandbox& operator=(const UnitSandbox&) = delete;

  // The sandbox path of an absolute path.
  std::string path(const std::string& absolute) const { return dir_ + absolute; }

  void write(const std::string& absolute, const std::string& contents) const {
    write_file_atomically(path(absolute), contents);
  }
  // A link at absolute (inside the sandbox) whose text is target, verbatim.
  void link(const std::string& absolute, const std::string& target) const {
    std::string p = path(absolute);
    make_directories(p.substr(0, p.find_last_of('/')));
    ::unlink(p.c_str());
    if (::symlink(target.c_str(), p.c_str()) != 0) abort();
  }
  bool exists(const std::string& absolute) const {
    std::error_code ec;
    return std::filesystem::is_symlink(path(absolute), ec) || std::filesystem::exists(path(absolute), ec);
  }
  std::string link_target(const std::string& absolute) const {
    std::error_code ec;
    return std::filesystem::read_symlink(path(absolute), ec).string();
  }
  // A process of the fake process table, in state ('S' sleeping, 'Z' zombie).
  void add_process(int pid, const std::string& comm, char state = 'S') const {
    std::string dir = "/proc/" + std::to_string(pid);
    write(dir + "/comm", comm + "\n");
    write(dir + "/stat", std::to_string(pid) + " (" + comm + ") " + state + " 1 1 1 0 -1\n");
  }

 private:
  std::string dir_;
  std::unique_ptr<Paths> paths_;
  Paths* previous_ = nullptr;
};

}  // namespace platform::testing
