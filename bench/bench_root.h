// Scratch directories for benchmarks: a fresh temporary directory removed
// afterwards, and a root (that directory, or the real "/") installed as the
// platform's Paths for the object's lifetime.
#pragma once

#include <stdlib.h>

#include <filesystem>
#include <memory>
#include <string>

#include "platform/paths.h"
#include "platform/registry.h"

namespace bench {

class ScratchDir {
 public:
  ScratchDir() {
    std::string tmpl = (std::filesystem::temp_directory_path() / "hubwarden-bench-XXXXXX").string();
    if (::mkdtemp(tmpl.data())) dir_ = tmpl;
  }
  ~ScratchDir() {
    std::error_code ec;
    if (!dir_.empty()) std::filesystem::remove_all(dir_, ec);
  }
  ScratchDir(const ScratchDir&) = delete;
  ScratchDir& operator=(const ScratchDir&) = delete;
  const std::string& dir() const { return dir_; }

 private:
  std::string dir_;
};

class BenchRoot {
 public:
  // sandbox false installs the real "/" and makes no directory.
  explicit BenchRoot(bool sandbox = true) {
    if (sandbox) scratch_ = std::make_unique<ScratchDir>();
    paths_ = std::make_unique<platform::Paths>(sandbox ? scratch_->dir() : "/");
    platform::testing::install<platform::Paths>(paths_.get());
  }
  ~BenchRoot() { platform::testing::install<platform::Paths>(nullptr); }
  BenchRoot(const BenchRoot&) = delete;
  BenchRoot& operator=(const BenchRoot&) = delete;
  // The sandbox directory; empty for the real root.
  std::string dir() const { return scratch_ ? scratch_->dir() : std::string(); }

 private:
  std::unique_ptr<ScratchDir> scratch_;
  std::unique_ptr<platform::Paths> paths_;
};

}  // namespace bench
