// Cities and zones held in maps.
#include "platform/fake/fake_cities.h"

#include <utility>

namespace platform {

std::optional<City> FakeCityDatabase::city_by_id(uint32_t geonameid) {
  std::lock_guard<std::mutex> lock(mutex_);
  ++lookups_;
  auto it = cities_.find(geonameid);
  if (it == cities_.end()) return std::nullopt;
  return it->second;
}

std::vector<City> FakeCityDatabase::search(std::string_view text, size_t limit) {
  std::vector<std::pair<int, City>> matches;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    for (const auto& [id, city] : cities_) {
      int rank = city_match_rank(city.name, city.ascii_name, text);
      if (rank >= 0) matches.emplace_back(rank, city);
    }
  }
  order_city_matches(&matches, limit);
  std::vector<City> found;
  for (auto& match : matches) found.push_back(std::move(match.second));
  return found;
}

void FakeCityDatabase::add(City city) {
  std::lock_guard<std::mutex> lock(mutex_);
  uint32_t id = city.geonameid;
  cities_[id] = std::move(city);
}

int FakeCityDatabase::lookups() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return lookups_;
}

City fake_paris() { return City{2988507, "Paris", "Paris", "FR", "11", 48.85341, 2.3488, 2138551, "Europe/Paris"}; }

City fake_los_angeles() {
  return City{5368361, "Los Angeles", "Los Angeles", "US", "CA", 34.05223, -118.24368, 3971883, "America/Los_Angeles"};
}

City fake_tokyo() { return City{1850147, "Tokyo", "Tokyo", "JP", "40", 35.6895, 139.69171, 8336599, "Asia/Tokyo"}; }

FakeTimeZones::FakeTimeZones(bool with_defaults) {
  if (!with_defaults) return;
  zones_ = {"Europe/Paris", "America/Los_Angeles", "Asia/Tokyo", "UTC"};
  abbreviations_ = {{"CET", "Europe/Paris"}, {"PST", "America/Los_Angeles"}};
}

std::optional<std::string> FakeTimeZones::zone_by_name(const std::string& name) {
  std::lock_guard<std::mutex> lock(mutex_);
  ++name_lookups_;
  if (zones_.count(name) == 0) return std::nullopt;
  return name;
}

std::optional<std::string> FakeTimeZones::zone_by_abbreviation(const std::string& abbreviation) {
  std::lock_guard<std::mutex> lock(mutex_);
  ++abbreviation_lookups_;
  auto it = abbreviations_.find(abbreviation);
  if (it == abbreviations_.end()) return std::nullopt;
  return it->second;
}

void FakeTimeZones::add_zone(const std::string& name) {
  std::lock_guard<std::mutex> lock(mutex_);
  zones_.insert(name);
}

void FakeTimeZones::add_abbreviation(const std::string& abbreviation, const std::string& zone) {
  std::lock_guard<std::mutex> lock(mutex_);
  abbreviations_[abbreviation] = zone;
}

int FakeTimeZones::name_lookups() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return name_lookups_;
}

int FakeTimeZones::abbreviation_lookups() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return abbreviation_lookups_;
}

}  // namespace platform
