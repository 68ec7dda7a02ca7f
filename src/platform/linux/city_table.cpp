// Lookups in the mapped city table. Everything the file claims (sizes,
// order, every text's place in the pool) is checked once when it is
// mapped, so a lookup can trust what it reads.
#include "platform/linux/city_table.h"

#include <fcntl.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "platform/linux/city_table_format.h"
#include "platform/log.h"

namespace platform {
namespace {

namespace fmt = city_table_format;

bool ref_in_pool(const fmt::StringRef& ref, size_t pool_size) {
  return ref.offset <= pool_size && ref.length <= pool_size - ref.offset;
}

fmt::Record record_at(const char* records, size_t i) {
  fmt::Record r;
  std::memcpy(&r, records + i * sizeof(fmt::Record), sizeof r);
  return r;
}

uint32_t id_at(const char* records, size_t i) {
  uint32_t id;
  std::memcpy(&id, records + i * sizeof(fmt::Record) + offsetof(fmt::Record, geonameid), sizeof id);
  return id;
}

// Shipped data is looked for on the machine itself, never below a sandbox
// root, so platform::file_exists (which confines) is not the check here.
bool exists_on_machine(const std::string& path) {
  struct stat st;
  return ::stat(path.c_str(), &st) == 0;
}

std::string program_directory() {
  char buf[4096];
  ssize_t n = ::readlink("/proc/self/exe", buf, sizeof buf - 1);
  if (n <= 0) return "";
  std::string exe(buf, static_cast<size_t>(n));
  size_t slash = exe.rfind('/');
  return slash == std::string::npos ? "" : exe.substr(0, slash);
}

}  // namespace

CityTable::~CityTable() {
  if (map_) ::munmap(const_cast<char*>(map_), map_size_);
}

std::unique_ptr<CityTable> CityTable::empty() { return std::unique_ptr<CityTable>(new CityTable); }

std::unique_ptr<CityTable> CityTable::open(const std::string& path, std::string* error) {
  std::unique_ptr<CityTable> table = empty();
  std::string why;
  int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  struct stat st;
  if (fd < 0) {
    why = path + ": " + std::strerror(errno);
  } else if (::fstat(fd, &st) != 0) {
    why = path + ": " + std::strerror(errno);
  } else if (!S_ISREG(st.st_mode) || st.st_size < static_cast<off_t>(sizeof(fmt::Header))) {
    why = path + ": not a city table (too short)";
  } else {
    void* p = ::mmap(nullptr, static_cast<size_t>(st.st_size), PROT_READ, MAP_PRIVATE | MAP_POPULATE, fd, 0);
    if (p == MAP_FAILED) {
      why = path + ": " + std::strerror(errno);
    } else {
      table->map_ = static_cast<const char*>(p);
      table->map_size_ = static_cast<size_t>(st.st_size);
      if (!table->validate(&why)) {
        why = path + ": " + why;
        ::munmap(p, table->map_size_);
        table->map_ = nullptr;
        table->map_size_ = 0;
        table->records_ = nullptr;
        table->strings_ = {};
        table->count_ = 0;
      }
    }
  }
  if (fd >= 0) ::close(fd);
  if (error) *error = why;
  return table;
}

bool CityTable::validate(std::string* error) {
  fmt::Header header;
  std::memcpy(&header, map_, sizeof header);
  if (std::memcmp(header.magic, fmt::kMagic, sizeof header.magic) != 0) {
    *error = "not a city table";
    return false;
  }
  if (header.byte_order != fmt::kByteOrder) {
    *error = "city table of another byte order";
    return false;
  }
  if (header.version != fmt::kVersion || header.record_size != sizeof(fmt::Record)) {
    *error = "city table version " + std::to_string(header.version) + ", expected " + std::to_string(fmt::kVersion);
    return false;
  }
  // Sizes in 64 bits: count and record size are 32-bit, so their product
  // cannot overflow, and the pool size is compared before it is added.
  uint64_t body = map_size_ - sizeof header;
  uint64_t records_size = uint64_t{header.count} * sizeof(fmt::Record);
  if (records_size > body || header.strings_size != body - records_size) {
    *error = "city table truncated or padded (" + std::to_string(map_size_) + " bytes)";
    return false;
  }
  if (fmt::checksum(std::string_view(map_ + sizeof header, body)) != header.checksum) {
    *error = "city table damaged (checksum mismatch)";
    return false;
  }
  const char* records = map_ + sizeof header;
  size_t pool_size = static_cast<size_t>(header.strings_size);
  uint32_t previous = 0;
  for (size_t i = 0; i < header.count; ++i) {
    fmt::Record r = record_at(records, i);
    bool refs_ok = ref_in_pool(r.name, pool_size) && ref_in_pool(r.ascii_name, pool_size) &&
                   ref_in_pool(r.country_code, pool_size) && ref_in_pool(r.admin_code, pool_size) &&
                   ref_in_pool(r.time_zone, pool_size);
    if (!refs_ok || r.geonameid <= previous) {
      *error = "city table record " + std::to_string(i) + " is damaged";
      return false;
    }
    previous = r.geonameid;
  }
  records_ = records;
  strings_ = std::string_view(records + records_size, pool_size);
  count_ = header.count;
  return true;
}

City CityTable::city_at(size_t i) const {
  fmt::Record r = record_at(records_, i);
  auto text = [this](const fmt::StringRef& ref) { return std::string(strings_.substr(ref.offset, ref.length)); };
  City city;
  city.geonameid = r.geonameid;
  city.name = text(r.name);
  city.ascii_name = text(r.ascii_name);
  city.country_code = text(r.country_code);
  city.admin_code = text(r.admin_code);
  city.latitude = r.latitude;
  city.longitude = r.longitude;
  city.population = r.population;
  city.time_zone = text(r.time_zone);
  return city;
}

std::vector<City> CityTable::search(std::string_view text, size_t limit) {
  if (text.empty() || limit == 0) return {};
  std::vector<std::pair<int, City>> matches;
  for (size_t i = 0; i < count_; ++i) {
    fmt::Record r = record_at(records_, i);
    int rank = city_match_rank(strings_.substr(r.name.offset, r.name.length),
                               strings_.substr(r.ascii_name.offset, r.ascii_name.length), text);
    if (rank >= 0) matches.emplace_back(rank, city_at(i));
  }
  order_city_matches(&matches, limit);
  std::vector<City> found;
  found.reserve(matches.size());
  for (auto& match : matches) found.push_back(std::move(match.second));
  return found;
}

std::optional<City> CityTable::city_by_id(uint32_t geonameid) {
  size_t lo = 0;
  size_t hi = count_;
  while (lo < hi) {
    size_t mid = lo + (hi - lo) / 2;
    uint32_t id = id_at(records_, mid);
    if (id < geonameid) {
      lo = mid + 1;
    } else if (id > geonameid) {
      hi = mid;
    } else {
      return city_at(mid);
    }
  }
  return std::nullopt;
}

std::unique_ptr<CityDatabase> open_city_table(const std::string& path, std::string* error) {
  return CityTable::open(path, error);
}

std::unique_ptr<CityDatabase> make_city_database() {
  std::string path;
  // The program's own installation comes before the machine's: a package
  // unpacked elsewhere (or a build tree) uses the table it came with.
  std::string dir = program_directory();
  if (const char* env = ::getenv("HUBWARDEN_CITY_TABLE"); env && *env) {
    path = env;
  } else if (!dir.empty() && exists_on_machine(dir + "/../share/hubwardend/cities.bin")) {
    path = dir + "/../share/hubwardend/cities.bin";
  } else if (exists_on_machine(kInstalledCityTablePath)) {
    path = kInstalledCityTablePath;
  } else if (!dir.empty() && exists_on_machine(dir + "/cities.bin")) {
    path = dir + "/cities.bin";
  }
  if (path.empty()) {
    log_error(std::string("hubwardend: no city table at ") + kInstalledCityTablePath +
              " or beside the program; cities cannot be selected");
    return CityTable::empty();
  }
  std::string error;
  std::unique_ptr<CityTable> table = CityTable::open(path, &error);
  if (!error.empty()) log_error("hubwardend: " + error + "; cities cannot be selected");
  return table;
}

}  // namespace platform
