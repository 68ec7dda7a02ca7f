// The monitor's end of the event port: a Unix datagram socket on which
// each datagram is one event, an XML property list dictionary of strings
// holding "event_type" (see platform/event_port.h).
//
// Datagrams come from any local process allowed to write the socket, so
// every one is checked: truncated or oversized ones, ones that do not
// parse, that are not a dictionary or that lack a string "event_type" are
// dropped and counted. Thread-compatible: one owner (the intake loop).
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

#include "plist/value.h"

namespace sentryd {

enum class DropReason { None, Oversized, Unparsable, NotDictionary, NoEventType };

// Turns one datagram into an event, keeping its string members (members of
// other types are ignored). nullopt, with *reason set, when unusable.
std::optional<plist::Dict> decode_event(std::string_view datagram, DropReason* reason);

struct IntakeCounts {
  size_t received = 0;  // well-formed events
  size_t oversized = 0;
  size_t unparsable = 0;
  size_t not_dictionary = 0;
  size_t no_event_type = 0;
};

class EventSocket {
 public:
  // Binds path with mode 0660, making its folder when missing. A socket
  // already there is removed when no process answers on it; a live one, or
  // anything that is not a socket, is left alone and the open fails.
  // nullopt with *error set on failure.
  static std::optional<EventSocket> open(const std::string& path, std::string* error);

  EventSocket(EventSocket&& other) noexcept;
  EventSocket& operator=(EventSocket&&) = delete;
  EventSocket(const EventSocket&) = delete;
  // Closes the socket and removes its path.
  ~EventSocket();

  // The non-blocking descriptor to wait on.
  int fd() const { return fd_; }

  // Reads one pending datagram into *event. False when none is pending (or
  // on a read error); a dropped datagram returns true with *event empty
  // and counts().
  bool receive(std::optional<plist::Dict>* event);

  const IntakeCounts& counts() const { return counts_; }

 private:
  EventSocket(int fd, std::string path) : fd_(fd), path_(std::move(path)) {}

  int fd_;
  std::string path_;
  std::string buffer_;
  IntakeCounts counts_;
};

}  // namespace sentryd
