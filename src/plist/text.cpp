// The reader for the older text form of property lists, and the choice
// between the two forms.
//
// No library reads this form, so it is a small recursive-descent parser.
// Every leaf is a string (the form has no numbers or booleans) except <hex>
// data. Recursion is bounded so that hostile input cannot exhaust the stack.
#include <string>
#include <string_view>

#include "plist/codec.h"
#include "plist/text_util.h"

namespace plist {

namespace {

constexpr int kMaxDepth = 512;

bool is_bare_char(char c) {
  return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '_' || c == '$' ||
         c == '+' || c == '/' || c == ':' || c == '.' || c == '-';
}

int hex_digit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

void append_utf8(std::string& out, uint32_t cp) {
  if (cp < 0x80) {
    out.push_back(static_cast<char>(cp));
  } else if (cp < 0x800) {
    out.push_back(static_cast<char>(0xC0 | (cp >> 6)));
    out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
  } else if (cp < 0x10000) {
    out.push_back(static_cast<char>(0xE0 | (cp >> 12)));
    out.push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3F)));
    out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
  } else {
    out.push_back(static_cast<char>(0xF0 | (cp >> 18)));
    out.push_back(static_cast<char>(0x80 | ((cp >> 12) & 0x3F)));
    out.push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3F)));
    out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
  }
}

class TextReader {
 public:
  explicit TextReader(std::string_view text) : text_(text) {}

  Parsed run();

 private:
  bool at_end() const { return pos_ >= text_.size(); }
  char peek() const { return text_[pos_]; }
  // Skips blanks and comments; false only for an unterminated comment.
  bool skip_blank();
  bool read_value(int depth, Value& out);
  bool read_dict(int depth, Value& out);
  bool read_array(int depth, Value& out);
  bool read_string(std::string& out);
  bool read_quoted(std::string& out);
  bool read_escape(std::string& out);
  bool read_data(Value& out);
  bool fail(const std::string& message) { return fail_at(pos_, message); }
  bool fail_at(size_t pos, const std::string& message);

  std::string_view text_;
  size_t pos_ = 0;
  std::string error_;
};

bool TextReader::fail_at(size_t pos, const std::string& message) {
  size_t line = 1, column = 1;
  for (size_t i = 0; i < pos && i < text_.size(); ++i) {
    if (text_[i] == '\n') {
      ++line;
      column = 1;
    } else {
      ++column;
    }
  }
  error_ = "text property list, line " + std::to_string(line) + ", column " + std::to_string(column) + ": " +
           message;
  return false;
}

bool TextReader::skip_blank() {
  while (!at_end()) {
    char c = peek();
    if (c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\f' || c == '\v') {
      ++pos_;
    } else if (c == '/' && pos_ + 1 < text_.size() && text_[pos_ + 1] == '/') {
      size_t eol = text_.find('\n', pos_);
      pos_ = eol == std::string_view::npos ? text_.size() : eol + 1;
    } else if (c == '/' && pos_ + 1 < text_.size() && text_[pos_ + 1] == '*') {
      size_t close = text_.find("*/", pos_ + 2);
      if (close == std::string_view::npos) return fail("unterminated comment");
      pos_ = close + 2;
    } else {
      break;
    }
  }
  return true;
}

bool TextReader::read_escape(std::string& out) {
  // pos_ is just past the backslash.
  if (at_end()) return fail("unterminated string");
  char c = text_[pos_++];
  switch (c) {
    case 'n': out.push_back('\n'); return true;
    case 't': out.push_back('\t'); return true;
    case 'r': out.push_back('\r'); return true;
    case 'a': out.push_back('\a'); return true;
    case 'b': out.push_back('\b'); return true;
    case 'f': out.push_back('\f'); return true;
    case 'v': out.push_back('\v'); return true;
    case 'U':
    case 'u': {
      uint32_t cp = 0;
      int digits = 0;
      while (digits < 4 && !at_end() && hex_digit(peek()) >= 0) {
        cp = cp * 16 + static_cast<uint32_t>(hex_digit(peek()));
        ++pos_;
        ++digits;
      }
      if (digits == 0) return fail("\\U without hex digits");
      if (cp >= 0xD800 && cp <= 0xDBFF) {
        // A high surrogate pairs with an immediately following \ULLLL.
        if (pos_ + 6 <= text_.size() && text_[pos_] == '\\' && (text_[pos_ + 1] == 'U' || text_[pos_ + 1] == 'u')) {
          uint32_t low = 0;
          bool ok = true;
          for (size_t k = pos_ + 2; k < pos_ + 6; ++k) {
            int h = hex_digit(text_[k]);
            if (h < 0) {
              ok = false;
              break;
            }
            low = low * 16 + static_cast<uint32_t>(h);
          }
          if (ok && low >= 0xDC00 && low <= 0xDFFF) {
            pos_ += 6;
            append_utf8(out, 0x10000 + ((cp - 0xD800) << 10) + (low - 0xDC00));
            return true;
          }
        }
        cp = 0xFFFD;
      } else if (cp >= 0xDC00 && cp <= 0xDFFF) {
        cp = 0xFFFD;
      }
      append_utf8(out, cp);
      return true;
    }
    default:
      if (c >= '0' && c <= '7') {
        // Up to three octal digits name one byte, kept as it is.
        unsigned v = static_cast<unsigned>(c - '0');
        for (int k = 0; k < 2 && !at_end() && peek() >= '0' && peek() <= '7'; ++k)
          v = v * 8 + static_cast<unsigned>(text_[pos_++] - '0');
        out.push_back(static_cast<char>(static_cast<unsigned char>(v & 0xFF)));
        return true;
      }
      // \" \\ \' and any other escaped character stand for themselves.
      out.push_back(c);
      return true;
  }
}

bool TextReader::read_quoted(std::string& out) {
  char quote = text_[pos_];
  size_t start = pos_++;
  out.clear();
  while (true) {
    if (at_end()) return fail_at(start, "unterminated string");
    // Copy plain runs at once; only escapes need per-character work.
    size_t run = pos_;
    while (run < text_.size() && text_[run] != quote && text_[run] != '\\') ++run;
    out.append(text_.data() + pos_, run - pos_);
    pos_ = run;
    if (at_end()) return fail_at(start, "unterminated string");
    if (peek() == quote) {
      ++pos_;
      return true;
    }
    ++pos_;  // the backslash
    if (!read_escape(out)) return false;
  }
}

bool TextReader::read_string(std::string& out) {
  if (at_end()) return fail("expected a string, found the end of the text");
  char c = peek();
  if (c == '"' || c == '\'') return read_quoted(out);
  if (!is_bare_char(c)) return fail(std::string("expected a string, found '") + c + "'");
  size_t start = pos_;
  while (!at_end() && is_bare_char(peek())) ++pos_;
  out.assign(text_.substr(start, pos_ - start));
  return true;
}

bool TextReader::read_data(Value& out) {
  size_t start = pos_++;  // '<'
  Data data;
  int high = -1;
  while (true) {
    if (!skip_blank()) return false;
    if (at_end()) return fail_at(start, "unterminated <data>");
    char c = peek();
    if (c == '>') {
      ++pos_;
      break;
    }
    int v = hex_digit(c);
    if (v < 0) return fail(std::string("bad character '") + c + "' in <data>");
    ++pos_;
    if (high < 0) {
      high = v;
    } else {
      data.push_back(static_cast<uint8_t>(high * 16 + v));
      high = -1;
    }
  }
  if (high >= 0) return fail_at(start, "odd number of hex digits in <data>");
  out = Value(std::move(data));
  return true;
}

bool TextReader::read_dict(int depth, Value& out) {
  ++pos_;  // '{'
  Dict dict;
  std::string key;
  while (true) {
    if (!skip_blank()) return false;
    if (at_end()) return fail("unterminated dictionary, expected '}'");
    if (peek() == '}') {
      ++pos_;
      break;
    }
    if (!read_string(key)) return false;
    if (!skip_blank()) return false;
    if (at_end() || peek() != '=') return fail("expected '=' after key \"" + key + "\"");
    ++pos_;
    if (!skip_blank()) return false;
    Value value;
    if (!read_value(depth + 1, value)) return false;
    dict.set(key, std::move(value));  // a repeated key keeps the last value
    if (!skip_blank()) return false;
    if (at_end()) return fail("unterminated dictionary, expected ';' or '}'");
    if (peek() == ';') {
      ++pos_;
    } else if (peek() != '}') {
      return fail(std::string("expected ';' after the value of \"") + key + "\"");
    }
  }
  out = Value(std::move(dict));
  return true;
}

bool TextReader::read_array(int depth, Value& out) {
  ++pos_;  // '('
  Array array;
  while (true) {
    if (!skip_blank()) return false;
    if (at_end()) return fail("unterminated array, expected ')'");
    if (peek() == ')') {
      ++pos_;
      break;
    }
    array.emplace_back();
    if (!read_value(depth + 1, array.back())) return false;
    if (!skip_blank()) return false;
    if (at_end()) return fail("unterminated array, expected ',' or ')'");
    if (peek() == ',') {
      ++pos_;
    } else if (peek() != ')') {
      return fail(std::string("expected ',' or ')' in array, found '") + peek() + "'");
    }
  }
  out = Value(std::move(array));
  return true;
}

bool TextReader::read_value(int depth, Value& out) {
  if (depth > kMaxDepth) return fail("nesting deeper than " + std::to_string(kMaxDepth) + " levels");
  if (at_end()) return fail("expected a value, found the end of the text");
  switch (peek()) {
    case '{':
      return read_dict(depth, out);
    case '(':
      return read_array(depth, out);
    case '<':
      return read_data(out);
    default: {
      std::string s;
      if (!read_string(s)) return false;
      out = Value(std::move(s));
      return true;
    }
  }
}

Parsed TextReader::run() {
  Parsed result;
  if (text_.substr(0, 3) == "\xEF\xBB\xBF") pos_ = 3;
  Value value;
  bool ok = skip_blank();
  if (ok && at_end()) ok = fail("empty document");
  if (ok) ok = read_value(1, value);
  if (ok) ok = skip_blank();
  if (ok && !at_end()) ok = fail("unexpected text after the value");
  if (!ok) {
    result.error = std::move(error_);
    return result;
  }
  result.value = std::move(value);
  return result;
}

}  // namespace

Parsed parse_text(std::string_view text) { return TextReader(text).run(); }

Parsed parse_any(std::string_view text) {
  std::string_view rest = text;
  if (rest.substr(0, 3) == "\xEF\xBB\xBF") rest.remove_prefix(3);
  std::string_view head = text::trim(rest);
  if (head.starts_with("<?xml") || head.starts_with("<!DOCTYPE") || head.starts_with("<plist"))
    return parse_xml(rest);
  return parse_text(text);
}

}  // namespace plist
