// The directory side of turning remote management on: the members of the
// local "admin" group get every remote management right by nesting that
// group in each of the screenlink groups.
#pragma once

#include <array>

namespace hubwarden {

// The screenlink groups, in the order they are granted.
inline constexpr std::array<const char*, 4> kScreenlinkGroups = {
    "com.marlo.local.screenlink_admin",
    "com.marlo.local.screenlink_reports",
    "com.marlo.local.screenlink_interact",
    "com.marlo.local.screenlink_manage",
};

// Nests "admin" (by its GUID, made and stored first when it has none) in
// every screenlink group, creating the groups that are missing. Every
// failure is logged and ends the step early, never the caller: a failed
// update moves on to the next group, a failed creation skips the rest.
// Without a directory service installed nothing is done but the log line
// of a node that cannot be opened. Safe from any thread.
void grant_admins_screenlink_rights();

}  // namespace hubwarden
