// Test doubles for the request spine's tests: a sandbox root, a requester
// with a fixed user, and a directory that only answers membership questions
// (and records them, so tests can check which groups were asked about).
// Header-only: used by *_test.cpp files alone.
#pragma once

#include <stdlib.h>

#include <filesystem>
#include <map>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "platform/directory.h"
#include "platform/host_services.h"
#include "platform/linux/basics_test_support.h"
#include "platform/paths.h"
#include "platform/registry.h"

namespace hubwarden::testing {

// A fresh directory installed as the platform root for the test's lifetime.
using SandboxRoot = platform::testing::ScratchRoot;

class FixedRequester : public platform::Requester {
 public:
  explicit FixedRequester(std::string user) : user_(std::move(user)) {}
  std::string user_for(const plist::Dict*) override { return user_; }
  void set_user(std::string user) { user_ = std::move(user); }

 private:
  std::string user_;
};

class MembershipDirectory : public platform::Directory {
 public:
  void add_member(const std::string& user, const std::string& group) { members_.insert({user, group}); }
  const std::vector<std::string>& groups_asked() const { return asked_; }

  bool is_member(const std::string& user, const std::string& group) override {
    asked_.push_back(group);
    return members_.count({user, group}) > 0;
  }
  std::string default_local_node_path() override { return "/Local/Default"; }
  int32_t open_node(const std::string&) override { return platform::kDirectoryOK; }
  std::optional<platform::UserRecord> find_user(const std::string&, const std::string&, int32_t* status) override {
    *status = platform::kDirectoryOK;
    return std::nullopt;
  }
  int32_t get_group_record(const std::string&, const std::string&, plist::Dict* attributes) override {
    attributes->clear();
    return platform::kDirectoryRecordNotFound;
  }
  int32_t set_group_record(const std::string&, const std::string&, const plist::Dict*) override {
    return platform::kDirectoryWriteFailed;
  }
  std::vector<std::string> groups_with_prefix(const std::string&, const std::string&, size_t) override { return {}; }
  std::vector<platform::DirectoryServer> configured_servers() override { return {}; }

 private:
  std::set<std::pair<std::string, std::string>> members_;
  std::vector<std::string> asked_;
};

inline std::vector<std::string> keys_of(const plist::Dict& d) {
  std::vector<std::string> keys;
  for (const auto& [key, value] : d) keys.push_back(key);
  return keys;
}

// Installs impl for the scope and restores what was there before.
template <typename Service>
using Installed = platform::testing::ScopedService<Service>;

}  // namespace hubwarden::testing
