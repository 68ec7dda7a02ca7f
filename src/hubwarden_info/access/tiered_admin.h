// The tiered administrator summary: whether the requesting user is a full
// administrator and, if not, which service modules the user may administer
// and which only monitor, from the "com.marlo.admin_" and
// "com.marlo.monitor_" directory groups. Safe from several threads.
#pragma once

#include <optional>

#include "platform/error_name.h"
#include "plist/value.h"

namespace hubwarden {

inline constexpr const char* kCouldNotFindUserRecord = "Couldn't find user record";

// On success returns nullptr and stores {"userIsFullAdmin": true} or
// {"userIsFullAdmin": false, "tieredAdminSummary": {...}} in result; when
// the user has no directory record returns "Couldn't find user record" and
// leaves result untouched. request is not used.
ErrorName get_tiered_admin_summary(const plist::Dict* request, std::optional<plist::Dict>& result,
                                   plist::Dict* context);

}  // namespace hubwarden
