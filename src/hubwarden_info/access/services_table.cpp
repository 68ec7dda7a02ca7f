// The fixed map of the daemon's service modules to the console's client
// identifiers. Made once by pass zero; its existence is the services-ready
// flag.
#include "access/services_table.h"

#include "request/operations.h"

namespace hubwarden {

namespace {
std::atomic<const ServicesTable*> table{nullptr};
}

const ServicesTable* gServerToClientMapping() { return table.load(); }

bool services_ready() { return table.load() != nullptr; }

void create_services_table() {
  if (table.load()) return;
  static const ServicesTable rows = {
      {"hubwarden_addressbook", "com.marlo.Overseer.AddressBook"},
      {"hubwarden_filer", "com.marlo.Overseer.MarloFile"},
      {"hubwarden_calendar", "com.marlo.Overseer.Calendar"},
      {"hubwarden_dhcp", "com.marlo.Overseer.DHCP"},
      {"hubwarden_dirserv", "com.marlo.Overseer.DirectoryServices"},
      {"hubwarden_dns", "com.marlo.Overseer.DNS"},
      {"hubwarden_ftp", "com.marlo.Overseer.FTP"},
      {"hubwarden_ipfilter", "com.marlo.Overseer.IPFirewall"},
      {"hubwarden_jabber", "com.marlo.Overseer.Jabber"},
      {"hubwarden_mail", "com.marlo.Overseer.Mail"},
      {"hubwarden_mysql", "com.marlo.Overseer.MySQL"},
      {"hubwarden_nat", "com.marlo.Overseer.NAT"},
      {"hubwarden_netstart", "com.marlo.Overseer.Netstart"},
      {"hubwarden_nfs", "com.marlo.Overseer.NFS"},
      {"hubwarden_notification", "com.marlo.Overseer.Notification"},
      {"hubwarden_podpub", "com.marlo.Overseer.Podcast"},
      {"hubwarden_print", "com.marlo.Overseer.Print"},
      {"hubwarden_proxy", "com.marlo.Overseer.Proxy"},
      {"hubwarden_mediastream", "com.marlo.Overseer.Mediastream"},
      {"hubwarden_radius", "com.marlo.Overseer.Radius"},
      {"hubwarden_swupdate", "com.marlo.Overseer.SWUpdate"},
      {"hubwarden_vpn", "com.marlo.Overseer.VPN"},
      {"hubwarden_web", "com.marlo.Overseer.Web"},
      {"hubwarden_appweb", "com.marlo.Overseer.Appweb"},
      {"hubwarden_smb", "com.marlo.Overseer.Windows"},
      {"hubwarden_gridfarm", "com.marlo.Overseer.Gridfarm"},
  };
  table.store(&rows);
}

void reset_services_table_for_testing() { table.store(nullptr); }

}  // namespace hubwarden
