// The object iterators of one connection: each is a snapshot of Samba's
// sessions or share connections taken when it is made, read one item at a
// time. A connection may hold at most kMaxIterators; all go when the
// connection closes (the table is owned by it).
// Not thread-safe: one connection's requests come one at a time.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "platform/linux/samba_status.h"

namespace filerd {

class IteratorTable {
 public:
  static constexpr size_t kMaxIterators = 256;

  // A new iterator of kind (kIterSessions or kIterShares) over status,
  // positioned at its first item. *id is set on success. Statuses:
  // kStatusBadArgument for another kind, kStatusTooMany when full.
  int32_t create(uint32_t kind, const platform::SambaStatus& status, uint32_t* id);
  // The attribute code of the current item as text. kStatusBadArgument for
  // an unknown iterator or a code the kind does not have, kStatusEndOfList
  // past the last item.
  int32_t get(uint32_t id, uint32_t code, std::string* value) const;
  // Moves to the next item; kStatusEndOfList when that leaves the list.
  int32_t advance(uint32_t id);
  int32_t destroy(uint32_t id);
  size_t size() const { return iterators_.size(); }

 private:
  struct Iterator {
    uint32_t kind = 0;
    std::vector<platform::SambaSession> sessions;
    std::vector<platform::SambaShareConnection> shares;
    size_t position = 0;
    size_t count() const { return sessions.size() + shares.size(); }
  };

  std::map<uint32_t, Iterator> iterators_;
  uint32_t next_id_ = 1;
};

}  // namespace filerd
