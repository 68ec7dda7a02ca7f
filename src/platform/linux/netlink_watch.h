// A routing-netlink socket that hears about links and addresses coming and
// going, for watches that only need to know "something changed" and then
// look at the interfaces afresh. The socket is non-blocking; a burst of
// kernel messages is read in one drain() and counts as one change.
//
// Not thread-safe: one thread (or one run loop) at a time.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "platform/unique_fd.h"

namespace platform {

class NetlinkWatch {
 public:
  // What to listen to: a mix of the kernel's RTMGRP_* multicast groups.
  static constexpr uint32_t kLinks = 1u << 0;          // RTMGRP_LINK
  static constexpr uint32_t kIPv4Addresses = 1u << 4;  // RTMGRP_IPV4_IFADDR
  static constexpr uint32_t kIPv6Addresses = 1u << 8;  // RTMGRP_IPV6_IFADDR

  // A socket bound to groups. nullopt, with *error (when given) saying why,
  // when the socket cannot be made or bound.
  static std::optional<NetlinkWatch> open(uint32_t groups, std::string* error);

  NetlinkWatch(NetlinkWatch&&) = default;
  NetlinkWatch& operator=(NetlinkWatch&&) = default;

  // The descriptor to wait on for reading.
  int fd() const { return fd_.get(); }

  // Reads every message waiting without blocking. Returns true when any of
  // them announced a link or address appearing, changing or going. A
  // receive buffer that overflowed also counts as a change: messages were
  // lost, so the caller must look again.
  bool drain();

 private:
  explicit NetlinkWatch(UniqueFd fd) : fd_(std::move(fd)) {}
  UniqueFd fd_;
};

}  // namespace platform
