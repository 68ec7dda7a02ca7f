// The time zone database on Linux: zones are the TZif files of the
// system's zoneinfo folder (below the sandbox root when one is installed),
// and abbreviations are resolved through ICU's English zone names.
#pragma once

#include <memory>

#include "platform/city_database.h"

namespace platform {

// Where zone files live, before the root is applied.
inline constexpr char kZoneInfoDirectory[] = "/usr/share/zoneinfo/";

// zone_by_name accepts a name when kZoneInfoDirectory + name is a regular
// TZif file, and returns the name as given; it refuses empty and absolute
// names, "." and ".." components, and characters no zone name holds. Links
// inside the folder are followed within the root. zone_by_abbreviation
// finds the ICU metazone whose short standard or daylight name (in English
// as used in the United States, then Britain, Canada, Australia, New
// Zealand, India, South Africa, Singapore and Hong Kong) is the
// abbreviation, exactly as written, and returns its reference zone, or an
// equivalent zone when that one is not installed; nullopt when no installed
// zone fits. The abbreviation table is built on the first lookup. Safe
// from any thread.
std::unique_ptr<TimeZones> make_linux_time_zones();

}  // namespace platform
