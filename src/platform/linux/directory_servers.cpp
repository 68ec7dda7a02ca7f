// The directory servers named by the directory client's configuration.
#include "platform/linux/directory_servers.h"

#include <string>

#include "plist/text_util.h"

namespace platform {

namespace {

// "ldaps://host:636/" -> "host"; "ldap://[::1]" -> "::1".
std::string host_of_uri(std::string_view uri) {
  size_t scheme = uri.find("://");
  if (scheme != std::string_view::npos) uri.remove_prefix(scheme + 3);
  uri = uri.substr(0, uri.find('/'));
  if (uri.starts_with('[')) {
    size_t close = uri.find(']');
    return std::string(uri.substr(1, close == std::string_view::npos ? uri.size() - 1 : close - 1));
  }
  return std::string(uri.substr(0, uri.find(':')));
}

}  // namespace

std::vector<DirectoryServer> servers_in_directory_client_config(std::string_view conf) {
  std::vector<DirectoryServer> servers;
  struct Domain {
    std::string provider, ldap_uri, ad_server, ad_domain;
  };
  std::vector<Domain> domains;
  bool in_domain = false;
  text::for_each_line(conf, [&](std::string_view line) {
    line = text::trim(line);
    if (line.empty() || line.front() == '#' || line.front() == ';') return;
    if (line.front() == '[') {
      in_domain = line.starts_with("[domain/");
      if (in_domain) domains.emplace_back();
      return;
    }
    if (!in_domain) return;
    size_t eq = line.find('=');
    if (eq == std::string_view::npos) return;
    std::string_view key = text::trim(line.substr(0, eq));
    std::string value(text::trim(line.substr(eq + 1)));
    Domain& d = domains.back();
    if (key == "id_provider")
      d.provider = value;
    else if (key == "ldap_uri")
      d.ldap_uri = value;
    else if (key == "ad_server")
      d.ad_server = value;
    else if (key == "ad_domain")
      d.ad_domain = value;
  });
  for (const Domain& d : domains) {
    if (d.provider == "ldap") {
      for (std::string_view uri : text::split_list(d.ldap_uri, ',')) {
        std::string host = host_of_uri(uri);
        if (!host.empty()) servers.push_back({host, DirectoryServer::Kind::Ldap});
      }
    } else if (d.provider == "ad") {
      bool any = false;
      for (std::string_view server : text::split_list(d.ad_server, ',')) {
        if (server == "_srv_") continue;  // discovery, not a server name
        servers.push_back({std::string(server), DirectoryServer::Kind::ActiveDirectory});
        any = true;
      }
      if (!any && !d.ad_domain.empty()) servers.push_back({d.ad_domain, DirectoryServer::Kind::ActiveDirectory});
    }
  }
  return servers;
}

}  // namespace platform
