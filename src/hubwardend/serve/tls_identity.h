// The certificate and key the HTTPS entrance presents. An administrator may
// install a pair of their own; otherwise the daemon makes a self-signed one
// at its first start and keeps using it, so clients that pinned it stay
// happy across restarts. Safe from any thread as long as two callers do not
// name the same files.
#pragma once

#include <string>

namespace hubwardend::serve {

// Makes sure a usable certificate and private key (PEM) exist at the given
// real paths:
// - both exist and are readable, and the key belongs to the certificate:
//   they are used as they are;
// - neither exists: a self-signed certificate for this host (its name,
//   "localhost", 127.0.0.1 and ::1; valid ten years) and its key are made
//   and written atomically, the key readable by its owner only; missing
//   folders are created (mode 0755);
// - only one exists, or they cannot be read or do not match: false, with a
//   message naming the file in *error. Nothing is written then.
bool ensure_tls_identity(const std::string& cert_path, const std::string& key_path, std::string* error);

}  // namespace hubwardend::serve
