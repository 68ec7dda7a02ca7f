// Message text: headers kept to single safe lines, body in quoted-printable.
#include "sentryd/mail_message.h"

#include <unistd.h>

#include <atomic>
#include <chrono>

#include "plist/text_util.h"

namespace sentryd {
namespace {

constexpr size_t kMaxSubjectBytes = 600;
// 39 bytes make 52 base64 characters, 64 with the encoded word's frame, so
// even the first line, behind "Subject: ", stays within 78 characters.
constexpr size_t kEncodedChunkBytes = 39;

bool is_special(char c) {
  switch (c) {
    case '(':
    case ')':
    case '<':
    case '>':
    case '[':
    case ']':
    case ':':
    case ';':
    case '@':
    case '\\':
    case ',':
    case '"':
      return true;
    default:
      return false;
  }
}

std::string base64(std::string_view bytes) {
  static const char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::string out;
  out.reserve((bytes.size() + 2) / 3 * 4);
  size_t i = 0;
  for (; i + 2 < bytes.size(); i += 3) {
    uint32_t n = (uint8_t(bytes[i]) << 16) | (uint8_t(bytes[i + 1]) << 8) | uint8_t(bytes[i + 2]);
    out += kAlphabet[n >> 18];
    out += kAlphabet[(n >> 12) & 63];
    out += kAlphabet[(n >> 6) & 63];
    out += kAlphabet[n & 63];
  }
  if (i < bytes.size()) {
    uint32_t n = uint8_t(bytes[i]) << 16;
    if (i + 1 < bytes.size()) n |= uint8_t(bytes[i + 1]) << 8;
    out += kAlphabet[n >> 18];
    out += kAlphabet[(n >> 12) & 63];
    out += i + 1 < bytes.size() ? kAlphabet[(n >> 6) & 63] : '=';
    out += '=';
  }
  return out;
}

// The subject as header text: control characters (CR and LF among them)
// become blanks; plain ASCII goes as it is, anything else as encoded words
// of at most 75 characters on folded lines, never splitting a character.
std::string encode_subject(std::string_view raw) {
  std::string text;
  for (char c : raw.substr(0, kMaxSubjectBytes)) {
    unsigned char u = static_cast<unsigned char>(c);
    text += (u < 0x20 || u == 0x7f) ? ' ' : c;
  }
  bool plain = true;
  for (unsigned char u : text) plain = plain && u < 0x80;
  // Words that look like encoded words must not be taken for them.
  if (plain && text.find("=?") == std::string::npos) return text;
  std::string out;
  size_t start = 0;
  while (start < text.size()) {
    size_t end = std::min(text.size(), start + kEncodedChunkBytes);
    while (end < text.size() && end > start + 1 && (static_cast<unsigned char>(text[end]) & 0xC0) == 0x80) --end;
    if (!out.empty()) out += "\r\n ";
    out += "=?UTF-8?B?" + base64(std::string_view(text).substr(start, end - start)) + "?=";
    start = end;
  }
  return out;
}

void append_hex(std::string* out, unsigned char u) {
  static const char kHex[] = "0123456789ABCDEF";
  *out += '=';
  *out += kHex[u >> 4];
  *out += kHex[u & 15];
}

// Quoted-printable (RFC 2045): lines of at most 76 characters, soft breaks
// where a line is longer, blanks at a line's end encoded.
std::string quoted_printable(std::string_view body) {
  std::string out;
  text::for_each_line(body, [&](std::string_view line) {
    if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
    size_t width = 0;
    for (size_t i = 0; i < line.size(); ++i) {
      unsigned char u = static_cast<unsigned char>(line[i]);
      bool last = i + 1 == line.size();
      std::string piece;
      // A dot opening a line is encoded so that no transport can take a
      // line of the body for the end of the message.
      bool plain = (u >= 33 && u <= 126 && u != '=' && !(u == '.' && width == 0)) || ((u == ' ' || u == '\t') && !last);
      if (plain) {
        piece = static_cast<char>(u);
      } else {
        append_hex(&piece, u);
      }
      if (width + piece.size() > 75) {
        out += "=\r\n";
        width = 0;
      }
      out += piece;
      width += piece.size();
    }
    out += "\r\n";
  });
  return out;
}

}  // namespace

bool is_usable_address(std::string_view address) {
  if (address.empty() || address.size() > 254 || address.front() == '-') return false;
  size_t at = address.find('@');
  if (at == 0 || at == std::string_view::npos || at + 1 == address.size()) return false;
  for (size_t i = 0; i < address.size(); ++i) {
    unsigned char u = static_cast<unsigned char>(address[i]);
    if (u <= 0x20 || u >= 0x7f) return false;
    if (i != at && is_special(address[i])) return false;
  }
  return true;
}

std::vector<std::string> parse_recipients(std::string_view list, std::vector<std::string>* rejected) {
  std::vector<std::string> out;
  for (std::string_view item : text::split_list(list, ',')) {
    item = text::trim(item);
    if (item.empty()) continue;
    if (is_usable_address(item)) {
      out.emplace_back(item);
    } else if (rejected) {
      rejected->emplace_back(item);
    }
  }
  return out;
}

std::string compose_message(const MailHeaders& headers, std::string_view body) {
  char date[64];
  struct tm local;
  ::localtime_r(&headers.date, &local);
  std::strftime(date, sizeof date, "%a, %d %b %Y %H:%M:%S %z", &local);
  std::string to;
  for (const std::string& address : headers.to) to += (to.empty() ? "" : ", ") + address;
  std::string out;
  out += "From: " + headers.from + "\r\n";
  out += "To: " + to + "\r\n";
  out += "Subject: " + encode_subject(headers.subject) + "\r\n";
  out += std::string("Date: ") + date + "\r\n";
  out += "Message-ID: " + headers.message_id + "\r\n";
  out += "MIME-Version: 1.0\r\n";
  out += "Content-Type: text/plain; charset=UTF-8\r\n";
  out += "Content-Transfer-Encoding: quoted-printable\r\n";
  out += "Auto-Submitted: auto-generated\r\n";
  out += "\r\n";
  out += quoted_printable(body);
  return out;
}

std::string make_message_id(std::string_view host) {
  static std::atomic<uint64_t> counter{0};
  auto now = std::chrono::system_clock::now().time_since_epoch();
  return "<" + std::to_string(std::chrono::duration_cast<std::chrono::microseconds>(now).count()) + "." +
         std::to_string(::getpid()) + "." + std::to_string(counter++) + ".sentryd@" + std::string(host) + ">";
}

std::string local_host_name() {
  char name[256] = {};
  if (::gethostname(name, sizeof name - 1) != 0) name[0] = '\0';
  std::string out;
  for (const char* p = name; *p; ++p) {
    char c = *p;
    if ((c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-' || c == '.') out += c;
  }
  return out.empty() ? "localhost" : out;
}

}  // namespace sentryd
