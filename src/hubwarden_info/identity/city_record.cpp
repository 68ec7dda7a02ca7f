// Selecting the time zone by city, and reading the selection back.
#include "identity/city_record.h"

#include <cmath>
#include <cstdint>
#include <limits>
#include <optional>
#include <string>

#include "identity/time_settings.h"
#include "identity/time_zone.h"
#include "platform/city_database.h"
#include "platform/log.h"
#include "platform/preferences.h"
#include "platform/registry.h"

namespace hubwarden {

namespace {

// The id a console sent, when it can be one: a whole number that fits
// GeoNames' 32-bit ids. Booleans are numbers to the console but never ids.
std::optional<uint32_t> city_id(const plist::Value* value) {
  if (value == nullptr || !value->is_number() || value->as_bool() != nullptr) return std::nullopt;
  std::optional<double> d = value->to_double();
  if (const double* real = value->as_real(); real != nullptr && std::trunc(*real) != *real) return std::nullopt;
  if (const int64_t* i = value->as_integer(); i != nullptr && *i < 0) return std::nullopt;
  if (!d || !std::isfinite(*d) || *d < 1 || *d > std::numeric_limits<uint32_t>::max()) return std::nullopt;
  return static_cast<uint32_t>(*value->to_uint64());
}

std::optional<platform::City> selected_city(platform::Preferences& preferences) {
  if (std::optional<plist::Value> form = preferences.get(kSelectedCityKey); form && form->as_dict()) {
    return platform::city_from_dictionary_form(*form->as_dict());
  }
  if (std::optional<plist::Value> form = preferences.get(kLastSelectedCityKey); form && form->as_array()) {
    return platform::city_from_array_form(*form->as_array());
  }
  return std::nullopt;
}

// The installed zone the city's zone text stands for.
std::optional<std::string> zone_for(const std::string& text) {
  auto* zones = platform::find<platform::TimeZones>();
  if (zones == nullptr || text.empty()) return std::nullopt;
  if (std::optional<std::string> zone = zones->zone_by_name(text)) return zone;
  return zones->zone_by_abbreviation(text);
}

}  // namespace

plist::Value get_city_record() {
  std::optional<platform::City> city;
  if (auto* preferences = platform::find<platform::Preferences>()) city = selected_city(*preferences);
  if (!city) {
    platform::log_error("Neither Granite nor Basalt city information was found, can't determine time zone");
    return plist::Value(0);
  }
  return plist::Value(static_cast<int64_t>(city->geonameid));
}

int set_city_record(const plist::Value* geonameid) {
  std::optional<uint32_t> id = city_id(geonameid);
  auto* cities = platform::find<platform::CityDatabase>();
  std::optional<platform::City> city = id && cities != nullptr ? cities->city_by_id(*id) : std::nullopt;
  if (!city) {
    // An id the database does not know selects no city: storing it would
    // leave the preferences naming a place that does not exist.
    platform::log_error("hubwarden_info: set_city_record: no city with the given geonameid");
    return kNoCityGiven;
  }

  plist::Dict dictionary_form = platform::city_dictionary_form(*city);
  if (auto* preferences = platform::find<platform::Preferences>()) {
    preferences->set(kSelectedCityKey, plist::Value(dictionary_form));
    preferences->set(kLastSelectedCityKey, plist::Value(platform::city_array_form(*city)));
    if (!preferences->flush()) {
      platform::log_error("hubwarden_info: set_city_record: the selected city could not be stored");
    }
  }

  const std::string* zone_text = dictionary_form.find_string("TimeZoneName");
  std::optional<std::string> zone = zone_text != nullptr ? zone_for(*zone_text) : std::nullopt;
  if (!zone || *zone == get_time_zone_name()) return 0;
  return set_time_zone(*zone);
}

}  // namespace hubwarden
