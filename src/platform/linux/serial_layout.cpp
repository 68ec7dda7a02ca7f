// Serial-number layouts, chosen by decoding each candidate the way readers
// do and keeping the one that gives the serial back.
#include "platform/linux/serial_layout.h"

#include "platform/serial_number.h"

#include <algorithm>
#include <cstring>
#include <string>

namespace platform {

namespace {

// Offsets 0..20 are read; one more byte keeps a NUL after them.
constexpr size_t kLayoutBytes = 22;
constexpr size_t kLongSerial = 19;
constexpr size_t kHeadBytes = 8;


// The serial's first eight characters at head_offset, the rest at 0, NULs
// everywhere else (they end the serial, and an empty leading string has no
// '-').
plist::Data lay_out(std::string_view serial, size_t head_offset) {
  plist::Data data(kLayoutBytes, 0);
  std::string_view head = serial.substr(0, kHeadBytes);
  std::memcpy(data.data() + head_offset, head.data(), head.size());
  if (serial.size() > kHeadBytes) {
    std::string_view tail = serial.substr(kHeadBytes);
    std::memcpy(data.data(), tail.data(), tail.size());
  }
  return data;
}

plist::Data plain(std::string_view serial) { return lay_out(serial, 13); }

plist::Data dashed(std::string_view serial) {
  plist::Data data = lay_out(serial, 12);
  // A full-length serial fills bytes 0..10 and so joins the head into one
  // leading string; a '-' in the gap between them selects this layout
  // whatever the serial holds.
  if (serial.size() == kLongSerial) data[11] = '-';
  return data;
}

}  // namespace

plist::Data encode_serial_number(std::string_view serial) {
  serial = serial.substr(0, serial.find('\0'));
  serial = serial.substr(0, kLongSerial);
  if (serial.size() <= 11) {
    plist::Data data = plain(serial);
    if (decode_serial_number(data) == serial) return data;
  }
  plist::Data data = dashed(serial);
  if (decode_serial_number(data) == serial) return data;
  std::string padded(serial);
  padded.resize(kLongSerial, ' ');
  return dashed(padded);
}

}  // namespace platform
