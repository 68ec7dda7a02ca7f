// Test support for the basic Linux services: a scratch directory that can
// stand in as the platform root and hold proc/sys fixtures. Header-only:
// used by *_test.cpp files alone.
#pragma once

#include <stdlib.h>

#include <filesystem>
#include <memory>
#include <string>

#include "platform/file_util.h"
#include "platform/paths.h"
#include "platform/registry.h"

namespace platform::testing {

class ScratchRoot {
 public:
  ScratchRoot() {
    std::string tmpl = (std::filesystem::temp_directory_path() / "hubwarden-basics-XXXXXX").string();
    if (!::mkdtemp(tmpl.data())) abort();
    dir_ = tmpl;
    paths_ = std::make_unique<Paths>(dir_);
    previous_ = slot<Paths>();
    install<Paths>(paths_.get());
  }
  ~ScratchRoot() {
    install<Paths>(previous_);
    std::error_code ec;
    std::filesystem::remove_all(dir_, ec);
  }
  ScratchRoot(const ScratchRoot&) = delete;
  ScratchRoot& operator=(const ScratchRoot&) = delete;

  // The scratch path of absolute ("/etc/hostname").
  std::string path(const std::string& absolute) const { return dir_ + absolute; }
  void write(const std::string& absolute, const std::string& contents) const {
    if (!write_file_atomically(path(absolute), contents)) abort();
  }

 private:
  std::string dir_;
  std::unique_ptr<Paths> paths_;
  Paths* previous_ = nullptr;
};

}  // namespace platform::testing
