// A city database and a time zone database for tests: what the test puts
// in is all there is, and lookups are counted. Safe from any thread.
#pragma once

#include <cstdint>
#include <map>
#include <mutex>
#include <optional>
#include <set>
#include <string>

#include "platform/city_database.h"

namespace platform {

class FakeCityDatabase : public CityDatabase {
 public:
  std::optional<City> city_by_id(uint32_t geonameid) override;
  std::vector<City> search(std::string_view text, size_t limit) override;

  // Adds city, replacing one with the same id.
  void add(City city);
  int lookups() const;

 private:
  mutable std::mutex mutex_;
  std::map<uint32_t, City> cities_;
  int lookups_ = 0;
};

// A few well-known cities, ready to add: Paris, Los Angeles, Tokyo.
City fake_paris();
City fake_los_angeles();
City fake_tokyo();

class FakeTimeZones : public TimeZones {
 public:
  // Knows "Europe/Paris", "America/Los_Angeles", "Asia/Tokyo" and "UTC", and
  // the abbreviations "CET" and "PST" unless made with a blank slate.
  explicit FakeTimeZones(bool with_defaults = true);

  std::optional<std::string> zone_by_name(const std::string& name) override;
  std::optional<std::string> zone_by_abbreviation(const std::string& abbreviation) override;

  void add_zone(const std::string& name);
  void add_abbreviation(const std::string& abbreviation, const std::string& zone);
  int name_lookups() const;
  int abbreviation_lookups() const;

 private:
  mutable std::mutex mutex_;
  std::set<std::string> zones_;
  std::map<std::string, std::string> abbreviations_;
  int name_lookups_ = 0;
  int abbreviation_lookups_ = 0;
};

}  // namespace platform
