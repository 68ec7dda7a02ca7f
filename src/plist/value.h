// The property-list value type shared by requests, replies, the module
// context and every file the module reads or writes.
//
// Values have value semantics: copies are deep. Dictionaries keep their keys
// in insertion order because replies are built in a documented key order and
// clients (and tests) compare that order. Integers keep signed and unsigned
// 64-bit apart so that both -5 and 18446744073709551615 survive a round trip.
//
// A Value is not safe for concurrent mutation; concurrent reads are fine.
#pragma once

#include <cstdint>
#include <initializer_list>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <variant>
#include <vector>

namespace plist {

class Value;
class Dict;
using Array = std::vector<Value>;
using Data = std::vector<uint8_t>;

// Seconds since 1970-01-01 00:00 UTC.
struct Date {
  double seconds = 0;
  bool operator==(const Date&) const = default;
};

enum class Type { Null, Bool, Integer, Unsigned, Real, String, Date, Data, Array, Dict };

// Insertion-ordered string-keyed dictionary. Setting an existing key replaces
// its value in place and keeps its position.
class Dict {
 public:
  using Entry = std::pair<std::string, Value>;
  using iterator = std::vector<Entry>::iterator;
  using const_iterator = std::vector<Entry>::const_iterator;

  Dict();
  Dict(std::initializer_list<Entry> entries);
  Dict(const Dict& other);
  Dict(Dict&& other) noexcept;
  Dict& operator=(const Dict& other);
  Dict& operator=(Dict&& other) noexcept;
  ~Dict();

  // Returns the value stored at key, or nullptr when absent.
  const Value* find(std::string_view key) const;
  Value* find(std::string_view key);
  bool contains(std::string_view key) const { return find(key) != nullptr; }

  // Typed lookups: nullptr when the key is absent or holds another type.
  const std::string* find_string(std::string_view key) const;
  const Dict* find_dict(std::string_view key) const;
  Dict* find_dict(std::string_view key);
  const Array* find_array(std::string_view key) const;
  // A number (boolean, integer or real) at key, or nullptr.
  const Value* find_number(std::string_view key) const;

  void set(std::string_view key, Value value);
  // The value at key, appended as null at the end when absent, so that a
  // reader can build a value in place. The reference is valid until the
  // next change of this dictionary.
  Value& operator[](std::string_view key);
  void reserve(size_t n);
  // Removes key; returns whether it was present.
  bool remove(std::string_view key);
  // Copies every entry of changes into this dictionary (top-level keys only).
  void merge(const Dict& changes);

  size_t size() const;
  bool empty() const;
  void clear();
  iterator begin() { return entries_.begin(); }
  iterator end() { return entries_.end(); }
  const_iterator begin() const { return entries_.begin(); }
  const_iterator end() const { return entries_.end(); }
  const Entry& at_index(size_t i) const;

  // Key-by-key equality that ignores key order, as property lists compare.
  bool operator==(const Dict& other) const;

 private:
  static constexpr size_t kIndexThreshold = 24;
  size_t position_of(std::string_view key) const;
  void rebuild_index() const;

  std::vector<Entry> entries_;
  // Kept for large dictionaries so that lookups stay O(1) there; built by
  // the mutators only, so const lookups never write.
  mutable std::unique_ptr<std::unordered_map<std::string_view, size_t>> index_;
};

class Value {
 public:
  Value() = default;
  Value(std::nullptr_t) {}
  Value(bool b) : v_(b) {}
  Value(int i) : v_(static_cast<int64_t>(i)) {}
  Value(long i) : v_(static_cast<int64_t>(i)) {}
  Value(long long i) : v_(static_cast<int64_t>(i)) {}
  Value(unsigned i) : v_(static_cast<uint64_t>(i)) {}
  Value(unsigned long i) : v_(static_cast<uint64_t>(i)) {}
  Value(unsigned long long i) : v_(static_cast<uint64_t>(i)) {}
  Value(double d) : v_(d) {}
  Value(const char* s) : v_(std::string(s)) {}
  Value(std::string s) : v_(std::move(s)) {}
  Value(std::string_view s) : v_(std::string(s)) {}
  Value(Date d) : v_(d) {}
  Value(Data d) : v_(std::move(d)) {}
  Value(Array a) : v_(std::move(a)) {}
  Value(Dict d) : v_(std::move(d)) {}

  Type type() const { return static_cast<Type>(v_.index()); }
  bool is_null() const { return type() == Type::Null; }
  // Booleans count as numbers, as they do for the console's property lists.
  bool is_number() const;
  bool is_string() const { return type() == Type::String; }
  bool is_dict() const { return type() == Type::Dict; }
  bool is_array() const { return type() == Type::Array; }

  const bool* as_bool() const { return std::get_if<bool>(&v_); }
  const int64_t* as_integer() const { return std::get_if<int64_t>(&v_); }
  const uint64_t* as_unsigned() const { return std::get_if<uint64_t>(&v_); }
  const double* as_real() const { return std::get_if<double>(&v_); }
  const std::string* as_string() const { return std::get_if<std::string>(&v_); }
  std::string* as_string() { return std::get_if<std::string>(&v_); }
  const Date* as_date() const { return std::get_if<Date>(&v_); }
  const Data* as_data() const { return std::get_if<Data>(&v_); }
  const Array* as_array() const { return std::get_if<Array>(&v_); }
  Array* as_array() { return std::get_if<Array>(&v_); }
  const Dict* as_dict() const { return std::get_if<Dict>(&v_); }
  Dict* as_dict() { return std::get_if<Dict>(&v_); }

  // Numeric conversions of a number value; nullopt for non-numbers. Reals
  // are truncated toward zero and saturated at the target's limits (NaN
  // gives 0), so no conversion is undefined behaviour.
  std::optional<int64_t> to_int64() const;
  std::optional<uint64_t> to_uint64() const;
  std::optional<int32_t> to_int32() const;  // wraps like a C cast of int64
  std::optional<double> to_double() const;
  // The boolean value of a number (non-zero is true); false otherwise.
  bool number_is_true() const;

  // Deep equality; numbers compare by numeric value across kinds.
  bool operator==(const Value& other) const;

 private:
  std::variant<std::monostate, bool, int64_t, uint64_t, double, std::string, Date, Data, Array, Dict> v_;
};

// Defined here rather than in the class because they need Value complete.
inline size_t Dict::size() const { return entries_.size(); }
inline bool Dict::empty() const { return entries_.empty(); }
inline const Dict::Entry& Dict::at_index(size_t i) const { return entries_[i]; }

// The module's flag test: the string "YES" or a number whose boolean value is
// true. A null pointer is not set.
bool is_flag_set(const Value* v);

// Builds a dictionary as an ordered key-value list that ends at the first
// missing value: once a value is absent, every later key is absent too.
class KeyValueList {
 public:
  KeyValueList& add(std::string_view key, std::optional<Value> value);
  KeyValueList& add(std::string_view key, const Value* value);
  bool ended() const { return ended_; }
  Dict take() { return std::move(dict_); }

 private:
  Dict dict_;
  bool ended_ = false;
};

}  // namespace plist
