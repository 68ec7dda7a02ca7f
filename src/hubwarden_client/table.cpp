#include "hubwarden_client/table.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <ctime>

#include "plist/json.h"

namespace hubwarden_client {

namespace {

// Characters, not bytes, so accented names do not push columns apart.
size_t display_width(const std::string& s) {
  size_t n = 0;
  for (unsigned char c : s)
    if ((c & 0xC0) != 0x80) ++n;
  return n;
}

bool is_scalar(const plist::Value& v) { return !v.is_dict() && !v.is_array(); }

}  // namespace

Table::Table(std::vector<Column> columns) : columns_(std::move(columns)) {}

void Table::add_row(std::vector<std::string> cells) {
  cells.resize(columns_.size());
  rows_.push_back(std::move(cells));
}

std::string Table::render(bool header) const {
  std::vector<size_t> widths(columns_.size(), 0);
  for (size_t c = 0; c < columns_.size(); ++c) {
    if (header) widths[c] = display_width(columns_[c].header);
    for (const auto& row : rows_) widths[c] = std::max(widths[c], display_width(row[c]));
  }
  std::string out;
  auto emit = [&](const std::vector<std::string>& cells) {
    std::string line;
    for (size_t c = 0; c < columns_.size(); ++c) {
      if (c) line.append("  ");
      size_t pad = widths[c] - display_width(cells[c]);
      bool last = c + 1 == columns_.size();
      if (columns_[c].align == Align::kRight) line.append(pad, ' ');
      line.append(cells[c]);
      if (columns_[c].align == Align::kLeft && !last) line.append(pad, ' ');
    }
    while (!line.empty() && line.back() == ' ') line.pop_back();
    out.append(line).push_back('\n');
  };
  if (header) {
    std::vector<std::string> headers;
    for (const auto& column : columns_) headers.push_back(column.header);
    emit(headers);
  }
  for (const auto& row : rows_) emit(row);
  return out;
}

std::string format_bytes(uint64_t bytes) {
  static constexpr const char* kUnits[] = {"KiB", "MiB", "GiB", "TiB", "PiB", "EiB"};
  if (bytes < 1024) return std::to_string(bytes) + " B";
  double value = static_cast<double>(bytes);
  int unit = -1;
  while (value >= 1024 && unit < 5) {
    value /= 1024;
    ++unit;
  }
  char buf[32];
  // Rounding may reach 1024.0 of a unit; that reads fine and is rare.
  std::snprintf(buf, sizeof buf, value < 100 ? "%.1f %s" : "%.0f %s", value, kUnits[unit]);
  return buf;
}

std::string format_percent(double percent) {
  char buf[32];
  std::snprintf(buf, sizeof buf, "%.1f %%", percent);
  return buf;
}

std::string format_by100(double hundredths) { return format_percent(hundredths / 100); }

std::string format_cpu_time(uint64_t seconds) {
  char buf[48];
  if (seconds < 3600)
    std::snprintf(buf, sizeof buf, "%u:%02u", static_cast<unsigned>(seconds / 60), static_cast<unsigned>(seconds % 60));
  else
    std::snprintf(buf, sizeof buf, "%llu:%02u:%02u", static_cast<unsigned long long>(seconds / 3600),
                  static_cast<unsigned>(seconds / 60 % 60), static_cast<unsigned>(seconds % 60));
  return buf;
}

std::string format_local_time(double seconds) {
  if (!std::isfinite(seconds)) return "?";
  time_t t = static_cast<time_t>(std::floor(seconds));
  struct tm local {};
  if (!localtime_r(&t, &local)) return "?";
  char buf[64];
  size_t n = std::strftime(buf, sizeof buf, "%Y-%m-%d %H:%M:%S", &local);
  return std::string(buf, n);
}

std::string format_value(const plist::Value& value) {
  switch (value.type()) {
    case plist::Type::Null:
      return "";
    case plist::Type::Bool:
      return *value.as_bool() ? "true" : "false";
    case plist::Type::Integer:
      return std::to_string(*value.as_integer());
    case plist::Type::Unsigned:
      return std::to_string(*value.as_unsigned());
    case plist::Type::Real: {
      char buf[64];
      auto [end, ec] = std::to_chars(buf, buf + sizeof buf, *value.as_real());
      return std::string(buf, static_cast<size_t>(end - buf));
    }
    case plist::Type::String:
      return *value.as_string();
    case plist::Type::Date:
      return format_local_time(value.as_date()->seconds);
    case plist::Type::Data:
      return "<" + std::to_string(value.as_data()->size()) + " bytes>";
    case plist::Type::Array:
    case plist::Type::Dict:
      return plist::write_json(value);
  }
  return "";
}

namespace {

bool is_table(const plist::Array& array) {
  if (array.empty()) return false;
  for (const plist::Value& item : array) {
    const plist::Dict* d = item.as_dict();
    if (!d) return false;
    for (const auto& entry : *d)
      if (!is_scalar(entry.second)) return false;
  }
  return true;
}

void flatten(const plist::Dict& dict, const std::string& prefix, Table& pairs,
             std::vector<std::pair<std::string, const plist::Array*>>& tables) {
  for (const auto& [key, value] : dict) {
    std::string name = prefix.empty() ? key : prefix + "." + key;
    if (const plist::Dict* inner = value.as_dict()) {
      if (inner->empty())
        pairs.add_row({name, "{}"});
      else
        flatten(*inner, name, pairs, tables);
    } else if (const plist::Array* array = value.as_array()) {
      if (is_table(*array)) {
        tables.emplace_back(name, array);
        continue;
      }
      bool scalars = std::all_of(array->begin(), array->end(), is_scalar);
      if (scalars) {
        std::string joined;
        for (const plist::Value& item : *array) {
          if (!joined.empty()) joined.append(", ");
          joined.append(format_value(item));
        }
        pairs.add_row({name, joined});
      } else {
        pairs.add_row({name, format_value(value)});
      }
    } else {
      pairs.add_row({name, format_value(value)});
    }
  }
}

}  // namespace

std::string render_generic(const plist::Dict& reply) {
  Table pairs({{"KEY"}, {"VALUE"}});
  std::vector<std::pair<std::string, const plist::Array*>> tables;
  flatten(reply, "", pairs, tables);
  std::string out = pairs.render(false);
  for (const auto& [name, array] : tables) {
    // Columns in the order keys first appear, so rows of unequal shape fit.
    std::vector<std::string> keys;
    for (const plist::Value& item : *array)
      for (const auto& entry : *item.as_dict())
        if (std::find(keys.begin(), keys.end(), entry.first) == keys.end()) keys.push_back(entry.first);
    std::vector<Table::Column> columns;
    for (const std::string& key : keys) columns.push_back({key, Table::Align::kLeft});
    std::vector<bool> numeric(keys.size(), true);
    for (const plist::Value& item : *array)
      for (size_t c = 0; c < keys.size(); ++c)
        if (const plist::Value* v = item.as_dict()->find(keys[c]); v && (!v->is_number() || v->as_bool()))
          numeric[c] = false;
    for (size_t c = 0; c < keys.size(); ++c)
      if (numeric[c]) columns[c].align = Table::Align::kRight;
    Table table(columns);
    for (const plist::Value& item : *array) {
      std::vector<std::string> cells;
      for (const std::string& key : keys) {
        const plist::Value* v = item.as_dict()->find(key);
        cells.push_back(v ? format_value(*v) : "");
      }
      table.add_row(std::move(cells));
    }
    if (!out.empty()) out.push_back('\n');
    out.append(name).append(":\n").append(table.render());
  }
  return out;
}

}  // namespace hubwarden_client
