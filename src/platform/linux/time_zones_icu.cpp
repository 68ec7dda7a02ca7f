// Installed zones from the zoneinfo folder; abbreviations through ICU's
// metazones, since the zone files only say which abbreviations a zone uses,
// not which zone an abbreviation stands for.
#include "platform/linux/time_zones_icu.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unicode/locid.h>
#include <unicode/strenum.h>
#include <unicode/timezone.h>
#include <unicode/tznames.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "platform/paths.h"
#include "platform/registry.h"
#include "platform/root_fs.h"

namespace platform {
namespace {

// Longest names in the database are about 30 characters.
constexpr size_t kMaxZoneName = 255;

// English locales whose short zone names together cover the abbreviations
// in common use; an earlier locale wins where two disagree ("IST").
constexpr const char* kAbbreviationLocales[] = {"en",    "en_GB", "en_CA", "en_AU", "en_NZ",
                                                "en_IN", "en_ZA", "en_SG", "en_HK"};

bool is_safe_zone_name(const std::string& name) {
  if (name.empty() || name.size() > kMaxZoneName || name.front() == '/') return false;
  bool chars_ok = std::all_of(name.begin(), name.end(), [](char c) {
    return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '/' || c == '_' ||
           c == '-' || c == '+' || c == '.';
  });
  if (!chars_ok) return false;
  size_t start = 0;
  while (start <= name.size()) {
    size_t slash = name.find('/', start);
    if (slash == std::string::npos) slash = name.size();
    std::string_view part(name.data() + start, slash - start);
    if (part.empty() || part == "." || part == "..") return false;
    start = slash + 1;
  }
  return true;
}

// A short name worth indexing: ICU fills gaps with texts such as "N/A" or
// "Gulf ST" in some locales.
bool looks_like_abbreviation(const std::string& s) {
  return s.size() >= 2 && s.size() <= 6 && std::all_of(s.begin(), s.end(), [](char c) { return c >= 'A' && c <= 'Z'; });
}

std::string utf8(const icu::UnicodeString& s) {
  std::string out;
  s.toUTF8String(out);
  return out;
}

// Abbreviation -> zones to try in order: the metazone's reference zone,
// then the zones ICU holds equivalent to it (ICU's reference ids are older
// spellings, "Asia/Calcutta", that newer zoneinfo folders may leave out).
using AbbreviationTable = std::map<std::string, std::vector<std::string>>;

AbbreviationTable build_abbreviation_table() {
  AbbreviationTable table;
  for (const char* locale : kAbbreviationLocales) {
    UErrorCode status = U_ZERO_ERROR;
    std::unique_ptr<icu::TimeZoneNames> names(icu::TimeZoneNames::createInstance(icu::Locale(locale), status));
    if (U_FAILURE(status) || !names) continue;
    std::unique_ptr<icu::StringEnumeration> metazones(names->getAvailableMetaZoneIDs(status));
    if (U_FAILURE(status) || !metazones) continue;
    while (const icu::UnicodeString* metazone = metazones->snext(status)) {
      if (U_FAILURE(status)) break;
      icu::UnicodeString reference;
      names->getReferenceZoneID(*metazone, "001", reference);
      if (reference.isBogus() || reference.isEmpty()) continue;
      for (UTimeZoneNameType type : {UTZNM_SHORT_STANDARD, UTZNM_SHORT_DAYLIGHT}) {
        icu::UnicodeString short_name;
        names->getMetaZoneDisplayName(*metazone, type, short_name);
        std::string abbreviation = utf8(short_name);
        if (!looks_like_abbreviation(abbreviation) || table.count(abbreviation)) continue;
        std::vector<std::string>& zones = table[abbreviation];
        zones.push_back(utf8(reference));
        int32_t equivalents = icu::TimeZone::countEquivalentIDs(reference);
        for (int32_t i = 0; i < equivalents; ++i) {
          std::string zone = utf8(icu::TimeZone::getEquivalentID(reference, i));
          if (std::find(zones.begin(), zones.end(), zone) == zones.end()) zones.push_back(zone);
        }
      }
    }
  }
  return table;
}

class LinuxTimeZones : public TimeZones {
 public:
  std::optional<std::string> zone_by_name(const std::string& name) override {
    if (!is_safe_zone_name(name)) return std::nullopt;
    std::string path = std::string(kZoneInfoDirectory) + name;
    if (Paths* paths = find<Paths>()) path = paths->resolve(path);
    // Non-blocking so that a FIFO planted in the folder cannot stall us.
    int fd = open_confined(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    if (fd < 0) return std::nullopt;
    struct stat st;
    char magic[4];
    bool is_zone = ::fstat(fd, &st) == 0 && S_ISREG(st.st_mode) && ::pread(fd, magic, sizeof magic, 0) == 4 &&
                   std::memcmp(magic, "TZif", 4) == 0;
    ::close(fd);
    if (!is_zone) return std::nullopt;
    return name;
  }

  std::optional<std::string> zone_by_abbreviation(const std::string& abbreviation) override {
    std::call_once(built_, [this] { abbreviations_ = build_abbreviation_table(); });
    auto it = abbreviations_.find(abbreviation);
    if (it == abbreviations_.end()) return std::nullopt;
    for (const std::string& zone : it->second) {
      if (std::optional<std::string> installed = zone_by_name(zone)) return installed;
    }
    return std::nullopt;
  }

 private:
  std::once_flag built_;
  AbbreviationTable abbreviations_;  // written once under built_, then read only
};

}  // namespace

std::unique_ptr<TimeZones> make_linux_time_zones() { return std::make_unique<LinuxTimeZones>(); }

}  // namespace platform
