// Turning GeoNames' tab-separated city list into the shipped city table
// (city_table_format.h). Used by the build-time generator (citydb_build)
// and by tests. Pure functions of their inputs; safe from any thread.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "platform/city_database.h"

namespace platform {

// Reads one row of the list: 19 fields separated by tabs (geonameid, name,
// asciiname, alternatenames, latitude, longitude, feature class, feature
// code, country code, cc2, admin1 code, admin2, admin3, admin4, population,
// elevation, dem, timezone, modification date), a trailing carriage return
// allowed. Returns false with *why set when the row is malformed: a wrong
// field count, an id outside 1..2^32-1, a coordinate that is no finite
// number within range, a country code that is not two capital letters, a
// population that is no whole number, an empty name or zone, a zone name
// with characters zone names never hold, or text that is not UTF-8.
bool parse_city_row(std::string_view row, City* city, std::string* why);

// Builds the table from the whole list. Empty lines are skipped. Returns
// false when any row is malformed or two rows share an id; *errors then
// holds one message per fault, "<source_name>:<line>: <why>", at most
// max_errors of them. On success *table holds the file's bytes.
bool build_city_table(std::string_view list, std::string_view source_name, std::string* table,
                      std::vector<std::string>* errors, size_t max_errors = 20);

}  // namespace platform
