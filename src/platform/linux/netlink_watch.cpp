// Link and address announcements from the kernel's routing socket.
#include "platform/linux/netlink_watch.h"

#include <errno.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <string.h>
#include <sys/socket.h>

static_assert(platform::NetlinkWatch::kLinks == RTMGRP_LINK);
static_assert(platform::NetlinkWatch::kIPv4Addresses == RTMGRP_IPV4_IFADDR);
static_assert(platform::NetlinkWatch::kIPv6Addresses == RTMGRP_IPV6_IFADDR);

namespace platform {

std::optional<NetlinkWatch> NetlinkWatch::open(uint32_t groups, std::string* error) {
  UniqueFd fd(::socket(AF_NETLINK, SOCK_RAW | SOCK_NONBLOCK | SOCK_CLOEXEC, NETLINK_ROUTE));
  if (!fd.valid()) {
    if (error) *error = std::string("netlink socket: ") + strerror(errno);
    return std::nullopt;
  }
  sockaddr_nl address{};
  address.nl_family = AF_NETLINK;
  address.nl_groups = groups;
  if (::bind(fd.get(), reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
    if (error) *error = std::string("netlink bind: ") + strerror(errno);
    return std::nullopt;
  }
  return NetlinkWatch(std::move(fd));
}

bool NetlinkWatch::drain() {
  bool changed = false;
  alignas(nlmsghdr) char buffer[16384];
  for (;;) {
    ssize_t n = ::recv(fd_.get(), buffer, sizeof buffer, MSG_DONTWAIT);
    if (n < 0) {
      if (errno == EINTR) continue;
      // The kernel dropped messages we were too slow to read: what they
      // said is unknown, so assume a change and read on.
      if (errno == ENOBUFS) {
        changed = true;
        continue;
      }
      return changed;  // EAGAIN: nothing more waiting
    }
    if (n == 0) return changed;
    int remaining = static_cast<int>(n);
    for (auto* header = reinterpret_cast<nlmsghdr*>(buffer); NLMSG_OK(header, remaining);
         header = NLMSG_NEXT(header, remaining)) {
      switch (header->nlmsg_type) {
        case RTM_NEWLINK:
        case RTM_DELLINK:
        case RTM_NEWADDR:
        case RTM_DELADDR:
          changed = true;
          break;
        default:
          break;
      }
    }
  }
}

}  // namespace platform
