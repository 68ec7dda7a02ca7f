// The layout of the shipped city table, shared by the build-time generator
// that writes it and the reader that maps it.
//
//   header     64 bytes, below
//   records    count fixed-size records, ascending by geonameid
//   strings    a pool of UTF-8 texts without terminators, each text stored
//              once however many records name it
//
// Numbers are in the writing machine's byte order; byte_order tells a
// reader from another order apart, which then refuses the file. The
// checksum covers everything after the header, so a damaged or truncated
// table is noticed before any record is read.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>
#include <type_traits>

namespace platform::city_table_format {

inline constexpr char kMagic[8] = {'H', 'W', 'C', 'I', 'T', 'I', 'E', 'S'};
inline constexpr uint32_t kByteOrder = 0x01020304;
inline constexpr uint32_t kVersion = 1;

struct Header {
  char magic[8];
  uint32_t byte_order;
  uint32_t version;
  uint32_t count;
  uint32_t record_size;
  uint64_t strings_size;
  uint64_t checksum;
  uint8_t reserved[24];
};

// A text in the pool: offset from the pool's start and length in bytes.
struct StringRef {
  uint32_t offset;
  uint32_t length;
};

struct Record {
  uint32_t geonameid;
  uint32_t reserved;
  double latitude;
  double longitude;
  uint64_t population;
  StringRef name;
  StringRef ascii_name;
  StringRef country_code;
  StringRef admin_code;
  StringRef time_zone;
};

static_assert(sizeof(Header) == 64 && std::is_trivially_copyable_v<Header>);
static_assert(sizeof(Record) == 72 && std::is_trivially_copyable_v<Record>);

// A 64-bit checksum of bytes: FNV-1a taken a word at a time, which is fast
// enough to run over the whole table at every load and catches the damage a
// table meets (truncation, overwritten blocks, a stray edit).
inline uint64_t checksum(std::string_view bytes) {
  uint64_t h = 0xcbf29ce484222325ull;
  size_t i = 0;
  for (; i + 8 <= bytes.size(); i += 8) {
    uint64_t word = 0;
    for (size_t b = 0; b < 8; ++b) word |= uint64_t{static_cast<unsigned char>(bytes[i + b])} << (8 * b);
    h = (h ^ word) * 0x100000001b3ull;
  }
  uint64_t tail = 0;
  for (size_t b = 0; i + b < bytes.size(); ++b) tail |= uint64_t{static_cast<unsigned char>(bytes[i + b])} << (8 * b);
  h = (h ^ tail) * 0x100000001b3ull;
  h = (h ^ bytes.size()) * 0x100000001b3ull;
  return h ^ (h >> 32);
}

}  // namespace platform::city_table_format
