// The ranking shared by every city database's search, so the console's
// city picker orders cities the same way whatever holds them.
#include <algorithm>

#include "platform/city_database.h"

namespace platform {
namespace {

char fold(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; }

bool starts_with_folded(std::string_view s, size_t at, std::string_view text) {
  if (s.size() - at < text.size()) return false;
  for (size_t i = 0; i < text.size(); ++i)
    if (fold(s[at + i]) != fold(text[i])) return false;
  return true;
}

int rank_in(std::string_view name, std::string_view text) {
  if (!starts_with_folded(name, 0, text)) {
    for (size_t i = 1; i < name.size(); ++i) {
      char before = name[i - 1];
      bool word_start = before == ' ' || before == '-' || before == '\'' || before == '.';
      if (word_start && starts_with_folded(name, i, text)) return 2;
    }
    return -1;
  }
  return name.size() == text.size() ? 0 : 1;
}

}  // namespace

int city_match_rank(std::string_view name, std::string_view ascii_name, std::string_view text) {
  if (text.empty()) return -1;
  int a = rank_in(name, text), b = rank_in(ascii_name, text);
  if (a < 0) return b;
  if (b < 0) return a;
  return std::min(a, b);
}

void order_city_matches(std::vector<std::pair<int, City>>* matches, size_t limit) {
  auto better = [](const std::pair<int, City>& x, const std::pair<int, City>& y) {
    if (x.first != y.first) return x.first < y.first;
    if (x.second.population != y.second.population) return x.second.population > y.second.population;
    return x.second.geonameid < y.second.geonameid;
  };
  if (matches->size() > limit) {
    std::partial_sort(matches->begin(), matches->begin() + static_cast<std::ptrdiff_t>(limit), matches->end(), better);
    matches->resize(limit);
  } else {
    std::sort(matches->begin(), matches->end(), better);
  }
}

}  // namespace platform
