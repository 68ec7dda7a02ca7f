// The serialised city forms: what is written reads back as the same city,
// through the XML the preferences are stored in, and damaged forms are
// refused member by member.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <functional>
#include <limits>

#include "platform/city_database.h"
#include "platform/fake/fake_cities.h"
#include "plist/codec.h"

namespace platform {
namespace {

void expect_same_city(const City& a, const City& b) {
  EXPECT_EQ(a.geonameid, b.geonameid);
  EXPECT_EQ(a.name, b.name);
  EXPECT_EQ(a.ascii_name, b.ascii_name);
  EXPECT_EQ(a.country_code, b.country_code);
  EXPECT_EQ(a.admin_code, b.admin_code);
  EXPECT_EQ(a.latitude, b.latitude);
  EXPECT_EQ(a.longitude, b.longitude);
  EXPECT_EQ(a.population, b.population);
  EXPECT_EQ(a.time_zone, b.time_zone);
}

TEST(CityFormsTest, BothFormsRoundTripThroughXml) {
  City odd{4294967295u,   "Zürich — \"alt\" <x>", "Zurich", "CH",           "",
           -89.999999999, 179.123456789012,       0,        "Europe/Zurich"};
  for (const City& city : {fake_paris(), fake_los_angeles(), odd}) {
    plist::Dict dict = city_dictionary_form(city);
    ASSERT_NE(dict.find_string("TimeZoneName"), nullptr);
    EXPECT_EQ(*dict.find_string("TimeZoneName"), city.time_zone);
    plist::Parsed dict_back = plist::parse_xml(plist::write_xml(plist::Value(dict)));
    ASSERT_TRUE(dict_back.ok()) << dict_back.error;
    std::optional<City> from_dict = city_from_dictionary_form(*dict_back.value.as_dict());
    ASSERT_TRUE(from_dict) << city.name;
    expect_same_city(*from_dict, city);

    plist::Parsed array_back = plist::parse_xml(plist::write_xml(plist::Value(city_array_form(city))));
    ASSERT_TRUE(array_back.ok()) << array_back.error;
    std::optional<City> from_array = city_from_array_form(*array_back.value.as_array());
    ASSERT_TRUE(from_array) << city.name;
    expect_same_city(*from_array, city);
  }
  // The dictionary keeps its documented member order.
  plist::Dict dict = city_dictionary_form(fake_paris());
  const char* order[] = {"GeonameID", "Name",      "ASCIIName",  "CountryCode", "AdminCode",
                         "Latitude",  "Longitude", "Population", "TimeZoneName"};
  ASSERT_EQ(dict.size(), 9u);
  for (size_t i = 0; i < 9; ++i) EXPECT_EQ(dict.at_index(i).first, order[i]);
}

TEST(CityFormsTest, AcceptedNumberKindsAndIgnoredExtras) {
  plist::Dict dict = city_dictionary_form(fake_paris());
  dict.set("GeonameID", plist::Value(2988507.0));
  dict.set("Latitude", plist::Value(48));
  dict.set("Population", plist::Value(uint64_t{2138551}));
  dict.set("Unrelated", plist::Value("kept elsewhere"));
  std::optional<City> city = city_from_dictionary_form(dict);
  ASSERT_TRUE(city);
  EXPECT_EQ(city->geonameid, 2988507u);
  EXPECT_EQ(city->latitude, 48.0);

  plist::Array longer = city_array_form(fake_paris());
  longer.push_back(plist::Value("trailing"));
  EXPECT_TRUE(city_from_array_form(longer));
}

// One damage at a time, at the member's key in the dictionary and at its
// position in the array.
TEST(CityFormsTest, DamagedFormsAreRefused) {
  const double nan = std::nan("");
  const double inf = std::numeric_limits<double>::infinity();
  struct Damage {
    const char* key;
    size_t index;
    plist::Value value;
  };
  const Damage damages[] = {
      {"GeonameID", 0, plist::Value("2988507")},
      {"GeonameID", 0, plist::Value(true)},
      {"GeonameID", 0, plist::Value(0)},
      {"GeonameID", 0, plist::Value(-2988507)},
      {"GeonameID", 0, plist::Value(int64_t{4294967296})},
      {"GeonameID", 0, plist::Value(std::numeric_limits<uint64_t>::max())},
      {"GeonameID", 0, plist::Value(2988507.5)},
      {"GeonameID", 0, plist::Value(nan)},
      {"GeonameID", 0, plist::Value(1e300)},
      {"Name", 1, plist::Value(7)},
      {"ASCIIName", 2, plist::Value(plist::Array{})},
      {"CountryCode", 3, plist::Value(plist::Dict{})},
      {"AdminCode", 4, plist::Value()},
      {"Latitude", 5, plist::Value(nan)},
      {"Latitude", 5, plist::Value(90.5)},
      {"Latitude", 5, plist::Value("48.85")},
      {"Longitude", 6, plist::Value(-inf)},
      {"Longitude", 6, plist::Value(false)},
      {"Population", 7, plist::Value(-1)},
      {"Population", 7, plist::Value(1.5)},
      {"Population", 7, plist::Value(std::numeric_limits<uint64_t>::max())},
      {"TimeZoneName", 8, plist::Value(plist::Data{'x'})},
  };
  for (const Damage& d : damages) {
    plist::Dict dict = city_dictionary_form(fake_paris());
    dict.set(d.key, d.value);
    EXPECT_FALSE(city_from_dictionary_form(dict)) << d.key;
    plist::Array array = city_array_form(fake_paris());
    array[d.index] = d.value;
    EXPECT_FALSE(city_from_array_form(array)) << d.key;
  }
  for (const char* key : {"GeonameID", "Name", "TimeZoneName", "Population"}) {
    plist::Dict dict = city_dictionary_form(fake_paris());
    dict.remove(key);
    EXPECT_FALSE(city_from_dictionary_form(dict)) << key;
  }
  plist::Array full = city_array_form(fake_paris());
  for (size_t n = 0; n < full.size(); ++n) {
    EXPECT_FALSE(city_from_array_form(plist::Array(full.begin(), full.begin() + n))) << n;
  }
  EXPECT_FALSE(city_from_dictionary_form(plist::Dict{}));
}

}  // namespace
}  // namespace platform
