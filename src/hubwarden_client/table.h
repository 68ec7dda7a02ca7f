// Text output for people: aligned tables, readable units and a generic
// layout for any reply. Pure functions; safe from any thread.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "plist/value.h"

namespace hubwarden_client {

// Columns separated by two spaces, each as wide as its widest cell
// (counted in characters, not bytes); numbers are right-aligned. The last
// column is not padded, so lines carry no trailing blanks. A table with no
// rows still prints its header.
class Table {
 public:
  enum class Align { kLeft, kRight };
  struct Column {
    std::string header;
    Align align = Align::kLeft;
  };

  explicit Table(std::vector<Column> columns);
  // Cells beyond the column count are dropped, missing ones left blank.
  void add_row(std::vector<std::string> cells);
  size_t rows() const { return rows_.size(); }
  // With or without the header line; every line ends with '\n'.
  std::string render(bool header = true) const;

 private:
  std::vector<Column> columns_;
  std::vector<std::vector<std::string>> rows_;
};

// 1023 -> "1023 B", 1536 -> "1.5 KiB", then MiB, GiB, TiB, PiB, EiB with
// one decimal below 100 and none above.
std::string format_bytes(uint64_t bytes);
// Hundredths of a percent: 1234 -> "12.3 %"
std::string format_by100(double hundredths);
// A percentage: 12.345 -> "12.3 %"
std::string format_percent(double percent);
// Seconds of processor time: 59 -> "0:59", 3725 -> "1:02:05".
std::string format_cpu_time(uint64_t seconds);
// Seconds since 1970 in local time, "2026-11-23 10:00:00".
std::string format_local_time(double seconds);

// A scalar as a person reads it: strings as they are, true/false, numbers,
// dates in local time, data as "<N bytes>", containers in compact JSON.
std::string format_value(const plist::Value& value);

// Any reply laid out for reading: scalars as "key  value" lines (nested
// dictionaries with dotted keys), arrays of scalars joined by ", ", arrays
// of dictionaries as tables under a "key:" line.
std::string render_generic(const plist::Dict& reply);

}  // namespace hubwarden_client
