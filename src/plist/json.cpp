// The JSON property-list reader and writer.
//
// Reading goes through nlohmann_json's event (SAX) interface and builds
// plist values directly, so no second tree is made and the depth limit is
// enforced while parsing rather than after. Writing is done here: the
// output has a fixed shape, reals need a form that never reads back as an
// integer, and only string escaping is left to the library.
#include "plist/json.h"

#include <charconv>
#include <cmath>
#include <nlohmann/json.hpp>
#include <string>
#include <utility>
#include <vector>

#include "plist/scalar_text.h"

namespace plist {

namespace {

// Deeper documents are refused: the writer and the value destructor recurse.
constexpr size_t kMaxDepth = 512;

constexpr std::string_view kDateTag = "$date";
constexpr std::string_view kDataTag = "$data";
constexpr std::string_view kDictTag = "$dict";

using Json = nlohmann::json;

// Collects events into a plist value. Containers under construction sit on
// a stack; a finished value goes into the container below it.
class ValueBuilder : public nlohmann::json_sax<Json> {
 public:
  bool null() override { return add(Value()); }
  bool boolean(bool b) override { return add(Value(b)); }
  bool number_integer(number_integer_t n) override { return add(Value(static_cast<int64_t>(n))); }
  bool number_unsigned(number_unsigned_t n) override {
    if (n <= static_cast<uint64_t>(std::numeric_limits<int64_t>::max())) return add(Value(static_cast<int64_t>(n)));
    return add(Value(static_cast<uint64_t>(n)));
  }
  bool number_float(number_float_t d, const string_t& lexeme) override {
    // The lexer falls back to a double for integers beyond 64 bits; those
    // would silently lose digits, so they are refused like in XML.
    if (lexeme.find_first_of(".eE") == std::string::npos) return fail("integer out of range: " + lexeme);
    if (!std::isfinite(d)) return fail("number out of range: " + lexeme);
    return add(Value(static_cast<double>(d)));
  }
  bool string(string_t& s) override { return add(Value(std::move(s))); }
  bool binary(binary_t&) override { return fail("binary values are not JSON"); }

  bool start_object(std::size_t) override { return open(Value(Dict())); }
  bool key(string_t& k) override {
    stack_.back().key = std::move(k);
    return true;
  }
  bool end_object() override { return close(); }
  bool start_array(std::size_t) override { return open(Value(Array())); }
  bool end_array() override { return close(); }

  bool parse_error(std::size_t, const std::string&, const nlohmann::detail::exception& e) override {
    std::string message = e.what();
    // Drop the library's "[json.exception.parse_error.101] " prefix.
    if (size_t end = message.find("] "); message.starts_with("[json.exception.") && end != std::string::npos)
      message.erase(0, end + 2);
    return fail(message);
  }

  Parsed result(bool parsed) {
    Parsed p;
    if (!parsed || !error_.empty() || !root_ || !untag(*root_, false)) {
      p.error = "JSON: " + (error_.empty() ? std::string("incomplete document") : error_);
      return p;
    }
    p.value = std::move(*root_);
    return p;
  }

 private:
  struct Frame {
    Value container;
    std::string key;
  };

  bool fail(std::string message) {
    if (error_.empty()) error_ = std::move(message);
    return false;
  }

  bool add(Value v) {
    if (stack_.empty()) {
      root_ = std::move(v);
      return true;
    }
    Frame& top = stack_.back();
    if (Array* a = top.container.as_array())
      a->push_back(std::move(v));
    else
      top.container.as_dict()->set(top.key, std::move(v));
    return true;
  }

  bool open(Value container) {
    if (stack_.size() >= kMaxDepth) return fail("nesting deeper than " + std::to_string(kMaxDepth) + " levels");
    stack_.push_back(Frame{std::move(container), {}});
    return true;
  }

  bool close() {
    Value v = std::move(stack_.back().container);
    stack_.pop_back();
    return add(std::move(v));
  }

  // Tags are resolved from the root down once the document is read: whether
  // an object is a tag depends on its parent, which closes after it (the
  // object under a "$dict" wrapper is a dictionary whatever its keys).
  bool untag(Value& v, bool literal_keys) {
    if (Array* a = v.as_array()) {
      for (Value& item : *a)
        if (!untag(item, false)) return false;
      return true;
    }
    Dict* d = v.as_dict();
    if (!d) return true;
    if (!literal_keys && d->size() == 1 && d->at_index(0).first.starts_with('$')) {
      const std::string& tag = d->at_index(0).first;
      Value& inner = d->begin()->second;
      if (tag == kDateTag) {
        Date date;
        const std::string* s = inner.as_string();
        if (!s || !scalar_text::parse_iso_date(*s, true, date)) return fail("bad date in \"$date\"");
        v = Value(date);
        return true;
      }
      if (tag == kDataTag) {
        Data data;
        const std::string* s = inner.as_string();
        if (!s || !scalar_text::decode_base64(*s, data)) return fail("bad base64 in \"$data\"");
        v = Value(std::move(data));
        return true;
      }
      if (tag == kDictTag) {
        if (!inner.is_dict()) return fail("\"$dict\" must hold an object");
        Value unwrapped = std::move(inner);
        v = std::move(unwrapped);
        return untag(v, true);
      }
      return fail("unknown tag \"" + tag + "\"");
    }
    for (auto& entry : *d)
      if (!untag(entry.second, false)) return false;
    return true;
  }

  std::vector<Frame> stack_;
  std::optional<Value> root_;
  std::string error_;
};

void append_string(std::string& out, std::string_view s) {
  // The library's escaping, with bad UTF-8 replaced rather than thrown.
  out.append(Json(std::string(s)).dump(-1, ' ', false, Json::error_handler_t::replace));
}

template <typename T>
void append_number(std::string& out, T v) {
  char buf[24];
  auto [end, ec] = std::to_chars(buf, buf + sizeof buf, v);
  out.append(buf, static_cast<size_t>(end - buf));
}

void append_real(std::string& out, double d) {
  if (!std::isfinite(d)) {
    out.append("null");
    return;
  }
  char buf[64];
  auto [end, ec] = std::to_chars(buf, buf + sizeof buf, d);
  std::string_view text(buf, static_cast<size_t>(end - buf));
  out.append(text);
  if (text.find_first_of(".e") == std::string_view::npos) out.append(".0");
}

class Writer {
 public:
  explicit Writer(bool pretty) : pretty_(pretty) {}

  void write(const Value& value, int depth) {
    switch (value.type()) {
      case Type::Null:
        out_.append("null");
        break;
      case Type::Bool:
        out_.append(*value.as_bool() ? "true" : "false");
        break;
      case Type::Integer:
        append_number(out_, *value.as_integer());
        break;
      case Type::Unsigned:
        append_number(out_, *value.as_unsigned());
        break;
      case Type::Real:
        append_real(out_, *value.as_real());
        break;
      case Type::String:
        append_string(out_, *value.as_string());
        break;
      case Type::Date:
        open_tag(kDateTag, depth);
        out_.push_back('"');
        scalar_text::append_iso_date(out_, value.as_date()->seconds, true);
        out_.push_back('"');
        close_tag(depth);
        break;
      case Type::Data:
        open_tag(kDataTag, depth);
        out_.push_back('"');
        scalar_text::append_base64(out_, *value.as_data());
        out_.push_back('"');
        close_tag(depth);
        break;
      case Type::Array: {
        const Array& array = *value.as_array();
        out_.push_back('[');
        for (size_t i = 0; i < array.size(); ++i) {
          if (i) out_.push_back(',');
          newline(depth + 1);
          write(array[i], depth + 1);
        }
        if (!array.empty()) newline(depth);
        out_.push_back(']');
        break;
      }
      case Type::Dict: {
        const Dict& dict = *value.as_dict();
        // A lone "$" key would read back as a tag: wrap it.
        bool wrap = dict.size() == 1 && dict.at_index(0).first.starts_with('$');
        if (wrap) {
          open_tag(kDictTag, depth);
          ++depth;
        }
        out_.push_back('{');
        bool first = true;
        for (const auto& [key, item] : dict) {
          if (!first) out_.push_back(',');
          first = false;
          newline(depth + 1);
          append_string(out_, key);
          out_.append(pretty_ ? ": " : ":");
          write(item, depth + 1);
        }
        if (!dict.empty()) newline(depth);
        out_.push_back('}');
        if (wrap) close_tag(depth - 1);
        break;
      }
    }
  }

  std::string take() { return std::move(out_); }

 private:
  void newline(int depth) {
    if (!pretty_) return;
    out_.push_back('\n');
    out_.append(static_cast<size_t>(depth) * 2, ' ');
  }
  void open_tag(std::string_view tag, int depth) {
    out_.push_back('{');
    newline(depth + 1);
    out_.push_back('"');
    out_.append(tag);
    out_.append(pretty_ ? "\": " : "\":");
  }
  void close_tag(int depth) {
    newline(depth);
    out_.push_back('}');
  }

  bool pretty_;
  std::string out_;
};

}  // namespace

Parsed parse_json(std::string_view text) {
  ValueBuilder builder;
  bool parsed = false;
  try {
    parsed = Json::sax_parse(text.begin(), text.end(), &builder, nlohmann::detail::input_format_t::json, true);
  } catch (const std::exception& e) {
    // The library reports errors through the handler; anything thrown
    // anyway (allocation) still must not escape a reader.
    return Parsed{Value(), std::string("JSON: ") + e.what()};
  }
  return builder.result(parsed);
}

std::string write_json(const Value& value, bool pretty) {
  Writer writer(pretty);
  writer.write(value, 0);
  return writer.take();
}

}  // namespace plist
