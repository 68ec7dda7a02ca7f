// Operations whose subsystems have not landed yet. Each answers as a
// command that is not served yet: no reply, no error, no side effect.
// A subsystem that lands removes its entries from this file.
#include "request/operations.h"
#include "swupdate/periodic_check.h"

namespace hubwarden {

// Software update
ErrorName get_swupdate_status(ReplySlot&, Dict*) { return nullptr; }
ErrorName start_swupdate_scan(const Value*, ReplySlot&, Dict*) { return nullptr; }
ErrorName start_swupdate_install(const Dict&, ReplySlot&, Dict*) { return nullptr; }
ErrorName ignore_swupdate_identifiers(const Dict&, ReplySlot&, Dict*) { return nullptr; }
ErrorName reset_ignored_swupdate_identifiers(ReplySlot&, Dict*) { return nullptr; }
ErrorName reboot_post_swupdate(const Dict&, ReplySlot&, Dict*) { return nullptr; }
void delete_swupdate_status_dict(Dict*) {}
ErrorName periodic_swupdate_handler(Dict*) { return nullptr; }
void periodic_swupdate_check(Dict*, int, EventPortSession&) {}

}  // namespace hubwarden
