// The identity certificates, asked of the certificate module.
#include "access/identity_certificates.h"

#include "platform/host_services.h"
#include "platform/registry.h"

namespace hubwarden {

std::optional<plist::Value> get_identity_certificates() {
  // Before the services are ready the host still routes a request to one
  // named module, so the same manager serves both cases here.
  if (!platform::has<platform::ModuleManager>()) return std::nullopt;
  std::optional<plist::Dict> reply = platform::get<platform::ModuleManager>().do_command(
      plist::Dict{{"command", "readIdentityCertificates"}}, "hubwarden_certs", "");
  const plist::Value* certificates = reply ? reply->find("identityCertificates") : nullptr;
  if (!certificates) return std::nullopt;
  return *certificates;
}

}  // namespace hubwarden
