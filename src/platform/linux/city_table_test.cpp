// The city table: the generator refuses malformed lists line by line, the
// real table built from GeoNames' list answers lookups, and a damaged table
// of any kind reads as an empty database.
#include "platform/linux/city_table.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "platform/file_util.h"
#include "platform/linux/basics_test_support.h"
#include "platform/linux/city_table_builder.h"
#include "platform/linux/city_table_format.h"

namespace platform {
namespace {

namespace fmt = city_table_format;
using testing::ScratchDir;

// The table the build generated beside the test program.
std::string built_table() {
  return (std::filesystem::read_symlink("/proc/self/exe").parent_path() / "cities.bin").string();
}

std::string row(const std::string& id, const std::string& name, const std::string& lat, const std::string& lon,
                const std::string& country, const std::string& population, const std::string& zone) {
  return id + "\t" + name + "\t" + name + "\talt1,alt2\t" + lat + "\t" + lon + "\tP\tPPLA\t" + country +
         "\t\t11\t75\t751\t75056\t" + population + "\t\t42\t" + zone + "\t2016-02-18";
}

TEST(CityTableBuilderTest, MalformedRowsAreNamedByLine) {
  std::string list = row("3", "Gamma", "10.5", "20", "FR", "15000", "Europe/Paris") + "\n" +  // 1
                     "\n" +                                                                   // 2: skipped
                     "1\tshort row\n" +                                                       // 3
                     row("0", "Zero", "1", "1", "FR", "1", "Europe/Paris") + "\n" +           // 4
                     row("-5", "Neg", "1", "1", "FR", "1", "Europe/Paris") + "\n" +           // 5
                     row("4294967296", "Huge", "1", "1", "FR", "1", "Europe/Paris") + "\n" +  // 6
                     row("7", "Lat", "91", "1", "FR", "1", "Europe/Paris") + "\n" +           // 7
                     row("8", "Lon", "1", "nan", "FR", "1", "Europe/Paris") + "\n" +          // 8
                     row("9", "Cc", "1", "1", "fr", "1", "Europe/Paris") + "\n" +             // 9
                     row("10", "Pop", "1", "1", "FR", "1.5", "Europe/Paris") + "\n" +         // 10
                     row("11", "Zone", "1", "1", "FR", "1", "../../etc/passwd") + "\n" +      // 11
                     row("12", "", "1", "1", "FR", "1", "Europe/Paris") + "\n" +              // 12
                     row("13", "Bad\xff", "1", "1", "FR", "1", "Europe/Paris") + "\n" +       // 13
                     row("3", "Again", "1", "1", "FR", "1", "Europe/Paris") + "\r\n";         // 14
  std::string table;
  std::vector<std::string> errors;
  EXPECT_FALSE(build_city_table(list, "list.txt", &table, &errors));
  std::vector<std::string> lines;
  for (const std::string& e : errors) lines.push_back(e.substr(0, e.find(':', std::strlen("list.txt:"))));
  EXPECT_EQ(lines, (std::vector<std::string>{"list.txt:3", "list.txt:4", "list.txt:5", "list.txt:6", "list.txt:7",
                                             "list.txt:8", "list.txt:9", "list.txt:10", "list.txt:11", "list.txt:12",
                                             "list.txt:13", "list.txt:14"}));
  ASSERT_EQ(errors.size(), 12u);
  EXPECT_NE(errors[0].find("found 2"), std::string::npos) << errors[0];
  EXPECT_NE(errors[11].find("already used on line 1"), std::string::npos) << errors[11];

  // Reports stop at the limit and say how many more there were.
  EXPECT_FALSE(build_city_table(list, "list.txt", &table, &errors, 3));
  ASSERT_EQ(errors.size(), 4u);
  EXPECT_EQ(errors.back(), "list.txt: 9 more faults not shown");

  EXPECT_FALSE(build_city_table("\n\n", "empty.txt", &table, &errors));
}

TEST(CityTableBuilderTest, SmallListReadsBackUnsortedAndWithCarriageReturns) {
  std::string list = row("30", "Zürich", "47.36667", "8.55", "CH", "341730", "Europe/Zurich") + "\r\n" +
                     row("10", "Paris", "48.85341", "2.3488", "FR", "2138551", "Europe/Paris") + "\n" +
                     row("20", "Lyon", "45.74846", "4.84671", "FR", "472317", "Europe/Paris");
  std::string table;
  std::vector<std::string> errors;
  ASSERT_TRUE(build_city_table(list, "list.txt", &table, &errors)) << (errors.empty() ? "" : errors[0]);
  ScratchDir dir;
  dir.write("/cities.bin", table);
  std::string error = "stale";
  std::unique_ptr<CityTable> cities = CityTable::open(dir.path("/cities.bin"), &error);
  EXPECT_EQ(error, "");
  EXPECT_EQ(cities->size(), 3u);
  std::optional<City> zurich = cities->city_by_id(30);
  ASSERT_TRUE(zurich);
  EXPECT_EQ(zurich->name, "Zürich");
  EXPECT_EQ(zurich->country_code, "CH");
  EXPECT_EQ(zurich->admin_code, "11");
  EXPECT_EQ(zurich->latitude, 47.36667);
  EXPECT_EQ(zurich->population, 341730u);
  EXPECT_EQ(zurich->time_zone, "Europe/Zurich");
  EXPECT_EQ(cities->city_by_id(20)->name, "Lyon");
  for (uint32_t missing : {0u, 5u, 15u, 25u, 31u, 4294967295u}) EXPECT_FALSE(cities->city_by_id(missing)) << missing;
}

TEST(CityTableTest, RealTableFromGeoNames) {
  std::string error;
  std::unique_ptr<CityTable> cities = CityTable::open(built_table(), &error);
  ASSERT_EQ(error, "");
  EXPECT_GT(cities->size(), 20000u);
  std::optional<City> paris = cities->city_by_id(2988507);
  ASSERT_TRUE(paris);
  EXPECT_EQ(paris->name, "Paris");
  EXPECT_EQ(paris->country_code, "FR");
  EXPECT_EQ(paris->time_zone, "Europe/Paris");
  EXPECT_NEAR(paris->latitude, 48.85, 0.01);
  EXPECT_NEAR(paris->longitude, 2.35, 0.01);
  struct Known {
    uint32_t id;
    const char* ascii_name;
    const char* zone;
  };
  for (const Known& k : {Known{5368361, "Los Angeles", "America/Los_Angeles"}, Known{1850147, "Tokyo", "Asia/Tokyo"},
                         Known{2643743, "London", "Europe/London"}, Known{2950159, "Berlin", "Europe/Berlin"}}) {
    std::optional<City> city = cities->city_by_id(k.id);
    ASSERT_TRUE(city) << k.ascii_name;
    EXPECT_EQ(city->ascii_name, k.ascii_name);
    EXPECT_EQ(city->time_zone, k.zone);
  }
  EXPECT_FALSE(cities->city_by_id(1));
  EXPECT_FALSE(cities->city_by_id(4294967295u));
}

// Rewrites the table's body checksum so that only the damage under test
// is left for the reader to find.
void reseal(std::string* table) {
  fmt::Header header;
  std::memcpy(&header, table->data(), sizeof header);
  header.checksum = fmt::checksum(std::string_view(*table).substr(sizeof header));
  std::memcpy(table->data(), &header, sizeof header);
}

TEST(CityTableTest, DamagedTablesAreEmpty) {
  std::optional<std::string> good = read_file(built_table(), size_t{64} << 20);
  ASSERT_TRUE(good);
  const size_t pool_start = [&] {
    fmt::Header h;
    std::memcpy(&h, good->data(), sizeof h);
    return sizeof h + size_t{h.count} * sizeof(fmt::Record);
  }();
  auto record_field = [&](std::string* t, size_t index, size_t offset, uint32_t value) {
    std::memcpy(t->data() + sizeof(fmt::Header) + index * sizeof(fmt::Record) + offset, &value, sizeof value);
    reseal(t);
  };

  std::vector<std::pair<const char*, std::string>> damaged;
  damaged.emplace_back("empty", "");
  damaged.emplace_back("header only", good->substr(0, 40));
  damaged.emplace_back("truncated", good->substr(0, good->size() / 2));
  damaged.emplace_back("one byte short", good->substr(0, good->size() - 1));
  damaged.emplace_back("one byte long", *good + "x");
  damaged.emplace_back("garbage", std::string(good->size(), '\x5a'));
  std::string flipped = *good;
  flipped[pool_start + 100] ^= 0x20;
  damaged.emplace_back("flipped byte", flipped);
  std::string version = *good;
  version[12] = 9;
  damaged.emplace_back("other version", version);
  std::string huge_count = *good;
  uint32_t count = 0xffffffffu;
  std::memcpy(huge_count.data() + offsetof(fmt::Header, count), &count, sizeof count);
  damaged.emplace_back("huge count", huge_count);
  std::string outside = *good;
  record_field(&outside, 5, offsetof(fmt::Record, time_zone) + offsetof(fmt::StringRef, offset), 0xfffffff0u);
  damaged.emplace_back("text outside the pool", outside);
  std::string overlong = *good;
  record_field(&overlong, 7, offsetof(fmt::Record, name) + offsetof(fmt::StringRef, length), 0xffffffffu);
  damaged.emplace_back("text running past the pool", overlong);
  std::string unsorted = *good;
  record_field(&unsorted, 3, offsetof(fmt::Record, geonameid), 0xfffffff0u);
  damaged.emplace_back("ids out of order", unsorted);

  ScratchDir dir;
  for (const auto& [what, bytes] : damaged) {
    dir.write("/cities.bin", bytes);
    std::string error;
    std::unique_ptr<CityTable> cities = CityTable::open(dir.path("/cities.bin"), &error);
    EXPECT_NE(error, "") << what;
    EXPECT_EQ(cities->size(), 0u) << what;
    EXPECT_FALSE(cities->city_by_id(2988507)) << what;
  }
  std::string error;
  EXPECT_EQ(CityTable::open(dir.path("/missing.bin"), &error)->size(), 0u);
  EXPECT_NE(error.find("missing.bin"), std::string::npos) << error;
  EXPECT_EQ(CityTable::open(dir.dir(), &error)->size(), 0u);
  EXPECT_NE(error, "");
}

TEST(CityTableTest, DefaultTableFollowsTheEnvironment) {
  ScratchDir dir;
  const char* saved = ::getenv("HUBWARDEN_CITY_TABLE");
  std::string saved_value = saved ? saved : "";
  ::setenv("HUBWARDEN_CITY_TABLE", dir.path("/none.bin").c_str(), 1);
  EXPECT_FALSE(make_city_database()->city_by_id(2988507));
  ::setenv("HUBWARDEN_CITY_TABLE", built_table().c_str(), 1);
  EXPECT_TRUE(make_city_database()->city_by_id(2988507));
  if (saved) {
    ::setenv("HUBWARDEN_CITY_TABLE", saved_value.c_str(), 1);
  } else {
    ::unsetenv("HUBWARDEN_CITY_TABLE");
  }
}

}  // namespace
}  // namespace platform
