// Operations whose subsystems have not landed yet. Each answers as a
// command that is not served yet: no reply, no error, no side effect.
// A subsystem that lands removes its entries from this file.
#include "request/operations.h"
#include "swupdate/periodic_check.h"

namespace hubwarden {

}  // namespace hubwarden
