// The two serialised forms of a city. Both are read back from preferences
// another program may have written, so every member is checked for its type
// and range before it is trusted.
#include <cmath>
#include <cstdint>
#include <limits>
#include <optional>
#include <string>

#include "platform/city_database.h"

namespace platform {
namespace {

constexpr char kId[] = "GeonameID";
constexpr char kName[] = "Name";
constexpr char kAsciiName[] = "ASCIIName";
constexpr char kCountryCode[] = "CountryCode";
constexpr char kAdminCode[] = "AdminCode";
constexpr char kLatitude[] = "Latitude";
constexpr char kLongitude[] = "Longitude";
constexpr char kPopulation[] = "Population";
constexpr char kTimeZoneName[] = "TimeZoneName";

// Positions in the array form.
enum ArrayIndex : size_t {
  kIdIndex,
  kNameIndex,
  kAsciiNameIndex,
  kCountryCodeIndex,
  kAdminCodeIndex,
  kLatitudeIndex,
  kLongitudeIndex,
  kPopulationIndex,
  kTimeZoneIndex,
  kArrayMembers,
};

// A whole number in [0, max]: an integer of either signedness, or a real
// without a fraction. Booleans are numbers to the module's flag test but
// never a count or an id.
std::optional<uint64_t> whole_number(const plist::Value* v, uint64_t max) {
  if (!v) return std::nullopt;
  if (const int64_t* i = v->as_integer()) {
    if (*i < 0 || static_cast<uint64_t>(*i) > max) return std::nullopt;
    return static_cast<uint64_t>(*i);
  }
  if (const uint64_t* u = v->as_unsigned()) {
    if (*u > max) return std::nullopt;
    return *u;
  }
  if (const double* d = v->as_real()) {
    // 2^64 itself is not representable as uint64_t; compare before casting.
    if (!std::isfinite(*d) || *d < 0 || *d >= 18446744073709551616.0 || std::trunc(*d) != *d) return std::nullopt;
    uint64_t u = static_cast<uint64_t>(*d);
    if (u > max) return std::nullopt;
    return u;
  }
  return std::nullopt;
}

std::optional<double> coordinate(const plist::Value* v, double limit) {
  if (!v || v->as_bool()) return std::nullopt;
  std::optional<double> d = v->to_double();
  if (!d || !std::isfinite(*d) || *d < -limit || *d > limit) return std::nullopt;
  return d;
}

bool take_string(const plist::Value* v, std::string* out) {
  const std::string* s = v ? v->as_string() : nullptr;
  if (!s) return false;
  *out = *s;
  return true;
}

// Rebuilds a city from its members in the order of the array form; member(i)
// returns the value at that position or nullptr.
template <typename Member>
std::optional<City> city_from_members(Member member) {
  City city;
  std::optional<uint64_t> id = whole_number(member(kIdIndex), std::numeric_limits<uint32_t>::max());
  // GeoNames ids start at 1; 0 is what get_city_record reports for "none".
  if (!id || *id == 0) return std::nullopt;
  city.geonameid = static_cast<uint32_t>(*id);
  if (!take_string(member(kNameIndex), &city.name) || !take_string(member(kAsciiNameIndex), &city.ascii_name) ||
      !take_string(member(kCountryCodeIndex), &city.country_code) ||
      !take_string(member(kAdminCodeIndex), &city.admin_code) ||
      !take_string(member(kTimeZoneIndex), &city.time_zone)) {
    return std::nullopt;
  }
  std::optional<double> latitude = coordinate(member(kLatitudeIndex), 90);
  std::optional<double> longitude = coordinate(member(kLongitudeIndex), 180);
  std::optional<uint64_t> population = whole_number(member(kPopulationIndex), std::numeric_limits<int64_t>::max());
  if (!latitude || !longitude || !population) return std::nullopt;
  city.latitude = *latitude;
  city.longitude = *longitude;
  city.population = *population;
  return city;
}

// Populations fit an int64 in practice; keeping them signed makes the XML
// form read back as the same integer kind.
plist::Value population_value(uint64_t population) {
  if (population <= static_cast<uint64_t>(std::numeric_limits<int64_t>::max()))
    return plist::Value(static_cast<int64_t>(population));
  return plist::Value(population);
}

}  // namespace

plist::Dict city_dictionary_form(const City& city) {
  plist::Dict form;
  form.reserve(kArrayMembers);
  form.set(kId, plist::Value(static_cast<int64_t>(city.geonameid)));
  form.set(kName, city.name);
  form.set(kAsciiName, city.ascii_name);
  form.set(kCountryCode, city.country_code);
  form.set(kAdminCode, city.admin_code);
  form.set(kLatitude, city.latitude);
  form.set(kLongitude, city.longitude);
  form.set(kPopulation, population_value(city.population));
  form.set(kTimeZoneName, city.time_zone);
  return form;
}

plist::Array city_array_form(const City& city) {
  plist::Array form(kArrayMembers);
  form[kIdIndex] = plist::Value(static_cast<int64_t>(city.geonameid));
  form[kNameIndex] = city.name;
  form[kAsciiNameIndex] = city.ascii_name;
  form[kCountryCodeIndex] = city.country_code;
  form[kAdminCodeIndex] = city.admin_code;
  form[kLatitudeIndex] = city.latitude;
  form[kLongitudeIndex] = city.longitude;
  form[kPopulationIndex] = population_value(city.population);
  form[kTimeZoneIndex] = city.time_zone;
  return form;
}

std::optional<City> city_from_dictionary_form(const plist::Dict& form) {
  static constexpr const char* kKeys[kArrayMembers] = {kId,       kName,      kAsciiName,  kCountryCode, kAdminCode,
                                                       kLatitude, kLongitude, kPopulation, kTimeZoneName};
  return city_from_members([&](size_t i) { return form.find(kKeys[i]); });
}

std::optional<City> city_from_array_form(const plist::Array& form) {
  return city_from_members([&](size_t i) { return i < form.size() ? &form[i] : nullptr; });
}

}  // namespace platform
