// Host facts for tests, as plain fields. Set them before the code under
// test runs; after that the fake is only read, so it is safe from any
// thread.
#pragma once

#include <optional>
#include <string>

#include "platform/host_info.h"

namespace platform {

class FakeHostInfo : public HostInfo {
 public:
  std::optional<std::string> type = "Linux";
  std::optional<std::string> release = "6.1.0-test";
  std::optional<plist::Dict> system = plist::Dict{{"ProductName", "Debian GNU/Linux"}, {"ProductVersion", "12"}};
  std::optional<plist::Dict> server;
  std::optional<std::string> name = "server.example.com";

  std::optional<std::string> kernel_type() override;
  std::optional<std::string> kernel_release() override;
  std::optional<plist::Dict> system_version() override;
  std::optional<plist::Dict> server_version() override;
  std::optional<std::string> host_name() override;
};

}  // namespace platform
