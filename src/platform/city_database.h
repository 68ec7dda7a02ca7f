// The city database behind time zone selection by city: every city of at
// least 15,000 people, keyed by its GeoNames id, and the two serialised
// forms in which a selected city is kept in the system-wide preferences.
//
// Safe from any thread once made; the table is read-only.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "plist/value.h"

namespace platform {

struct City {
  uint32_t geonameid = 0;
  std::string name;          // UTF-8, as the place calls itself
  std::string ascii_name;    // plain ASCII
  std::string country_code;  // ISO 3166 two letters
  std::string admin_code;    // first-level administrative division
  double latitude = 0;
  double longitude = 0;
  uint64_t population = 0;
  std::string time_zone;  // IANA zone name, "Europe/Paris"
};

class CityDatabase {
 public:
  virtual ~CityDatabase() = default;
  // The city with this id; nullopt when there is none.
  virtual std::optional<City> city_by_id(uint32_t geonameid) = 0;
  // At most limit cities whose name or ASCII name matches text (see
  // city_match_rank), best first: by rank, then the larger population, then
  // the smaller id. Empty when text is empty or nothing matches.
  virtual std::vector<City> search(std::string_view text, size_t limit) = 0;
};

// How well a city's name matches text, ignoring the case of ASCII letters:
// 0 when the name or ASCII name is text, 1 when one of them begins with
// it, 2 when a later word of one of them does (after a space, "-", "'" or
// "."), -1 when none of this holds or text is empty.
int city_match_rank(std::string_view name, std::string_view ascii_name, std::string_view text);

// Orders search results as CityDatabase::search promises and keeps the
// first limit. Each match is its city_match_rank and the city.
void order_city_matches(std::vector<std::pair<int, City>>* matches, size_t limit);

// The dictionary form (newer systems), members in this order:
//   "GeonameID" integer, "Name", "ASCIIName", "CountryCode", "AdminCode"
//   strings, "Latitude", "Longitude" reals, "Population" integer,
//   "TimeZoneName" string.
plist::Dict city_dictionary_form(const City& city);
// The array form (older systems): the same nine values in the same order,
// by position.
plist::Array city_array_form(const City& city);
// Rebuild a city from either form; nullopt when the form is damaged or
// incomplete (a wrong type, a missing member, an id that is not a number).
// An id must be a whole number from 1 to 2^32-1, coordinates finite and
// within +-90 and +-180 degrees, the population a whole number of at least
// 0; booleans are no numbers here. Members beyond these (extra keys, a
// longer array) are ignored. A form made by the functions above always
// rebuilds to the same city.
std::optional<City> city_from_dictionary_form(const plist::Dict& form);
std::optional<City> city_from_array_form(const plist::Array& form);

// The time zone database: which zones exist, and zones by abbreviation.
class TimeZones {
 public:
  virtual ~TimeZones() = default;
  // The zone's canonical name when name names an installed zone
  // ("Europe/Paris"); nullopt otherwise.
  virtual std::optional<std::string> zone_by_name(const std::string& name) = 0;
  // The zone an abbreviation such as "CET" or "PST" stands for; nullopt when
  // the abbreviation is unknown.
  virtual std::optional<std::string> zone_by_abbreviation(const std::string& abbreviation) = 0;
};

}  // namespace platform
