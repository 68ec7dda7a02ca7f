// The XML property-list reader and writer.
//
// Reading goes through pugixml and then walks its tree into plist values;
// pugixml never reads a DTD, so a DOCTYPE is skipped and no entity beyond the
// five predefined ones and character references is ever expanded. Writing is
// done here by hand because the output has a fixed shape and because every
// string must be made safe for XML 1.0 on the way out.
#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <limits>
#include <optional>
#include <pugixml.hpp>
#include <string>
#include <string_view>

#include "plist/codec.h"
#include "plist/scalar_text.h"
#include "plist/text_util.h"

namespace plist {

namespace {

using text::trim;

// Deeper documents are refused: the reader and the value destructor recurse.
constexpr int kMaxDepth = 512;

// ---- number, date and data texts ----

bool parse_integer(std::string_view s, Value& out) {
  s = trim(s);
  bool negative = false;
  if (!s.empty() && (s.front() == '-' || s.front() == '+')) {
    negative = s.front() == '-';
    s.remove_prefix(1);
  }
  if (s.empty()) return false;
  uint64_t magnitude = 0;
  auto [end, ec] = std::from_chars(s.data(), s.data() + s.size(), magnitude);
  if (ec != std::errc() || end != s.data() + s.size()) return false;
  if (negative) {
    // The magnitude of INT64_MIN is one more than INT64_MAX.
    constexpr uint64_t kMinMagnitude = static_cast<uint64_t>(std::numeric_limits<int64_t>::max()) + 1;
    if (magnitude > kMinMagnitude) return false;
    out = Value(magnitude == kMinMagnitude ? std::numeric_limits<int64_t>::min() : -static_cast<int64_t>(magnitude));
    return true;
  }
  if (magnitude <= static_cast<uint64_t>(std::numeric_limits<int64_t>::max()))
    out = Value(static_cast<int64_t>(magnitude));
  else
    out = Value(magnitude);
  return true;
}

bool parse_real(std::string_view s, double& out) {
  s = trim(s);
  if (!s.empty() && s.front() == '+') {
    s.remove_prefix(1);
    if (!s.empty() && s.front() == '-') return false;
  }
  if (s.empty()) return false;
  auto [end, ec] = std::from_chars(s.data(), s.data() + s.size(), out);
  if (end != s.data() + s.size()) return false;
  if (ec == std::errc::result_out_of_range) {
    // A magnitude beyond double's range reads as infinity, one below it as
    // zero, rather than refusing a number another writer produced.
    size_t e = s.find_first_of("eE");
    bool underflow = e != std::string_view::npos && e + 1 < s.size() && s[e + 1] == '-';
    double magnitude = underflow ? 0.0 : std::numeric_limits<double>::infinity();
    out = s.front() == '-' ? -magnitude : magnitude;
    return true;
  }
  return ec == std::errc();
}

int hex_value(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

// ---- characters ----

// The Char production of XML 1.0.
bool is_xml_char(uint32_t c) {
  return c == 0x9 || c == 0xA || c == 0xD || (c >= 0x20 && c <= 0xD7FF) || (c >= 0xE000 && c <= 0xFFFD) ||
         (c >= 0x10000 && c <= 0x10FFFF);
}

std::string code_point_text(uint32_t c) {
  char buf[16];
  std::snprintf(buf, sizeof buf, "U+%04X", c);
  return buf;
}

// Position of the first byte XML forbids everywhere (control characters
// other than tab, LF and CR; NUL included), or npos. Scanned in chunks
// without an early exit so that the compiler can vectorise the common case.
size_t find_control_byte(std::string_view s) {
  // Bitwise rather than short-circuit tests, so that each is one vector
  // compare.
  auto bad = [](unsigned char c) -> unsigned {
    return static_cast<unsigned>(c < 0x20) & static_cast<unsigned>(c != '\t') & static_cast<unsigned>(c != '\n') &
           static_cast<unsigned>(c != '\r');
  };
  constexpr size_t kChunk = 64;
  size_t i = 0;
  for (; i + kChunk <= s.size(); i += kChunk) {
    unsigned any = 0;
    for (size_t k = 0; k < kChunk; ++k) any |= bad(static_cast<unsigned char>(s[i + k]));
    if (any) break;
  }
  for (; i < s.size(); ++i)
    if (bad(static_cast<unsigned char>(s[i]))) return i;
  return std::string_view::npos;
}

// Reads the character reference at s[at] ("&#" already seen). Returns the
// code point, or nullopt when the text there is not a complete reference
// (pugixml then keeps it as literal text, which is harmless). Values too
// large for any character saturate rather than wrap.
std::optional<uint32_t> read_char_reference(std::string_view s, size_t at) {
  size_t i = at + 2;
  unsigned base = 10;
  if (i < s.size() && s[i] == 'x') {
    base = 16;
    ++i;
  }
  uint64_t value = 0;
  size_t digits = 0;
  for (; i < s.size() && s[i] != ';'; ++i, ++digits) {
    int d = base == 16 ? hex_value(s[i]) : (s[i] >= '0' && s[i] <= '9' ? s[i] - '0' : -1);
    if (d < 0) return std::nullopt;
    value = std::min<uint64_t>(value * base + static_cast<unsigned>(d), 0xFFFFFFFFu);
  }
  if (digits == 0 || i >= s.size()) return std::nullopt;
  return static_cast<uint32_t>(value);
}

// Offset of the first character reference to a character XML forbids
// ("&#0;", "&#1;", "&#xFFFE;", a surrogate, past U+10FFFF), or npos.
// Comments, CDATA sections and processing instructions hold no
// references and are skipped.
size_t find_forbidden_reference(std::string_view s, uint32_t* code_point) {
  size_t i = s.find("&#");
  if (i == std::string_view::npos) return i;
  i = 0;
  while ((i = s.find_first_of("<&", i)) != std::string_view::npos) {
    std::string_view rest = s.substr(i);
    std::string_view close;
    if (rest.starts_with("<!--"))
      close = "-->";
    else if (rest.starts_with("<![CDATA["))
      close = "]]>";
    else if (rest.starts_with("<?"))
      close = "?>";
    if (!close.empty()) {
      size_t end = s.find(close, i + 2);
      if (end == std::string_view::npos) return std::string_view::npos;  // pugixml refuses it
      i = end + close.size();
      continue;
    }
    if (rest.starts_with("&#")) {
      std::optional<uint32_t> c = read_char_reference(s, i);
      if (c && !is_xml_char(*c)) {
        *code_point = *c;
        return i;
      }
    }
    ++i;
  }
  return std::string_view::npos;
}

// ---- reader ----

class XmlReader {
 public:
  explicit XmlReader(std::string_view text) : text_(text) {}

  Parsed run();

 private:
  bool read_value(pugi::xml_node node, int depth, Value& out);
  bool read_dict(pugi::xml_node node, int depth, Value& out);
  bool read_array(pugi::xml_node node, int depth, Value& out);
  // The text and CDATA content of a leaf element. Usually a view of
  // pugixml's buffer; storage holds it only when pieces must be joined.
  bool leaf_text(pugi::xml_node node, std::string_view& text, std::string& storage);
  // The next element among node and its following siblings, refusing text.
  bool next_element(pugi::xml_node parent, pugi::xml_node node, pugi::xml_node& element);
  bool fail(pugi::xml_node node, const std::string& message);
  bool fail_at(ptrdiff_t offset, const std::string& message);

  std::string_view text_;
  std::string error_;
};

bool XmlReader::fail_at(ptrdiff_t offset, const std::string& message) {
  if (offset < 0 || static_cast<size_t>(offset) > text_.size()) {
    error_ = "XML property list: " + message;
    return false;
  }
  size_t line = 1;
  for (size_t i = 0; i < static_cast<size_t>(offset); ++i)
    if (text_[i] == '\n') ++line;
  error_ = "XML property list, line " + std::to_string(line) + ": " + message;
  return false;
}

bool XmlReader::fail(pugi::xml_node node, const std::string& message) { return fail_at(node.offset_debug(), message); }

// Element names are short; an inlined comparison beats a strcmp call here.
template <size_t N>
bool name_is(const char* name, const char (&expected)[N]) {
  for (size_t i = 0; i < N; ++i)
    if (name[i] != expected[i]) return false;
  return true;
}

bool is_text(pugi::xml_node node) {
  pugi::xml_node_type type = node.type();
  return type == pugi::node_pcdata || type == pugi::node_cdata;
}

size_t count_elements(pugi::xml_node node) {
  size_t n = 0;
  for (pugi::xml_node child = node.first_child(); child; child = child.next_sibling())
    n += child.type() == pugi::node_element;
  return n;
}

bool XmlReader::leaf_text(pugi::xml_node node, std::string_view& text, std::string& storage) {
  pugi::xml_node child = node.first_child();
  if (!child) {
    text = {};
    return true;
  }
  if (!child.next_sibling() && is_text(child)) {
    text = child.value();
    return true;
  }
  storage.clear();
  for (; child; child = child.next_sibling()) {
    if (is_text(child))
      storage.append(child.value());
    else if (child.type() == pugi::node_element)
      return fail(child, std::string("unexpected element <") + child.name() + "> inside <" + node.name() + ">");
  }
  text = storage;
  return true;
}

bool XmlReader::next_element(pugi::xml_node parent, pugi::xml_node node, pugi::xml_node& element) {
  for (; node; node = node.next_sibling()) {
    if (node.type() == pugi::node_element) break;
    if (!trim(node.value()).empty()) return fail(parent, std::string("unexpected text inside <") + parent.name() + ">");
  }
  element = node;
  return true;
}

bool XmlReader::read_dict(pugi::xml_node node, int depth, Value& out) {
  out = Value(Dict());
  Dict& dict = *out.as_dict();
  // Counting first costs a walk of sibling links but saves the repeated
  // growth of the entry vector, which dominates for small dictionaries.
  dict.reserve(count_elements(node) / 2);
  std::string storage;
  pugi::xml_node child;
  if (!next_element(node, node.first_child(), child)) return false;
  while (child) {
    if (!name_is(child.name(), "key"))
      return fail(child, std::string("expected <key> inside <dict>, found <") + child.name() + ">");
    std::string_view key;
    if (!leaf_text(child, key, storage)) return false;
    pugi::xml_node value_node;
    if (!next_element(node, child.next_sibling(), value_node)) return false;
    if (!value_node) return fail(child, "key \"" + std::string(key) + "\" has no value");
    // Building the value in its slot saves moving it; a repeated key reuses
    // the slot, so the last value wins.
    if (!read_value(value_node, depth + 1, dict[key])) return false;
    if (!next_element(node, value_node.next_sibling(), child)) return false;
  }
  return true;
}

bool XmlReader::read_array(pugi::xml_node node, int depth, Value& out) {
  out = Value(Array());
  Array& array = *out.as_array();
  array.reserve(count_elements(node));
  pugi::xml_node child;
  if (!next_element(node, node.first_child(), child)) return false;
  while (child) {
    array.emplace_back();
    if (!read_value(child, depth + 1, array.back())) return false;
    if (!next_element(node, child.next_sibling(), child)) return false;
  }
  return true;
}

bool XmlReader::read_value(pugi::xml_node node, int depth, Value& out) {
  if (depth > kMaxDepth) return fail(node, "nesting deeper than " + std::to_string(kMaxDepth) + " levels");
  const char* name = node.name();
  // Dispatch on the first letter before comparing whole names: this is the
  // reader's innermost loop.
  switch (name[0]) {
    case 'd':
      if (name_is(name, "dict")) return read_dict(node, depth, out);
      break;
    case 'a':
      if (name_is(name, "array")) return read_array(node, depth, out);
      break;
    default:
      break;
  }

  std::string_view text;
  std::string storage;
  if (!leaf_text(node, text, storage)) return false;
  switch (name[0]) {
    case 's':
      if (name_is(name, "string")) {
        out = Value(text);
        return true;
      }
      break;
    case 'i':
      if (name_is(name, "integer")) {
        if (!parse_integer(text, out)) return fail(node, "bad integer \"" + std::string(text) + "\"");
        return true;
      }
      break;
    case 'r':
      if (name_is(name, "real")) {
        double d = 0;
        if (!parse_real(text, d)) return fail(node, "bad real \"" + std::string(text) + "\"");
        out = Value(d);
        return true;
      }
      break;
    case 't':
    case 'f':
      if (name_is(name, "true") || name_is(name, "false")) {
        if (!trim(text).empty()) return fail(node, "<" + std::string(name) + "> must be empty");
        out = Value(name[0] == 't');
        return true;
      }
      break;
    case 'd':
      if (name_is(name, "date")) {
        Date date;
        if (!scalar_text::parse_iso_date(trim(text), false, date)) return fail(node, "bad date \"" + std::string(text) + "\"");
        out = Value(date);
        return true;
      }
      if (name_is(name, "data")) {
        Data data;
        if (!scalar_text::decode_base64(text, data)) return fail(node, "bad base64 in <data>");
        out = Value(std::move(data));
        return true;
      }
      break;
    default:
      break;
  }
  return fail(node, "unknown element <" + std::string(name) + ">");
}

Parsed XmlReader::run() {
  Parsed result;
  if (text_.starts_with("\xEF\xBB\xBF")) text_.remove_prefix(3);
  // pugixml takes any byte and any character reference as it comes: a NUL
  // would end the document early, "&#0;" a string, and other control
  // characters would pass into values. XML 1.0 refuses them, and so do we.
  if (size_t at = find_control_byte(text_); at != std::string_view::npos) {
    fail_at(static_cast<ptrdiff_t>(at),
            "character " + code_point_text(static_cast<unsigned char>(text_[at])) + " is not allowed in XML");
    result.error = std::move(error_);
    return result;
  }
  uint32_t code_point = 0;
  if (size_t at = find_forbidden_reference(text_, &code_point); at != std::string_view::npos) {
    fail_at(static_cast<ptrdiff_t>(at),
            "character reference to " + code_point_text(code_point) + ", which XML does not allow");
    result.error = std::move(error_);
    return result;
  }
  pugi::xml_document doc;
  // A fragment parse keeps text outside the root element, so trailing
  // garbage can be seen and refused below.
  constexpr unsigned kOptions = pugi::parse_cdata | pugi::parse_escapes | pugi::parse_eol | pugi::parse_fragment;
  pugi::xml_parse_result parsed = doc.load_buffer(text_.data(), text_.size(), kOptions, pugi::encoding_utf8);
  if (!parsed) {
    fail_at(parsed.offset, parsed.description());
    result.error = std::move(error_);
    return result;
  }
  pugi::xml_node root;
  for (pugi::xml_node child = doc.first_child(); child; child = child.next_sibling()) {
    if (child.type() == pugi::node_element) {
      if (root) {
        fail(child, std::string("unexpected element <") + child.name() + "> after the root element");
        result.error = std::move(error_);
        return result;
      }
      root = child;
    } else if ((child.type() == pugi::node_pcdata || child.type() == pugi::node_cdata) &&
               !trim(child.value()).empty()) {
      fail(child, "unexpected text outside the root element");
      result.error = std::move(error_);
      return result;
    }
  }
  if (!root) {
    result.error = "XML property list: no root element";
    return result;
  }
  pugi::xml_node value_node = root;
  if (name_is(root.name(), "plist")) {
    value_node = pugi::xml_node();
    for (pugi::xml_node child = root.first_child(); child; child = child.next_sibling()) {
      if (child.type() != pugi::node_element) {
        if (trim(child.value()).empty()) continue;
        fail(root, "unexpected text inside <plist>");
        result.error = std::move(error_);
        return result;
      }
      if (value_node) {
        fail(child, "<plist> holds more than one value");
        result.error = std::move(error_);
        return result;
      }
      value_node = child;
    }
    if (!value_node) {
      fail(root, "<plist> holds no value");
      result.error = std::move(error_);
      return result;
    }
  }
  Value value;
  if (!read_value(value_node, 1, value)) {
    result.error = std::move(error_);
    return result;
  }
  result.value = std::move(value);
  return result;
}

// ---- writer ----

void append_indent(std::string& out, int depth) { out.append(static_cast<size_t>(depth), '\t'); }

constexpr char kReplacement[] = "\xEF\xBF\xBD";  // U+FFFD

// Length of the valid UTF-8 sequence at s[i], or 0 when the bytes there are
// not one (overlong forms, surrogates and values past U+10FFFF included).
size_t utf8_sequence_length(std::string_view s, size_t i) {
  auto byte = [&](size_t k) { return static_cast<unsigned char>(s[k]); };
  unsigned char c = byte(i);
  size_t left = s.size() - i;
  auto cont = [&](size_t k) { return (byte(k) & 0xC0) == 0x80; };
  if (c >= 0xC2 && c <= 0xDF) return left >= 2 && cont(i + 1) ? 2 : 0;
  if (c >= 0xE0 && c <= 0xEF) {
    if (left < 3 || !cont(i + 1) || !cont(i + 2)) return 0;
    unsigned char c1 = byte(i + 1);
    if (c == 0xE0 && c1 < 0xA0) return 0;   // overlong
    if (c == 0xED && c1 >= 0xA0) return 0;  // surrogate
    // U+FFFE and U+FFFF are not XML characters.
    if (c == 0xEF && c1 == 0xBF && (byte(i + 2) == 0xBE || byte(i + 2) == 0xBF)) return 0;
    return 3;
  }
  if (c >= 0xF0 && c <= 0xF4) {
    if (left < 4 || !cont(i + 1) || !cont(i + 2) || !cont(i + 3)) return 0;
    unsigned char c1 = byte(i + 1);
    if (c == 0xF0 && c1 < 0x90) return 0;   // overlong
    if (c == 0xF4 && c1 >= 0x90) return 0;  // past U+10FFFF
    return 4;
  }
  return 0;
}

// Escapes markup characters and replaces whatever XML 1.0 cannot carry (most
// control characters, broken UTF-8) with U+FFFD, so that any string, such as
// log text read from a file, still yields a document that reads back. CR is
// written as a reference because a literal one would read back as LF.
void append_xml_escaped(std::string& out, std::string_view s) {
  size_t i = 0;
  const size_t n = s.size();
  while (i < n) {
    // Copy the longest run that needs no attention in one go.
    size_t run = i;
    while (run < n) {
      unsigned char c = static_cast<unsigned char>(s[run]);
      if (c < 0x20 || c >= 0x80 || c == '&' || c == '<' || c == '>') break;
      ++run;
    }
    out.append(s.data() + i, run - i);
    i = run;
    if (i >= n) break;
    unsigned char c = static_cast<unsigned char>(s[i]);
    if (c == '&') {
      out.append("&amp;");
      ++i;
    } else if (c == '<') {
      out.append("&lt;");
      ++i;
    } else if (c == '>') {
      out.append("&gt;");
      ++i;
    } else if (c == '\t' || c == '\n') {
      out.push_back(static_cast<char>(c));
      ++i;
    } else if (c == '\r') {
      out.append("&#13;");
      ++i;
    } else if (c < 0x20) {
      out.append(kReplacement);
      ++i;
    } else {
      size_t len = utf8_sequence_length(s, i);
      if (len == 0) {
        out.append(kReplacement);
        ++i;
      } else {
        out.append(s.data() + i, len);
        i += len;
      }
    }
  }
}

void append_real(std::string& out, double d) {
  if (std::isnan(d)) {
    out.append("nan");
    return;
  }
  if (std::isinf(d)) {
    out.append(d < 0 ? "-inf" : "inf");
    return;
  }
  // The shortest text that reads back as the same double.
  char buf[64];
  auto [end, ec] = std::to_chars(buf, buf + sizeof buf, d);
  out.append(buf, ec == std::errc() ? static_cast<size_t>(end - buf) : 0);
}

template <typename T>
void append_number(std::string& out, T v) {
  char buf[24];
  auto [end, ec] = std::to_chars(buf, buf + sizeof buf, v);
  out.append(buf, static_cast<size_t>(end - buf));
}

void write_value(std::string& out, const Value& value, int depth) {
  append_indent(out, depth);
  switch (value.type()) {
    case Type::Null:
      // There is no null element; an empty string is the closest reading.
      out.append("<string></string>\n");
      return;
    case Type::Bool:
      out.append(*value.as_bool() ? "<true/>\n" : "<false/>\n");
      return;
    case Type::Integer:
      out.append("<integer>");
      append_number(out, *value.as_integer());
      out.append("</integer>\n");
      return;
    case Type::Unsigned:
      out.append("<integer>");
      append_number(out, *value.as_unsigned());
      out.append("</integer>\n");
      return;
    case Type::Real:
      out.append("<real>");
      append_real(out, *value.as_real());
      out.append("</real>\n");
      return;
    case Type::String:
      out.append("<string>");
      append_xml_escaped(out, *value.as_string());
      out.append("</string>\n");
      return;
    case Type::Date:
      out.append("<date>");
      scalar_text::append_iso_date(out, value.as_date()->seconds, false);
      out.append("</date>\n");
      return;
    case Type::Data:
      out.append("<data>");
      scalar_text::append_base64(out, *value.as_data());
      out.append("</data>\n");
      return;
    case Type::Array: {
      const Array& array = *value.as_array();
      if (array.empty()) {
        out.append("<array/>\n");
        return;
      }
      out.append("<array>\n");
      for (const Value& item : array) write_value(out, item, depth + 1);
      append_indent(out, depth);
      out.append("</array>\n");
      return;
    }
    case Type::Dict: {
      const Dict& dict = *value.as_dict();
      if (dict.empty()) {
        out.append("<dict/>\n");
        return;
      }
      out.append("<dict>\n");
      for (const auto& [key, item] : dict) {
        append_indent(out, depth + 1);
        out.append("<key>");
        append_xml_escaped(out, key);
        out.append("</key>\n");
        write_value(out, item, depth + 1);
      }
      append_indent(out, depth);
      out.append("</dict>\n");
      return;
    }
  }
}

}  // namespace

Parsed parse_xml(std::string_view text) { return XmlReader(text).run(); }

std::string write_xml(const Value& value) {
  std::string out;
  out.reserve(256);
  out.append(
      "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
      "<plist version=\"1.0\">\n");
  write_value(out, value, 0);
  out.append("</plist>\n");
  return out;
}

}  // namespace plist
