// The city database on Linux: the table generated at build time from
// GeoNames' list (city_table_format.h), mapped read-only and searched by
// id. It is shipped data, not machine state, so it is not looked for below
// a sandbox root.
//
// A table that cannot be used (missing, truncated, damaged, from another
// version) leaves an empty database: every lookup finds nothing, and the
// service keeps working. Safe from any thread: the mapping never changes
// after it is made.
#pragma once

#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/city_database.h"

namespace platform {

// Where the package installs the table.
inline constexpr char kInstalledCityTablePath[] = "/usr/share/hubwardend/cities.bin";

class CityTable : public CityDatabase {
 public:
  ~CityTable() override;
  CityTable(const CityTable&) = delete;
  CityTable& operator=(const CityTable&) = delete;

  // Maps the table at path. Always returns a database; when the file
  // cannot be used it is empty and *error (when given) says why, else
  // *error is cleared.
  static std::unique_ptr<CityTable> open(const std::string& path, std::string* error);
  // A database without cities.
  static std::unique_ptr<CityTable> empty();

  std::optional<City> city_by_id(uint32_t geonameid) override;
  // A scan of every city: a few milliseconds for the whole table.
  std::vector<City> search(std::string_view text, size_t limit) override;
  // Number of cities; 0 for an empty database.
  size_t size() const { return count_; }

 private:
  CityTable() = default;
  bool validate(std::string* error);
  City city_at(size_t i) const;

  const char* map_ = nullptr;
  size_t map_size_ = 0;
  const char* records_ = nullptr;
  std::string_view strings_;
  size_t count_ = 0;
};

// CityTable::open as the generic interface.
std::unique_ptr<CityDatabase> open_city_table(const std::string& path, std::string* error);

// The table the host uses: $HUBWARDEN_CITY_TABLE when set, else the one
// installed with the running program (../share/hubwardend/cities.bin from
// its folder), else kInstalledCityTablePath, else cities.bin beside the
// program (a build tree). The first that exists is opened; when none does,
// or it cannot be used, one line goes to the system log and the database is
// empty.
std::unique_ptr<CityDatabase> make_city_database();

}  // namespace platform
