#include "filerd/iterators.h"

#include "filerd/codes.h"

namespace filerd {
namespace {

bool session_attribute(const platform::SambaSession& session, uint32_t code, std::string* value) {
  switch (code) {
    case kIterName:
    case kIterUser:
      *value = session.user;
      return true;
    case kIterGroup:
      *value = session.group;
      return true;
    case kIterAddress:
      *value = session.machine;
      return true;
    case kIterSessionId:
      *value = std::to_string(session.session_id);
      return true;
    case kIterProcess:
      *value = std::to_string(session.pid);
      return true;
    case kIterDialect:
      *value = session.protocol;
      return true;
    default:
      return false;
  }
}

bool share_attribute(const platform::SambaShareConnection& share, uint32_t code, std::string* value) {
  switch (code) {
    case kIterName:
      *value = share.share;
      return true;
    case kIterAddress:
      *value = share.machine;
      return true;
    case kIterSessionId:
      *value = std::to_string(share.session_id);
      return true;
    case kIterProcess:
      *value = std::to_string(share.pid);
      return true;
    case kIterSince:
      *value = share.connected_at;
      return true;
    default:
      return false;
  }
}

}  // namespace

int32_t IteratorTable::create(uint32_t kind, const platform::SambaStatus& status, uint32_t* id) {
  if (kind != kIterSessions && kind != kIterShares) return kStatusBadArgument;
  if (iterators_.size() >= kMaxIterators) return kStatusTooMany;
  Iterator iterator;
  iterator.kind = kind;
  if (kind == kIterSessions) {
    iterator.sessions = status.sessions;
  } else {
    iterator.shares = status.shares;
  }
  // Ids are not reused within a connection, so a stale id cannot reach a
  // newer iterator; 0 is never handed out.
  while (next_id_ == 0 || iterators_.count(next_id_)) ++next_id_;
  *id = next_id_++;
  iterators_.emplace(*id, std::move(iterator));
  return kStatusOk;
}

int32_t IteratorTable::get(uint32_t id, uint32_t code, std::string* value) const {
  auto found = iterators_.find(id);
  if (found == iterators_.end()) return kStatusBadArgument;
  const Iterator& iterator = found->second;
  std::string text;
  bool known = iterator.kind == kIterSessions ? session_attribute({}, code, &text) : share_attribute({}, code, &text);
  if (!known) return kStatusBadArgument;
  if (iterator.position >= iterator.count()) return kStatusEndOfList;
  if (iterator.kind == kIterSessions) {
    session_attribute(iterator.sessions[iterator.position], code, value);
  } else {
    share_attribute(iterator.shares[iterator.position], code, value);
  }
  return kStatusOk;
}

int32_t IteratorTable::advance(uint32_t id) {
  auto found = iterators_.find(id);
  if (found == iterators_.end()) return kStatusBadArgument;
  Iterator& iterator = found->second;
  if (iterator.position < iterator.count()) ++iterator.position;
  return iterator.position < iterator.count() ? kStatusOk : kStatusEndOfList;
}

int32_t IteratorTable::destroy(uint32_t id) { return iterators_.erase(id) ? kStatusOk : kStatusBadArgument; }

}  // namespace filerd
