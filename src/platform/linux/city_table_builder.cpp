// The city table generator's work: parse, check, sort, pool the texts and
// lay the table out.
#include "platform/linux/city_table_builder.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstring>
#include <limits>
#include <unordered_map>

#include "platform/linux/city_table_format.h"
#include "platform/utf8.h"

namespace platform {
namespace {

namespace fmt = city_table_format;

constexpr size_t kFields = 19;
enum Field : size_t {
  kGeonameId = 0,
  kName = 1,
  kAsciiName = 2,
  kLatitude = 4,
  kLongitude = 5,
  kCountryCode = 8,
  kAdmin1Code = 10,
  kPopulation = 14,
  kTimeZone = 17,
};
// GeoNames limits its names to 200 characters; anything far longer is a
// damaged row, and the table's lengths stay small.
constexpr size_t kMaxText = 1000;

bool parse_whole(std::string_view text, uint64_t max, uint64_t* out) {
  if (text.empty()) return false;
  const char* end = text.data() + text.size();
  auto [ptr, ec] = std::from_chars(text.data(), end, *out);
  return ec == std::errc() && ptr == end && *out <= max;
}

bool parse_degrees(std::string_view text, double limit, double* out) {
  if (text.empty()) return false;
  const char* end = text.data() + text.size();
  auto [ptr, ec] = std::from_chars(text.data(), end, *out);
  return ec == std::errc() && ptr == end && std::isfinite(*out) && *out >= -limit && *out <= limit;
}

bool is_zone_name(std::string_view zone) {
  if (zone.empty() || zone.front() == '/' || zone.back() == '/') return false;
  if (zone.find("..") != std::string_view::npos) return false;
  return std::all_of(zone.begin(), zone.end(), [](char c) {
    return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '/' || c == '_' ||
           c == '-' || c == '+' || c == '.';
  });
}

bool set_why(std::string* why, std::string text) {
  *why = std::move(text);
  return false;
}

// Interns texts into the pool so that the few hundred zone names and
// country codes are stored once.
class StringPool {
 public:
  fmt::StringRef add(const std::string& text) {
    auto it = offsets_.find(text);
    uint32_t offset;
    if (it != offsets_.end()) {
      offset = it->second;
    } else {
      offset = static_cast<uint32_t>(bytes_.size());
      bytes_ += text;
      offsets_.emplace(text, offset);
    }
    return fmt::StringRef{offset, static_cast<uint32_t>(text.size())};
  }
  const std::string& bytes() const { return bytes_; }

 private:
  std::string bytes_;
  std::unordered_map<std::string, uint32_t> offsets_;
};

}  // namespace

bool parse_city_row(std::string_view row, City* city, std::string* why) {
  if (!row.empty() && row.back() == '\r') row.remove_suffix(1);
  std::string_view fields[kFields];
  size_t count = 0;
  size_t start = 0;
  while (true) {
    size_t tab = row.find('\t', start);
    std::string_view field = row.substr(start, tab == std::string_view::npos ? std::string_view::npos : tab - start);
    if (count < kFields) fields[count] = field;
    ++count;
    if (tab == std::string_view::npos) break;
    start = tab + 1;
  }
  if (count != kFields) {
    return set_why(why,
                   "expected " + std::to_string(kFields) + " tab-separated fields, found " + std::to_string(count));
  }
  if (!is_valid_utf8(row)) return set_why(why, "not UTF-8 text");
  for (size_t i : {kName, kAsciiName, kCountryCode, kAdmin1Code, kTimeZone}) {
    if (fields[i].size() > kMaxText) return set_why(why, "field " + std::to_string(i + 1) + " is too long");
  }

  uint64_t id = 0;
  if (!parse_whole(fields[kGeonameId], std::numeric_limits<uint32_t>::max(), &id) || id == 0) {
    return set_why(why, "geonameid \"" + std::string(fields[kGeonameId]) + "\" is not a number from 1 to 4294967295");
  }
  if (fields[kName].empty()) return set_why(why, "empty name");
  double latitude = 0;
  double longitude = 0;
  if (!parse_degrees(fields[kLatitude], 90, &latitude)) {
    return set_why(why, "latitude \"" + std::string(fields[kLatitude]) + "\" is not a number from -90 to 90");
  }
  if (!parse_degrees(fields[kLongitude], 180, &longitude)) {
    return set_why(why, "longitude \"" + std::string(fields[kLongitude]) + "\" is not a number from -180 to 180");
  }
  std::string_view country = fields[kCountryCode];
  if (country.size() != 2 ||
      !std::all_of(country.begin(), country.end(), [](char c) { return c >= 'A' && c <= 'Z'; })) {
    return set_why(why, "country code \"" + std::string(country) + "\" is not two capital letters");
  }
  uint64_t population = 0;
  if (!parse_whole(fields[kPopulation], std::numeric_limits<int64_t>::max(), &population)) {
    return set_why(why, "population \"" + std::string(fields[kPopulation]) + "\" is not a whole number");
  }
  if (!is_zone_name(fields[kTimeZone])) {
    return set_why(why, "time zone \"" + std::string(fields[kTimeZone]) + "\" is not a zone name");
  }

  city->geonameid = static_cast<uint32_t>(id);
  city->name = fields[kName];
  city->ascii_name = fields[kAsciiName];
  city->country_code = country;
  city->admin_code = fields[kAdmin1Code];
  city->latitude = latitude;
  city->longitude = longitude;
  city->population = population;
  city->time_zone = fields[kTimeZone];
  return true;
}

bool build_city_table(std::string_view list, std::string_view source_name, std::string* table,
                      std::vector<std::string>* errors, size_t max_errors) {
  struct Row {
    City city;
    size_t line;
  };
  std::vector<Row> rows;
  errors->clear();
  auto fault = [&](size_t line, const std::string& why) {
    if (errors->size() < max_errors)
      errors->push_back(std::string(source_name) + ":" + std::to_string(line) + ": " + why);
  };
  size_t total_faults = 0;

  size_t line = 0;
  size_t start = 0;
  while (start < list.size()) {
    size_t end = list.find('\n', start);
    if (end == std::string_view::npos) end = list.size();
    std::string_view row = list.substr(start, end - start);
    start = end + 1;
    ++line;
    if (row.empty() || row == "\r") continue;
    Row parsed{{}, line};
    std::string why;
    if (parse_city_row(row, &parsed.city, &why)) {
      rows.push_back(std::move(parsed));
    } else {
      ++total_faults;
      fault(line, why);
    }
  }

  std::stable_sort(rows.begin(), rows.end(),
                   [](const Row& a, const Row& b) { return a.city.geonameid < b.city.geonameid; });
  for (size_t i = 1; i < rows.size(); ++i) {
    if (rows[i].city.geonameid == rows[i - 1].city.geonameid) {
      ++total_faults;
      fault(rows[i].line, "geonameid " + std::to_string(rows[i].city.geonameid) + " already used on line " +
                              std::to_string(rows[i - 1].line));
    }
  }
  if (total_faults > 0) {
    if (total_faults > errors->size()) {
      errors->push_back(std::string(source_name) + ": " + std::to_string(total_faults - errors->size()) +
                        " more faults not shown");
    }
    return false;
  }
  if (rows.empty()) {
    errors->push_back(std::string(source_name) + ": no cities");
    return false;
  }

  // Offsets and the count are 32-bit in the table; the real list is a
  // thousandth of that.
  if (rows.size() > std::numeric_limits<uint32_t>::max() / 2 ||
      list.size() > std::numeric_limits<uint32_t>::max() / 2) {
    errors->push_back(std::string(source_name) + ": too large for a city table");
    return false;
  }
  StringPool pool;
  std::vector<fmt::Record> records;
  records.reserve(rows.size());
  for (const Row& row : rows) {
    const City& c = row.city;
    fmt::Record r{};
    r.geonameid = c.geonameid;
    r.latitude = c.latitude;
    r.longitude = c.longitude;
    r.population = c.population;
    r.name = pool.add(c.name);
    r.ascii_name = pool.add(c.ascii_name);
    r.country_code = pool.add(c.country_code);
    r.admin_code = pool.add(c.admin_code);
    r.time_zone = pool.add(c.time_zone);
    records.push_back(r);
  }

  std::string body(records.size() * sizeof(fmt::Record), '\0');
  std::memcpy(body.data(), records.data(), body.size());
  body += pool.bytes();

  fmt::Header header{};
  std::memcpy(header.magic, fmt::kMagic, sizeof header.magic);
  header.byte_order = fmt::kByteOrder;
  header.version = fmt::kVersion;
  header.count = static_cast<uint32_t>(records.size());
  header.record_size = sizeof(fmt::Record);
  header.strings_size = pool.bytes().size();
  header.checksum = fmt::checksum(body);

  table->assign(reinterpret_cast<const char*>(&header), sizeof header);
  *table += body;
  return true;
}

}  // namespace platform
