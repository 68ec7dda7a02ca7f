#include "plist/scalar_text.h"

#include <charconv>
#include <cmath>
#include <cstdint>
#include <cstdio>

#include "plist/text_util.h"

namespace scalar_text {

namespace {

// Days since 1970-01-01 of a proleptic Gregorian date, and back.
int64_t days_from_civil(int64_t y, unsigned m, unsigned d) {
  y -= m <= 2;
  const int64_t era = (y >= 0 ? y : y - 399) / 400;
  const unsigned yoe = static_cast<unsigned>(y - era * 400);
  const unsigned doy = (153 * (m + (m > 2 ? -3 : 9)) + 2) / 5 + d - 1;
  const unsigned doe = yoe * 365 + yoe / 4 - yoe / 100 + doy;
  return era * 146097 + static_cast<int64_t>(doe) - 719468;
}

void civil_from_days(int64_t z, int64_t& y, unsigned& m, unsigned& d) {
  z += 719468;
  const int64_t era = (z >= 0 ? z : z - 146096) / 146097;
  const unsigned doe = static_cast<unsigned>(z - era * 146097);
  const unsigned yoe = (doe - doe / 1460 + doe / 36524 - doe / 146096) / 365;
  const unsigned doy = doe - (365 * yoe + yoe / 4 - yoe / 100);
  const unsigned mp = (5 * doy + 2) / 153;
  d = doy - (153 * mp + 2) / 5 + 1;
  m = mp < 10 ? mp + 3 : mp - 9;
  y = static_cast<int64_t>(yoe) + era * 400 + (m <= 2);
}

bool read_digits(std::string_view s, size_t pos, size_t count, unsigned& out) {
  if (pos + count > s.size()) return false;
  out = 0;
  for (size_t i = pos; i < pos + count; ++i) {
    if (s[i] < '0' || s[i] > '9') return false;
    out = out * 10 + static_cast<unsigned>(s[i] - '0');
  }
  return true;
}

constexpr char kBase64Alphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

int base64_digit(char c) {
  if (c >= 'A' && c <= 'Z') return c - 'A';
  if (c >= 'a' && c <= 'z') return c - 'a' + 26;
  if (c >= '0' && c <= '9') return c - '0' + 52;
  if (c == '+') return 62;
  if (c == '/') return 63;
  return -1;
}

}  // namespace

void append_iso_date(std::string& out, double seconds, bool keep_fraction) {
  constexpr double kFirst = -62135596800.0;  // 0001-01-01T00:00:00Z
  constexpr double kLast = 253402300799.0;   // 9999-12-31T23:59:59Z
  if (std::isnan(seconds)) seconds = 0;
  if (seconds < kFirst) seconds = kFirst;
  if (seconds >= kLast + 1) seconds = kLast;
  double whole = std::floor(seconds);
  // Exact: both lie in the same binade or the fraction is smaller still.
  double fraction = seconds - whole;
  int64_t total = static_cast<int64_t>(whole);
  int64_t days = total >= 0 ? total / 86400 : -((-total + 86399) / 86400);
  int64_t rest = total - days * 86400;
  int64_t year;
  unsigned month, day;
  civil_from_days(days, year, month, day);
  char buf[32];
  int len = std::snprintf(buf, sizeof buf, "%04d-%02u-%02uT%02d:%02d:%02d", static_cast<int>(year), month, day,
                          static_cast<int>(rest / 3600), static_cast<int>(rest / 60 % 60), static_cast<int>(rest % 60));
  out.append(buf, static_cast<size_t>(len));
  if (keep_fraction && fraction > 0) {
    // The shortest fixed text of the fraction reads back to it exactly, and
    // whole + fraction is the date itself, so the sum is exact on reading.
    char digits[1100];
    auto [end, ec] = std::to_chars(digits, digits + sizeof digits, fraction, std::chars_format::fixed);
    if (ec == std::errc() && end - digits > 1) out.append(digits + 1, end);  // drop the leading "0"
  }
  out.push_back('Z');
}

bool parse_iso_date(std::string_view s, bool allow_fraction, plist::Date& out) {
  if (s.size() < 20 || s.back() != 'Z') return false;
  unsigned year, month, day, hour, minute, second;
  if (s[4] != '-' || s[7] != '-' || s[10] != 'T' || s[13] != ':' || s[16] != ':') return false;
  if (!read_digits(s, 0, 4, year) || !read_digits(s, 5, 2, month) || !read_digits(s, 8, 2, day) ||
      !read_digits(s, 11, 2, hour) || !read_digits(s, 14, 2, minute) || !read_digits(s, 17, 2, second))
    return false;
  double fraction = 0;
  std::string_view tail = s.substr(19, s.size() - 20);
  if (!tail.empty()) {
    if (!allow_fraction || tail.front() != '.' || tail.size() < 2) return false;
    for (char c : tail.substr(1))
      if (c < '0' || c > '9') return false;
    std::string text = "0" + std::string(tail);
    auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), fraction, std::chars_format::fixed);
    if (ec != std::errc() && ec != std::errc::result_out_of_range) return false;
    if (ec == std::errc::result_out_of_range) fraction = 0;  // below the smallest double
    if (end != text.data() + text.size()) return false;
  }
  static constexpr unsigned kDaysIn[] = {31, 29, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
  if (month < 1 || month > 12 || day < 1 || day > kDaysIn[month - 1] || hour > 23 || minute > 59 || second > 60)
    return false;
  bool leap = (year % 4 == 0 && year % 100 != 0) || year % 400 == 0;
  if (month == 2 && day == 29 && !leap) return false;
  int64_t days = days_from_civil(year, month, day);
  out.seconds = static_cast<double>(days * 86400 + hour * 3600 + minute * 60 + second) + fraction;
  return true;
}

void append_base64(std::string& out, const plist::Data& data) {
  size_t i = 0;
  const size_t n = data.size();
  out.reserve(out.size() + (n + 2) / 3 * 4);
  for (; i + 3 <= n; i += 3) {
    uint32_t v = (uint32_t{data[i]} << 16) | (uint32_t{data[i + 1]} << 8) | data[i + 2];
    out.push_back(kBase64Alphabet[v >> 18]);
    out.push_back(kBase64Alphabet[(v >> 12) & 63]);
    out.push_back(kBase64Alphabet[(v >> 6) & 63]);
    out.push_back(kBase64Alphabet[v & 63]);
  }
  if (n - i == 1) {
    uint32_t v = uint32_t{data[i]} << 16;
    out.push_back(kBase64Alphabet[v >> 18]);
    out.push_back(kBase64Alphabet[(v >> 12) & 63]);
    out.append("==");
  } else if (n - i == 2) {
    uint32_t v = (uint32_t{data[i]} << 16) | (uint32_t{data[i + 1]} << 8);
    out.push_back(kBase64Alphabet[v >> 18]);
    out.push_back(kBase64Alphabet[(v >> 12) & 63]);
    out.push_back(kBase64Alphabet[(v >> 6) & 63]);
    out.push_back('=');
  }
}

bool decode_base64(std::string_view s, plist::Data& out) {
  out.clear();
  out.reserve(s.size() / 4 * 3);
  uint32_t bits = 0;
  int count = 0;
  bool padding = false;
  for (char c : s) {
    if (text::is_blank(c)) continue;
    if (c == '=') {
      padding = true;
      continue;
    }
    int v = base64_digit(c);
    if (v < 0 || padding) return false;
    bits = (bits << 6) | static_cast<uint32_t>(v);
    if (++count == 4) {
      out.push_back(static_cast<uint8_t>(bits >> 16));
      out.push_back(static_cast<uint8_t>(bits >> 8));
      out.push_back(static_cast<uint8_t>(bits));
      bits = 0;
      count = 0;
    }
  }
  if (count == 1) return false;
  if (count == 2) out.push_back(static_cast<uint8_t>(bits >> 4));
  if (count == 3) {
    out.push_back(static_cast<uint8_t>(bits >> 10));
    out.push_back(static_cast<uint8_t>(bits >> 2));
  }
  return true;
}

}  // namespace scalar_text
