// DNS-SD advertising: publishes a service record (type, port, TXT data) in
// the default domain under the host's default instance name, and keeps it
// published for as long as the caller holds the record's handle.
//
// Thread-safety: publish may be called from any thread, and a handle may be
// destroyed on any thread. The advertiser does its network work on its own
// schedule (the daemon's run loop on Linux), so publish returns before the
// record is on the network, and a record whose handle is dropped goes away
// shortly after. Requests take effect in the order they were made: a record
// dropped before another is published is withdrawn before the other
// appears.
//
// Failures are reported, not returned: the record cannot be published at
// all, or the advertiser gives up on it later; either way the handle stays
// valid and dropping it is still how the caller lets go.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace platform {

// One TXT entry, sent as "key=value". Both are byte strings; the key should
// be printable ASCII without "=", and the whole entry at most 255 bytes.
struct TxtEntry {
  std::string key;
  std::string value;
  bool operator==(const TxtEntry&) const = default;
};
using TxtRecord = std::vector<TxtEntry>;

// Longest "key=value" a TXT entry can carry.
inline constexpr size_t kMaxTxtEntryBytes = 255;

// A published record. Destroying it withdraws the record; there is no other
// way to stop publishing.
class PublishedRecord {
 public:
  virtual ~PublishedRecord() = default;
  PublishedRecord() = default;
  PublishedRecord(const PublishedRecord&) = delete;
  PublishedRecord& operator=(const PublishedRecord&) = delete;
};

class Advertiser {
 public:
  // Told why a record could not be published (a text for the log). Called
  // on the advertiser's own thread, possibly after the record's handle has
  // been dropped, so it must not refer to anything the handle's owner may
  // free; it must return quickly.
  using FailureHandler = std::function<void(const std::string& description)>;

  virtual ~Advertiser() = default;
  Advertiser() = default;
  Advertiser(const Advertiser&) = delete;
  Advertiser& operator=(const Advertiser&) = delete;

  // Publishes a record of type ("_name._tcp") on port, with txt when given
  // (entries in order), and returns its handle; never null. When the
  // advertiser cannot reach the network's advertising service now, the
  // record is published once it can, for as long as the handle lives.
  virtual std::unique_ptr<PublishedRecord> publish(const std::string& type, uint16_t port,
                                                   const std::optional<TxtRecord>& txt,
                                                   FailureHandler did_not_publish) = 0;
};

}  // namespace platform
