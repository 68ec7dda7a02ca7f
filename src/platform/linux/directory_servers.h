// The directory servers the machine's directory client (SSSD) is set up to
// use, read from its configuration: each LDAP URI of an "ldap" domain, and
// each AD server (or, failing those, the AD domain) of an "ad" domain. Pure
// and safe from any thread.
#pragma once

#include <string_view>
#include <vector>

#include "platform/directory.h"

namespace platform {

inline constexpr const char* kDirectoryClientConfig = "/etc/sssd/sssd.conf";

// The servers of the configuration text conf, in file order; sections
// other than "[domain/...]", comments and unknown keys are passed over.
std::vector<DirectoryServer> servers_in_directory_client_config(std::string_view conf);

}  // namespace platform
