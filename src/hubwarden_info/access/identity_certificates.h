// The server's identity certificates, as the certificate module lists them.
// Safe from any thread.
#pragma once

#include <optional>

#include "plist/value.h"

namespace hubwarden {

// The "identityCertificates" of the certificate module's reply to
// "readIdentityCertificates", asked with no user; nullopt when the module
// is absent or its reply has none.
std::optional<plist::Value> get_identity_certificates();

}  // namespace hubwarden
