// The city the time zone was chosen by, kept in the system-wide
// preferences in both forms older and newer consoles read.
//
// Not safe to run two set_city_record calls at once (each writes the
// preferences and the zone link); the settings commands run one at a time
// under the module context. get_city_record is safe from any thread.
#pragma once

#include "plist/value.h"

namespace hubwarden {

// Result of set_city_record when no city is given, or the id names no
// city of the database.
inline constexpr int kNoCityGiven = 100023;

inline constexpr char kSelectedCityKey[] = "com.marlo.preferences.timezone.selected_city";
inline constexpr char kLastSelectedCityKey[] = "com.marlo.TimeZonePref.Last_Selected_City";

// The selected city's geonameid (an integer), from the dictionary form when
// the preferences hold one, else from the array form. The integer 0, after
// logging once, when neither is there or the one found is damaged.
plist::Value get_city_record();

// Selects the city geonameid: stores both its forms and, when its zone is
// known (by name, else as an abbreviation) and differs from the current
// one, sets the time zone. Returns 0, the result of set_time_zone, or
// kNoCityGiven for no number, or a number that is no city's id (negative,
// fractional, too large, or unknown to the database); nothing is stored
// then. A zone the zone database does not know leaves the zone alone and
// still returns 0.
int set_city_record(const plist::Value* geonameid);

}  // namespace hubwarden
